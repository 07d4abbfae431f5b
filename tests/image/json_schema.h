// Holds a JSON document against a schema, as far as ours go: type, enum, const, required,
// properties, additionalProperties (false), items, allOf, anyOf, if with then, $defs and $ref into
// them (alone).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace test_support {

// Empty when the document fits; else where it does not, and why.
std::string schema_fault(const nlohmann::ordered_json& schema,
                         const nlohmann::ordered_json& document);

}  // namespace test_support

// The walk over schema and document side by side.
#include "tests/image/json_schema.h"

#include <algorithm>

namespace test_support {

namespace {

using json = nlohmann::ordered_json;

bool is_of_type(const json& value, const std::string& type) {
  return type == "object"    ? value.is_object()
         : type == "array"   ? value.is_array()
         : type == "string"  ? value.is_string()
         : type == "integer" ? value.is_number_integer()
         : type == "number"  ? value.is_number()
         : type == "boolean" ? value.is_boolean()
                             : type == "null" && value.is_null();
}

class judge {
 public:
  explicit judge(const json& root) : root_(root) {}

  std::string fault(const json& given, const json& value, const std::string& place) const {
    const json& schema = given.contains("$ref") ? referred(given["$ref"]) : given;
    if (schema.contains("type") && !fits_type(schema["type"], value)) {
      return place + ": is not of type " + schema["type"].dump();
    }
    if (schema.contains("enum") &&
        std::find(schema["enum"].begin(), schema["enum"].end(), value) == schema["enum"].end()) {
      return place + ": " + value.dump() + " is not one of " + schema["enum"].dump();
    }
    if (schema.contains("const") && value != schema["const"]) {
      return place + ": " + value.dump() + " is not " + schema["const"].dump();
    }
    if (std::string found = fault_of_parts(schema, value, place); !found.empty()) {
      return found;
    }
    if (value.is_object()) {
      return fault_of_object(schema, value, place);
    }
    if (value.is_array() && schema.contains("items")) {
      for (size_t i = 0; i < value.size(); ++i) {
        const std::string found =
            fault(schema["items"], value[i], place + "[" + std::to_string(i) + "]");
        if (!found.empty()) {
          return found;
        }
      }
    }
    return "";
  }

 private:
  const json& referred(const std::string& reference) const {
    return root_.at(json::json_pointer(reference.substr(1)));
  }

  static bool fits_type(const json& types, const json& value) {
    if (types.is_string()) {
      return is_of_type(value, types);
    }
    return std::any_of(types.begin(), types.end(),
                       [&](const json& type) { return is_of_type(value, type); });
  }

  // The schemas of which this one is made: all, any, and one under a condition.
  std::string fault_of_parts(const json& schema, const json& value,
                             const std::string& place) const {
    for (const json& part : schema.value("allOf", json::array())) {
      if (std::string found = fault(part, value, place); !found.empty()) {
        return found;
      }
    }
    const json choices = schema.value("anyOf", json::array());
    if (!choices.empty() && std::none_of(choices.begin(), choices.end(), [&](const json& one) {
          return fault(one, value, place).empty();
        })) {
      return place + ": fits none of what it may be";
    }
    return schema.contains("if") && fault(schema["if"], value, place).empty()
               ? fault(schema["then"], value, place)
               : "";
  }

  std::string fault_of_object(const json& schema, const json& value,
                              const std::string& place) const {
    const json required = schema.value("required", json::array());
    for (const json& name : required) {
      if (!value.contains(std::string(name))) {
        return place + ": lacks " + std::string(name);
      }
    }
    const json properties = schema.value("properties", json::object());
    for (const auto& [name, member] : value.items()) {
      if (properties.contains(name)) {
        const std::string found = fault(properties[name], member, place + "." + name);
        if (!found.empty()) {
          return found;
        }
      } else if (!schema.value("additionalProperties", true)) {
        return place + ": must not have " + name;
      }
    }
    return "";
  }

  const json& root_;
};

}  // namespace

std::string schema_fault(const json& schema, const json& document) {
  return judge(schema).fault(schema, document, "document");
}

}  // namespace test_support

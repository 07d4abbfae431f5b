// The templates of the JSON library for documents in order, as they are compiled once, in
// host_functions.cpp. It stands in precompiled headers alone: sources do not know of it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

extern template class nlohmann::basic_json<nlohmann::ordered_map>;
extern template class std::vector<nlohmann::ordered_json>;
extern template struct nlohmann::ordered_map<std::string, nlohmann::ordered_json>;

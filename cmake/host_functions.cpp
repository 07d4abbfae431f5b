// What the header-only libraries of the host tool would otherwise compile into each source that
// uses them: the functions of fmt that know no type of ours, and the documents of the JSON library.
#include <fmt/format-inl.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

template auto fmt::detail::thousands_sep_impl<char>(locale_ref) -> thousands_sep_result<char>;
template auto fmt::detail::decimal_point_impl(locale_ref) -> char;
template void fmt::detail::buffer<char>::append(const char*, const char*);
template void fmt::detail::vformat_to(buffer<char>&, string_view,
                                      basic_format_args<fmt::buffer_context<char>>, locale_ref);

template class nlohmann::basic_json<nlohmann::ordered_map>;
template class std::vector<nlohmann::ordered_json>;
template struct nlohmann::ordered_map<std::string, nlohmann::ordered_json>;

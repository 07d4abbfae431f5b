// Reading the texts of recipes.
#include "tests/support/recipe_text.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace test_support {

namespace {

constexpr uint16_t mode_of_file = 0x8700;
constexpr uint16_t mode_of_directory = 0x4700;

void require(bool holds, const std::string& text) {
  if (!holds) {
    std::fprintf(stderr, "no recipe: \"%s\"\n", text.c_str());
    std::abort();
  }
}

}  // namespace

placed_slot slot_from(const std::string& text) {
  placed_slot made = {};
  int end = 0;
  const int fields = std::sscanf(text.c_str(), "%hu:%d.%d/%d %hu<%hu%n", &made.fields.seq_no,
                                 &made.block, &made.sector, &made.slot_no,
                                 &made.fields.entry_fileid, &made.fields.dir_fileid, &end);
  require(fields == 6, text);
  std::string name = text.substr(static_cast<size_t>(end));
  require(name.empty() || (name.size() > 1 && name[0] == ' '), text);
  const bool is_directory = name.empty() || name.back() == '/';
  if (!name.empty()) {
    name = name.substr(1, name.size() - (is_directory ? 2 : 1));
  }
  made.fields.mode = is_directory ? mode_of_directory : mode_of_file;
  made.fields.name = name;
  return made;
}

std::vector<flashfs_sctr_ptr> sectors_from(const std::string& text) {
  std::vector<flashfs_sctr_ptr> sectors;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    flashfs_sctr_ptr pointer = {};
    require(std::sscanf(word.c_str(), "%hd.%hu", &pointer.block_num, &pointer.sctr_num) == 2, text);
    sectors.push_back(pointer);
  }
  return sectors;
}

slot_range slots_from(const std::string& text) {
  slot_range range = {};
  const int fields = std::sscanf(text.c_str(), "%d.%d/%d-%d", &range.block, &range.sector,
                                 &range.first, &range.last);
  require(fields >= 3, text);
  range.last = fields == 3 ? range.first : range.last;
  return range;
}

}  // namespace test_support

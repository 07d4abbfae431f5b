// Trees as text and by hand.
#include "tests/image/tree_text.h"

#include "image/paths.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <utility>

namespace image_test {

std::string tree_text(const image::tree& shown) {
  std::string text;
  for (const image::tree_entry& entry : shown.entries) {
    char details[40];
    snprintf(details, sizeof(details), " %o %u", static_cast<unsigned>(entry.mode),
             static_cast<unsigned>(entry.mtime));
    text += entry.path + (entry.directory ? "/" : "") + details;
    text += entry.directory ? "\n" : " [" + entry.contents + "]\n";
  }
  return text;
}

std::string problems_text(const std::vector<image::tree_problem>& problems) {
  std::string text;
  for (const image::tree_problem& one : problems) {
    text += one.path + ": " + one.text + "\n";
  }
  return text;
}

void set_date(const std::string& path, int64_t seconds) {
  timespec dates[2] = {};
  dates[0].tv_sec = dates[1].tv_sec = static_cast<time_t>(seconds);
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), dates, 0), 0) << path;
}

image::tree_entry folder_entry(const std::string& path, uint32_t mode, uint32_t mtime) {
  return {path, true, mode, mtime, "", 0};
}

image::tree_entry file_entry(const std::string& path, const std::string& contents, uint32_t mode,
                             uint32_t mtime) {
  return {path, false, mode, mtime, contents, contents.size()};
}

image::tree tree_of(std::vector<image::tree_entry> entries) {
  image::tree made;
  made.entries = std::move(entries);
  image::sort_tree(&made);
  return made;
}

image::tree manifold_tree() {
  std::vector<image::tree_entry> entries;
  entries.push_back(folder_entry("bytes", 0755, 1600000000));
  for (int value = 0x21; value < 0x7F; ++value) {
    const std::string name = std::string("n") + static_cast<char>(value);
    if (image::name_fault(name).empty()) {
      entries.push_back(file_entry("bytes/" + name, name, 0644, 1600000000U + value));
    }
  }
  entries.push_back(file_entry("." + std::string(44, 'n'), "longest"));
  entries.push_back(file_entry("-rf", "looks like an option"));
  for (const size_t size : {0, 1, 2047, 2048, 2049, 4096, 70000}) {
    std::string contents(size, '\0');
    for (size_t i = 0; i < size; ++i) {
      contents[i] = static_cast<char>(i * 7 + i / 256);
    }
    entries.push_back(file_entry("size" + std::to_string(size), contents, 0600, 1500000000));
  }
  std::string deep = "deep";
  for (int i = 0; i < 30; ++i) {
    entries.push_back(folder_entry(deep, 0711, 1400000000U + static_cast<uint32_t>(i)));
    deep += "/d" + std::to_string(i);
  }
  entries.push_back(file_entry(deep, "at the bottom", 0400 | 0040, 1234567890));
  entries.push_back(folder_entry("empty-folder", 0700, 987654321));
  return tree_of(std::move(entries));
}

}  // namespace image_test

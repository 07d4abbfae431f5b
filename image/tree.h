// A tree of files and folders in memory, on its way between the host and an image: what `create`
// writes, what `extract` takes out, what `verify` and `diff` compare. Here are its order, what the
// flash asks of names and dates, and reading one from a folder of the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace image {

struct tree_entry {
  std::string path;  // "a/b": no slash at either end, raw bytes
  bool directory = false;
  uint32_t mode = 0;     // permission bits, 0 to 0777
  uint32_t mtime = 0;    // seconds since 1970
  std::string contents;  // of a file; empty when the tree leaves contents out, or to be read later
  uint64_t size = 0;     // bytes of a file
};

struct tree_problem {
  std::string path;
  std::string text;  // what is wrong with it, for a person
};

struct tree {
  std::vector<tree_entry> entries;     // in byte order of the path's components, parents first
  std::vector<tree_problem> warnings;  // left out: an image has no place for it
  std::vector<tree_problem> errors;    // could not be read, or cannot be in an image
  std::optional<uint32_t> root_mtime;  // of the folder that was read, when there is one
  bool contents_left_out = false;      // they went beyond the limit: sizes still are right
  // Reads the contents of a file that are still where they come from; empty: there is none. Returns
  // what is wrong, for a person, or nothing.
  std::function<std::string(const tree_entry& entry, std::string* contents)> read_later;
};

// What a tree comes to.
struct tree_sum {
  uint64_t files = 0;
  uint64_t folders = 0;
  uint64_t bytes = 0;
};

tree_sum sum_of(const tree& whole);

struct tree_options {
  // Beyond so many bytes in all, contents are not read, only sizes.
  uint64_t contents_limit = uint64_t{1} << 31;
  // Contents of large files stay in the folder: see tree::read_later.
  bool large_files_later = false;
  // Contents of other sizes are not read; null: of all.
  const std::set<uint64_t>* sizes_wanted = nullptr;
};

// The contents of a file: the entry's, or, read into `held`, those that are still where they come
// from. Returns what is wrong, for a person, or nothing.
[[nodiscard]] std::string contents_of(const tree& from, const tree_entry& entry, std::string* held,
                                      std::string_view* contents);

// Whether one path stands before another: a folder before what is in it, which stays together.
[[nodiscard]] bool path_is_before(std::string_view path, std::string_view other);

// Brings entries and problems in the order of their paths.
void sort_tree(tree* made);

// As sort_tree, and adds an error for every one whose path an image cannot have.
void finish_tree(tree* made);

// Reads all below a folder of the host. Links are not followed and, like sockets, pipes and
// devices, left out with a warning, and so are owners, when not all are the same. What cannot be
// read is an error, and the rest is read on.
[[nodiscard]] tree read_folder(const std::string& folder, const tree_options& options);

// A warning when a source has files of several owners: an image has none.
class owner_watch {
 public:
  void see(int64_t user, int64_t group);
  void warn(tree* made) const;

 private:
  std::optional<int64_t> user_;
  std::optional<int64_t> group_;
  bool several_ = false;
};

}  // namespace image

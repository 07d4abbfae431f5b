// Writing a tree of files out into a folder of the host, so that nothing in it, however hostile the
// image it came from, can reach anything outside that folder.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image/host_file.h"
#include "image/tree.h"

namespace image {

struct extraction_options {
  bool force = false;       // into a folder that has something in it; files there are replaced
  bool keep_going = false;  // what cannot be written is told and left out
  bool dry_run = false;     // nothing is written: tells what would be, and what would be wrong
  std::optional<file_identity> never = {};  // a file that must stay: the image
};

struct extraction {
  uint32_t files = 0;
  uint32_t folders = 0;
  uint64_t bytes = 0;
  bool refused = false;                // nothing was touched: an error says why
  std::vector<tree_problem> warnings;  // written, but worth a look
  std::vector<tree_problem> errors;    // not written
};

// Why a name from flash cannot become one of the host: it is empty, "." or "..", or has a slash.
// Empty when it can.
[[nodiscard]] std::string host_name_fault(std::string_view name);

// Every name in a tree that cannot become one of the host.
[[nodiscard]] std::vector<tree_problem> host_faults(const tree& from);

// Writes the tree below `folder`, which is made if it is missing (but not what it lies in). No
// link is followed on the way, but for `folder` itself. Files get their dates and permissions,
// folders last. Without `keep_going` it ends with the first error; all names are judged before
// anything is written.
[[nodiscard]] extraction extract_tree(const tree& from, const std::string& folder,
                                      const extraction_options& options);

// The permissions of the host for a mode on flash: its low nine bits, never more of them, so that
// what was stored comes back. But the owner gets to what comes out: a file without any has 0400,
// and a folder without any, or with 0400, as the board makes them, has 0700.
[[nodiscard]] uint32_t host_permissions(uint32_t mode, bool directory);

}  // namespace image

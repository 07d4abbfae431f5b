// What a put is to write: files and folders of the host, read, each under the path that it gets in
// the image. Nothing is written here.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "image/paths.h"
#include "image/report.h"
#include "image/tree.h"

namespace image {

struct put_sources {
  std::vector<std::string> names;  // of the host, "-" for standard input
  std::string path;                // where they go, as it was given
  bool recursive = false;          // folders, too
};

struct put_plan {
  struct path_order {
    bool operator()(const std::string& one, const std::string& other) const {
      return path_is_before(one, other);
    }
  };
  std::map<std::string, tree_entry, path_order> entries;  // directories before what is in them
  std::set<std::string> told;  // paths of which something wrong has been told
};

// What cannot be read, or would go to one path with another, is told and raises the status. Ends
// early after a signal.
put_plan plan_put(const put_sources& sources, const volume::files& files, report& out);

}  // namespace image

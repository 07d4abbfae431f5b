// What a check does to an image, told from the image before it and after it: file by file, block by
// block, record by record. Nobody but the check itself knows what it will do; so it is run on a
// private copy, and this tells the difference.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "image/finding.h"
#include "image/records.h"
#include "volume/files.h"

namespace image {

struct check_run {
  const records& before;
  const records& after;
  bool passed;                         // the file system is usable
  std::span<const std::string> lines;  // what it said; the time it took is left out
  const volume::files* mounted;        // mounted over the bytes `after`; null: not looked at
};

// Blocks, sectors and slots by place, then files by path, then what was said. Empty but for that
// when the check had nothing to do.
std::vector<finding> report_check(const check_run& run);

// Whether a check that does this drops a file, or erases or makes obsolete a good record that
// stands nowhere else.
bool check_loses(std::span<const finding> report);

// Whether something is wrong that the check does not mind, so that it is wrong behind it, too: a
// name that leads nowhere for instance.
bool check_leaves_faults(std::span<const finding> report);

}  // namespace image

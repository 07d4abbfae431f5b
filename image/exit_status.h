// The exit statuses of flashfs-image, one table for all commands. What was found decides, not what
// was written: a dry run ends like the real one. Of several that fit the highest is given.
#pragma once

namespace image {

enum class exit_status : int {
  good = 0,          // done, nothing wrong, equal
  changed = 1,       // repaired, or differs
  partial = 2,       // done but for what was left out
  faults = 4,        // faults were found, and are left
  failed = 8,        // it could not be done: input/output, not found, full, locked
  usage = 16,        // the command line is wrong
  interrupted = 32,  // by a signal; nothing was changed
};

}  // namespace image

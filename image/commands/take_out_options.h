// What every command takes that writes all files out.
#pragma once

#include "image/options.h"
#include "image/take_out.h"

namespace image {

// Adds --keep-going and --force.
inline void add_take_out_flags(arguments& take, host_place* to) {
  take.flag("--keep-going", &to->keep_going,
            "Leave out what cannot be taken out (status 2), and go on");
  take.flag("--force", &to->force,
            "Into a folder that is not empty, over an archive that is there");
}

}  // namespace image

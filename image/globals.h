// The options that every command takes.
#pragma once

#include <optional>
#include <string>

namespace image {

enum class when { automatic, always, never };

struct globals {
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  when color = when::automatic;
  when progress = when::automatic;
  bool dry_run = false;
  std::string output;    // an edit goes into this new image; empty: into the image itself
  std::string geometry;  // as parse_geometry reads it; empty: found in the image
  bool full = false;     // reading commands mount with the full check
  bool strict = false;   // what is only warned of counts as a fault
  double lock_timeout_seconds = 10;
};

}  // namespace image

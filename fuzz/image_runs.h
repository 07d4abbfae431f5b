// flashfs-image run in this process, over hostile flashes: for its fuzzer, and for the test that
// runs every command over the stored ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/input_bytes.h"

struct image_run {
  int status = 0;
  std::string out;  // standard output
};

// The words of a command line, without the program's name. Standard error is dropped.
image_run run_image_command(const std::vector<std::string>& words);

// Whether the table of exit statuses has it, and no command line was wrong and nobody interrupted.
bool is_status_of_work(int status);

// A flash as an image, and what --geometry says of it.
struct hostile_image {
  std::string bytes;
  std::string geometry;
};

// Makes the flash of a recipe; of its blocks those that have room for a sector.
hostile_image make_hostile_image(input_bytes& input);

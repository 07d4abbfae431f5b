// The short texts in which the tests of the file system say what lies on a flash, the same ones in
// which they print it: a sector is "block.sector", a slot "block.sector/slot".
#pragma once

#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/support/image_builder.h"

namespace test_support {

// A slot of a directory sector and what it says.
struct placed_slot {
  int block;
  int sector;
  int slot_no;
  image_slot fields;
};

// "seq_no:block.sector/slot id<parent name": a name. One that ends in a slash is a directory's
// (without the slash); without any it is the root's own. "1:0.0/2 3<1 d/" is the directory 3, "d",
// in the root. A text of another form ends the program, here and below.
placed_slot slot_from(const std::string& text);

// "0.1 1.0": sectors.
std::vector<flashfs_sctr_ptr> sectors_from(const std::string& text);

// "0.0/3" or "0.0/3-31": one slot, or a row of them.
struct slot_range {
  int block;
  int sector;
  int first;
  int last;
};
slot_range slots_from(const std::string& text);

}  // namespace test_support

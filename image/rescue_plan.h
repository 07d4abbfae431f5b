// What a rescue decides and what it does, as data: for those who print it, and for those who take
// the steps on a flash.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace image {

// How sure a decision is: what the format proves; what everything found speaks for; the best guess.
enum class certainty { proved, supported, guessed };

// One thing that the rescue does, and why.
struct rescue_decision {
  const char* code = "";  // stays the same from version to version
  certainty sure = certainty::proved;
  uint32_t block = 0;             // the place that it is about, among the usable blocks
  uint32_t sector = 0;            // unless it is about the whole block
  uint32_t slot = 0;              // unless it is about the whole sector
  uint16_t fileid = 0;            // of the file or directory that it is about; 0: none
  std::string path = {};          // its path when it has one, "/a/b"
  std::string what = {};          // what is done
  std::string evidence = {};      // what speaks for it
  std::string alternatives = {};  // what else could be done; empty when nothing could
};

// One step on flash. Programming clears bits only, an erase sets a whole block to ones.
struct rescue_step {
  bool is_erase = false;
  uint32_t offset = 0;              // bytes into the flash; of an erase its block's
  std::vector<uint8_t> bytes = {};  // to program: an even number, at an even offset
};

struct rescue_options {
  bool deleted = false;  // bring back removed files of which everything is still there
  uint32_t now = 0;      // the date of what is made new, seconds; 0: the latest date on flash
};

struct rescue_plan {
  std::vector<rescue_decision> decisions;
  std::vector<rescue_step> steps;  // in an order in which each may be the last
  std::vector<uint8_t> mended;     // the flash after the steps
  bool complete = true;            // false: there was no room for everything, see the decisions
};

}  // namespace image

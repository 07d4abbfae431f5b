// What a rescue decides and what it does, as data: for those who print it, and for those who take
// the steps on a flash.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace image {

// How sure a decision is: what the format proves; what everything found speaks for; the best guess.
enum class certainty { proved, supported, guessed };

// A removed file that would come back if there were room.
constexpr const char* no_room_to_return = "no-room-to-return";

// One thing that the rescue does, and why.
struct rescue_decision {
  const char* code = "";  // of the table in finding.h
  certainty sure = certainty::proved;
  std::optional<uint32_t> block = {};   // the place that it is about, among the usable blocks
  std::optional<uint32_t> sector = {};  // unless it is about the whole block
  std::optional<uint32_t> slot = {};    // unless it is about the whole sector
  std::optional<uint32_t> offset = {};  // of that place, bytes into the flash
  bool asked = false;             // about a removed file: it comes back since it was asked for
  uint16_t fileid = 0;            // of the file or directory that it is about; 0: none
  std::string path = {};          // its path in the end, "/a/b"; of what has none, its last name
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

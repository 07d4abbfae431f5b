// The rescue: what a power cut or a check has left is read record by record, before any check
// judges it, and mended with steps that flash can take: words programmed, whole blocks erased. It
// works on bytes alone; who reads them from an image or a complex, and who applies the steps, is
// not its business.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "flashfs/flash_driver.h"

namespace image {

// How sure a decision is: what the format proves; what everything found speaks for; the best guess.
enum class certainty { proved, supported, guessed };
const char* certainty_text(certainty value);

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

// Decides about a flash and mends a copy of it. `blocks` are all its erase blocks in the order of
// their offsets, as a flash driver has them; those that are skipped are left alone. Blocks that the
// bytes do not hold whole are taken as absent.
rescue_plan plan_rescue(std::span<const uint8_t> bytes, std::span<const flash_block_info> blocks,
                        const rescue_options& options = {});

}  // namespace image

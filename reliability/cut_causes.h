// Why a power cut can leave something else than the old or the new state: in which word of which
// record it must fall, and what it then leaves under which check. docs/power-cuts.md tells each
// cause's story. What no cause covers is a defect.
#pragma once

#include <cstdint>
#include <optional>
#include <set>

#include "sim/power.h"
#include "tests/support/ram_flash.h"

namespace reliability {

// What a cut can leave that is neither the old nor the new state.
enum class outcome {
  check_refuses,      // the check fails: nothing is mounted
  other_changed,      // something that the operation does not touch is gone or different
  stray_name,         // an entry that nobody made
  touched_lost,       // a touched file is in neither its old nor its new place
  touched_torn,       // its content is no mixture of old and new sectors
  touched_dropped,    // it has its name but has lost its content
  relinked,           // something stands in /lost+found
  not_settled,        // a further check still changes the flash
  lost_though_whole,  // a file stood whole on flash and is not there: for images that are written
  fails_in_use,       // what was recovered cannot be worked on
  differs_in_use,     // what was recovered and worked on is not what a check finds then
};
const char* outcome_name(outcome kind);

// The part of the on-flash records in which a mutation falls.
enum class place {
  erase,
  header_state,         // the state of a block
  header_rest,          // erase count, timestamp, checksum and number after an erase
  copy,                 // anything in a block that is not in use yet
  sector_claim,         // the first owner of an erased sector
  sector_rest,          // count, data, number or checksum of a data sector
  sector_invalidation,  // a sector's owner becomes 0
  slot,                 // a word of a new slot
  slot_deletion,        // a slot's directory becomes 0
};

struct cut {
  uint64_t mutation;  // counted from 1
  place where;
  bool torn;            // half done: neither as it was nor as it was to be
  uint16_t left;        // what the word reads as afterwards; of an erase nothing
  bool checksum_holds;  // of the sector around it, by chance if it is torn
  bool unfinished;      // a data sector of a block in use has no checksum yet
  bool of_root;         // the slot around it names the root
  bool only_committed;  // a reclamation is left between its copy and its next spare
};

// Where the latest mutation of the device, at which the power was cut, falls.
cut look_at_cut(uint64_t mutation, sim::cut_kind kind, test_support::ram_flash& device);

enum class cause {
  half_written_slot,
  half_written_root,
  torn_deletion,
  data_read_as_slots,
  half_claimed_sector,
  unfinished_sector,
  torn_invalidation,
  checksum_by_chance,
  sectors_outlive_name,
  shortened_first,
  walked_twice,
  no_spare,
  torn_header,
  number_handed_out_again,
  damage_not_seen,
  image_incomplete,
};
const char* cause_name(cause why);

// Whether what comes out of using a recovered flash.
bool is_of_use(outcome kind);

// The outcomes that a cause has under a check.
const std::set<outcome>& outcomes_of(cause why, bool quick);

// The checks that ran over what a cut left.
struct checks_run {
  bool quick_last;         // the last one, after which one looks, was the quick one
  bool quick_cut = false;  // the one before it was the quick one, and was cut
};

// The cause that brings an outcome about, or nothing. `own` are those of the causes that come with
// what an operation does rather than with a word alone; `second` is the cut of the check that
// followed, if it was cut.
std::optional<cause> explain(outcome kind, checks_run checks, const std::set<cause>& own,
                             const cut& first, const std::optional<cut>& second);

}  // namespace reliability

// A record of what operations do: the words that change on flashes in memory and the blocks that
// are erased, in order; what was answered and printed; what then stands in memory. Each is folded
// into one number, so that rows of text can be stored and a run compared with runs of long ago.
// Reads do not count, nor do words that are programmed with what they hold already: how much of a
// record is read or handed to the driver is left open.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/support/ram_flash.h"

namespace test_support {

// Stands for a sequence of values: another value, another order or another length gives another
// number. The same on every host, since values are taken and not their bytes in memory.
class sequence_hash {
 public:
  void add(uint64_t value) {
    // FNV-1a, whole values at a time; the shift brings the upper bits down, which it alone would
    // not.
    value_ = (value_ ^ value) * 0x100000001B3;
    value_ ^= value_ >> 32;
  }
  // A text and its length.
  void add_text(std::string_view text);
  uint64_t value() const {
    return value_;
  }

 private:
  uint64_t value_ = 0xCBF29CE484222325;
};

class change_record {
 public:
  change_record() = default;
  ~change_record();
  change_record(const change_record&) = delete;
  change_record& operator=(const change_record&) = delete;

  // Records what changes on a device from now on; devices count from 0 in the order of these calls.
  // The device must outlive the record, which takes the place of its watcher.
  void watch(ram_flash& device);

  // What a call returned, with errno when that is below 0.
  void add_answer(int32_t result, int error);
  // What was printed, or else handed out as text or bytes.
  void add_text(std::string_view text) {
    answers_.add_text(text);
  }
  // Counters, lists and their order of a file system; of one that is not ready, just that.
  void add_memory(const flashfs& fs);

  // "12 words | 1 erases | changes HASH | answers HASH | memory HASH", since the beginning or the
  // last `take`.
  std::string text() const;
  // The same; what is recorded from now on stands apart from it.
  std::string take();

 private:
  void add_change(uint64_t device, const sim::mutation& next);

  std::vector<ram_flash*> devices_;
  uint64_t words_ = 0;
  uint64_t erases_ = 0;
  sequence_hash changes_;
  sequence_hash answers_;
  sequence_hash memory_;
};

}  // namespace test_support

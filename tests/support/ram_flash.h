// A flash driver directly over a simulated NOR flash of any geometry, for tests of the file system
// that need small or odd devices, failing calls or power cuts at single words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "flashfs/flash_driver.h"
#include "sim/flash.h"
#include "sim/power.h"

namespace test_support {

struct ram_block {
  uint32_t size = 0x20000;  // bytes, even
  bool skip = false;
};

// `count` equal blocks.
std::vector<ram_block> ram_blocks(size_t count, uint32_t size_bytes);
// The device of a complex: 256 blocks of 128 KiB, the first 216 usable.
std::vector<ram_block> ram_blocks_of_ppc();

enum class flash_call { read, write, erase, any };

struct ram_flash_counts {
  uint64_t reads = 0;  // calls, those that fail included
  uint64_t writes = 0;
  uint64_t erases = 0;
  uint64_t bytes_read = 0;
  uint64_t bytes_programmed = 0;  // handed to the driver
  uint64_t words_programmed = 0;  // words that differed from what the flash held
  uint64_t calls() const {
    return reads + writes + erases;
  }
};

// One device. Write programs only the words that differ from what the flash holds; each of them,
// and each erase, is one mutation for power cuts. A write that would set a bit is refused whole
// with code 4, an erase must begin at a block, ranges must lie in the device; breaches are
// deviations.
class ram_flash {
 public:
  // Devices that share a supply lose power together; null: a supply of its own.
  explicit ram_flash(const std::vector<ram_block>& blocks, sim::power* supply = nullptr);
  ram_flash(const ram_flash&) = delete;
  ram_flash& operator=(const ram_flash&) = delete;

  // Both live as long as this object.
  const flash_driver_info* driver() const {
    return &driver_;
  }
  const void* handle() const {
    return &handle_;
  }

  sim::nor_flash& flash() {
    return flash_;
  }
  sim::power& supply() {
    return flash_.supply();
  }
  uint8_t* bytes() {
    return flash_.bytes();
  }
  const std::vector<flash_block_info>& blocks() const {
    return blocks_;
  }

  // The n-th call of the kind from now on (1: the next) fails with the code and leaves the flash
  // alone; `and_after`: all later ones too. n = 0: none fails.
  void fail(flash_call kind, uint64_t n, flash_return_code code, bool and_after = false);
  // The kind of the latest call that failed as planned.
  flash_call failed_kind() const {
    return failed_kind_;
  }
  // Calls of the planned kind since `fail`.
  uint64_t calls_since_fail() const {
    return fail_seen_;
  }

  const ram_flash_counts& counts() const {
    return counts_;
  }
  void clear_counts() {
    counts_ = {};
  }
  // Calls that no correct file system makes.
  uint64_t deviations() const {
    return deviations_;
  }

  // From now on the first and the last mutation of every call that has any, as the supply counts
  // them, come into this set; null: into none.
  void note_edges(std::set<uint64_t>* edges) {
    edges_ = edges;
  }

  // From now on this is told of every mutation just before it happens; empty: nobody is.
  void watch(std::function<void(const sim::mutation&)> watcher) {
    watcher_ = std::move(watcher);
  }

  // The driver's operations.
  flash_return_code read(uint32_t offset, uint32_t length, void* buffer);
  flash_return_code write(uint32_t offset, uint32_t length, const void* buffer);
  flash_return_code erase(uint32_t offset);

 private:
  struct handle_record {
    ram_flash* device;
  };
  static ram_flash* device_of(const void* handle);
  bool planned_failure(flash_call kind, flash_return_code* code);
  flash_return_code refuse();
  void note_edges_since(uint64_t mutations);

  std::vector<flash_block_info> blocks_;
  sim::power own_supply_;
  sim::nor_flash flash_;
  flash_driver_info driver_;
  const handle_record handle_;
  ram_flash_counts counts_;
  std::set<uint64_t>* edges_ = nullptr;
  std::function<void(const sim::mutation&)> watcher_;
  uint64_t deviations_ = 0;
  flash_call fail_kind_ = flash_call::any;
  flash_call failed_kind_ = flash_call::any;
  uint64_t fail_n_ = 0;
  uint64_t fail_seen_ = 0;
  flash_return_code fail_code_ = flash_operation_failed;
  bool fail_and_after_ = false;
};

}  // namespace test_support

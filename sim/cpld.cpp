// The registers and the command sequences of one node.
#include "sim/cpld.h"

#include <utility>

namespace sim {

namespace {

// The register map of a window, byte offsets. Written down here and not taken from the driver, so
// that a slip there is noticed.
constexpr uint32_t run_state_register = 0x0000;
constexpr uint32_t page_register = 0x0020;
constexpr uint32_t status_register = 0x0034;
constexpr uint32_t data_windows = 0x4000;
constexpr uint32_t data_window_shift = 12;
constexpr uint32_t data_windows_end = data_windows + (flashes_per_node << data_window_shift);
constexpr uint32_t last_page = 0x1FFF;

// Command cycles: an offset into the data window, with page 0, and a value.
constexpr uint32_t unlock_1_offset = 0xAAA;
constexpr uint16_t unlock_1_value = 0xAA;
constexpr uint32_t unlock_2_offset = 0x554;
constexpr uint16_t unlock_2_value = 0x55;
constexpr uint16_t program_setup_value = 0xA0;
constexpr uint16_t erase_setup_value = 0x80;
constexpr uint16_t erase_confirm_value = 0x30;

constexpr uint32_t floating_bus = 0xFFFFFFFF;  // what a read gives where nothing answers

bool is_register(uint32_t offset) {
  return offset == run_state_register || offset == page_register || offset == status_register;
}

bool is_data(uint32_t offset) {
  return offset >= data_windows && offset < data_windows_end;
}

uint32_t data_index(uint32_t offset) {
  return (offset - data_windows) >> data_window_shift;
}

}  // namespace

cpld::cpld(power& supply, chassis_clock& clock)
    : bays_{{nor_flash(chassis_flash_size, supply)},
            {nor_flash(chassis_flash_size, supply)},
            {nor_flash(chassis_flash_size, supply)}},
      supply_(&supply),
      clock_(&clock) {}

void cpld::trace(uint32_t offset, uint8_t width, bool is_write, uint32_t value) {
  if (tracing_) {
    trace_.push_back({offset, width, is_write, value});
  }
}

void cpld::update_plain() {
  watches_pages_ = false;
  for (int index = 0; index < flashes_per_node; ++index) {
    bay& one = bays_[index];
    const bool plain =
        one.flash.touched() && one.state == command_state::idle && !one.busy && !tracing_;
    plain_[index] = plain ? one.flash.bytes() : nullptr;
    watches_pages_ = watches_pages_ || one.busy || one.pages_until_never != 0;
  }
}

void cpld::count_wrong_access(uint32_t offset, uint32_t width, bool is_write) {
  if (offset % (width / 8) != 0) {
    deviations_.unaligned++;
  } else if (is_data(offset) || (width == 16 && is_register(offset & ~3U))) {
    deviations_.wrong_width++;
  } else if (width == 32 && is_register(offset)) {
    deviations_.wrong_direction++;
  } else {
    deviations_.unknown_register++;
  }
  trace(offset, static_cast<uint8_t>(width), is_write, floating_bus >> (32 - width));
}

uint32_t cpld::load32(uint32_t offset) {
  uint32_t value = floating_bus;
  switch (offset) {
    case run_state_register:
      value = read_run_state();
      break;
    case status_register:
      value = read_status();
      break;
    default:
      count_wrong_access(offset, 32, false);
      return floating_bus;
  }
  trace(offset, 32, false, value);
  return value;
}

void cpld::store32(uint32_t offset, uint32_t value) {
  if (offset != page_register) {
    count_wrong_access(offset, 32, true);
    return;
  }
  if (tracing_) {
    trace(offset, 32, true, value);
  }
  write_page(value);
}

uint16_t cpld::load16_slow(uint32_t offset) {
  if (!is_data(offset) || offset % 2 != 0) {
    count_wrong_access(offset, 16, false);
    return static_cast<uint16_t>(floating_bus);
  }
  bay& target = bays_[data_index(offset)];
  counts_.words_read++;
  if (target.state != command_state::idle) {
    deviations_.mid_sequence_read++;
  }
  if (target.busy) {
    deviations_.while_busy++;
  }
  const uint32_t in_page = offset & ((1U << data_window_shift) - 1);
  const uint16_t value = target.flash.read16((page_ << data_window_shift) | in_page);
  update_plain();
  trace(offset, 16, false, value);
  return value;
}

void cpld::store16(uint32_t offset, uint16_t value) {
  if (!is_data(offset) || offset % 2 != 0) {
    count_wrong_access(offset, 16, true);
    return;
  }
  if (tracing_) {
    trace(offset, 16, true, value);
  }
  waiting_reads_ = 0;
  const uint32_t index = data_index(offset);
  bay& target = bays_[index];
  if (target.flash.dead()) {
    return;
  }
  deviations_.while_busy += target.busy ? 1 : 0;
  write_data(target, offset & ((1U << data_window_shift) - 1), value);
  if (target.cycles_until_never != 0 && --target.cycles_until_never == 0) {
    target.ready_never = true;
  }
  target.low_left = target.ready_low;
  target.busy = target.ready_low != 0 || target.ready_never;
  watches_pages_ = watches_pages_ || target.busy;
  const bool plain = target.state == command_state::idle && !target.busy && !tracing_;
  plain_[index] = plain && target.flash.touched() ? target.flash.bytes() : nullptr;
}

// The state that a command cycle leads to; idle when it is none that may follow.
cpld::command_state cpld::state_after(const bay& target, uint32_t offset, uint16_t value) const {
  if (page_ != 0) {
    return command_state::idle;
  }
  if (offset == unlock_1_offset && value == unlock_1_value) {
    return target.state == command_state::erase_setup ? command_state::erase_unlock_1
                                                      : command_state::unlock_1;
  }
  if (offset == unlock_2_offset && value == unlock_2_value) {
    if (target.state == command_state::unlock_1) {
      return command_state::unlock_2;
    }
    return target.state == command_state::erase_unlock_1 ? command_state::erase_unlock_2
                                                         : command_state::idle;
  }
  if (target.state == command_state::unlock_2 && offset == unlock_1_offset) {
    if (value == program_setup_value) {
      return command_state::program_setup;
    }
    return value == erase_setup_value ? command_state::erase_setup : command_state::idle;
  }
  return command_state::idle;
}

void cpld::write_data(bay& target, uint32_t offset, uint16_t value) {
  const uint32_t address = (page_ << data_window_shift) | offset;
  if (target.state == command_state::program_setup) {
    target.state = command_state::idle;
    counts_.programs++;
    target.flash.program16(address, value);
    return;
  }
  if (target.state == command_state::erase_unlock_2 && offset == 0 &&
      value == erase_confirm_value) {
    target.state = command_state::idle;
    counts_.command_cycles++;
    counts_.erases++;
    target.flash.erase(address & ~(chassis_sector_size - 1), chassis_sector_size);
    return;
  }
  const command_state next = state_after(target, offset, value);
  // A first unlock cycle begins a new sequence wherever it comes, but belongs only after the end of
  // the one before.
  const bool restarted = next == command_state::unlock_1 && target.state != command_state::idle;
  if (next == command_state::idle || restarted) {
    deviations_.out_of_order++;
  }
  counts_.command_cycles++;
  target.state = next;
}

uint32_t cpld::read_run_state() {
  counts_.run_state_reads++;
  if (supply_->dead()) {
    return floating_bus;
  }
  uint32_t value = 0;
  for (uint32_t index = 0; index < flashes_per_node; ++index) {
    value |= bays_[index].running ? 2U << index : 0;
  }
  return value;
}

uint32_t cpld::read_status() {
  counts_.status_reads++;
  if (supply_->dead()) {
    return floating_bus;
  }
  uint32_t value = 0;
  bool all_ready = true;
  for (uint32_t index = 0; index < flashes_per_node; ++index) {
    bay& one = bays_[index];
    if (one.low_left != 0 || one.ready_never) {
      one.low_left -= one.low_left != 0 ? 1 : 0;
      all_ready = false;
      continue;
    }
    value |= 2U << index;
    if (one.busy) {
      one.busy = false;
      update_plain();
    }
  }
  waiting_reads_ = all_ready ? 0 : waiting_reads_ + 1;
  clock_->status_was_read(waiting_reads_);
  return value;
}

void cpld::write_page(uint32_t value) {
  counts_.page_writes++;
  waiting_reads_ = 0;
  if (supply_->dead()) {
    return;
  }
  deviations_.bad_page += value > last_page ? 1 : 0;
  if (watches_pages_) {
    meet_page_write();
  }
  page_ = value & last_page;
}

void cpld::meet_page_write() {
  for (bay& one : bays_) {
    deviations_.while_busy += one.busy ? 1 : 0;
    if (one.pages_until_never != 0 && --one.pages_until_never == 0) {
      one.ready_never = true;
    }
  }
}

deviation_counts cpld::deviations() const {
  deviation_counts all = deviations_;
  for (const bay& one : bays_) {
    all.bit_set += one.flash.bit_set_requests();
  }
  return all;
}

void cpld::clear_counts() {
  counts_ = {};
  deviations_ = {};
  for (bay& one : bays_) {
    one.flash.clear_counts();
  }
}

void cpld::start_trace() {
  trace_.clear();
  tracing_ = true;
  update_plain();
}

std::vector<traced_access> cpld::stop_trace() {
  tracing_ = false;
  update_plain();
  return std::move(trace_);
}

void cpld::set_running(int index, bool running) {
  bays_[index].running = running;
}

void cpld::set_ready_never(int index, uint64_t after_cycles) {
  bays_[index].ready_never = after_cycles == 0;
  bays_[index].cycles_until_never = after_cycles;
}

void cpld::set_ready_never_after_pages(int index, uint64_t pages) {
  bays_[index].pages_until_never = pages;
  watches_pages_ = true;
}

void cpld::set_ready_low(int index, uint32_t status_reads) {
  bays_[index].ready_never = false;
  bays_[index].cycles_until_never = 0;
  bays_[index].pages_until_never = 0;
  bays_[index].ready_low = status_reads;
  bays_[index].low_left = status_reads;
}

void cpld::reset() {
  page_ = 0;
  waiting_reads_ = 0;
  for (bay& one : bays_) {
    one.state = command_state::idle;
    one.busy = false;
    one.low_left = one.ready_low;
  }
  update_plain();
}

}  // namespace sim

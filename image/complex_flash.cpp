// Taking a complex, reading it, and changing it step by step.
#include "image/complex_flash.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "flashfs/format.h"
#include "image/clock.h"
#include "image/interrupt.h"
#include "window/window.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_device.h"

namespace image {

namespace {

using steady = std::chrono::steady_clock;

constexpr uint32_t flash_size = 1U << 25;
constexpr uint32_t block_size = 1U << flash_sector_shift;
constexpr uint32_t page_size = 1U << flash_page_shift;
constexpr uint32_t word_size = 2;
constexpr useconds_t lock_poll_microseconds = 20000;

// A text of the device's, with what belongs into it.
template <typename value>
std::string told(const char* format, value inserted) {
  char text[160];
  std::snprintf(text, sizeof(text), format, inserted);
  return text;
}

std::string driver_text(flash_return_code result) {
  return result == flash_poll_timeout ? "the flash did not become ready in time"
                                      : "the driver refuses (" + std::to_string(result) + ")";
}

std::string place_text(uint32_t offset) {
  return "block " + std::to_string(offset / block_size) + ", offset " + std::to_string(offset);
}

}  // namespace

complex_flash::complex_flash(int32_t ppc, uint32_t run_state_bit, report& out)
    : ppc_(ppc), run_state_bit_(run_state_bit), name_("PPC " + std::to_string(ppc)), out_(out) {}

std::shared_ptr<complex_flash> complex_flash::open(const globals& options, report& out) {
  const int32_t ppc = *options.ppc;
  std::shared_ptr<complex_flash> made(new complex_flash(ppc, zantrolume_select_ppc(ppc), out));
  return made->take(options) ? made : nullptr;
}

complex_flash::~complex_flash() {
  if (vexmor_mapped_ptr != nullptr) {
    // The end of the process would do it, too.
    (void)window_unmap(vexmor_mapped_ptr, cpld_window_size);
    vexmor_mapped_ptr = nullptr;
  }
}

bool complex_flash::refuse(const std::string& why) {
  out_.fail(exit_status::failed, why, name_);
  return false;
}

// The device is given back by the end of the process alone.
bool complex_flash::take(const globals& options) {
  const cpld_node& node = zantrolume_node_of(ppc_);
  const int descriptor = zantrolume_open_vexmor_device(node.path);
  if (descriptor < 0) {
    return refuse(told(zantrolume_open_failed_text, errno));
  }
  if (!lock(descriptor, node.path, options)) {
    return false;
  }
  window_base window = window_map(descriptor, cpld_window_size, node.window_offset);
  const auto base = reinterpret_cast<uintptr_t>(window);
  if (base == 0 || base == UINTPTR_MAX) {
    return refuse(told(zantrolume_map_failed_text, errno));
  }
  vexmor_mapped_ptr = window;
  return is_in_reset() || refuse(told(zantrolume_needs_reset_text, ppc_));
}

bool complex_flash::lock(int descriptor, const char* path, const globals& options) {
  const auto end = steady::now() + std::chrono::duration_cast<steady::duration>(
                                       std::chrono::duration<double>(options.lock_timeout_seconds));
  bool waited = false;
  while (window_lock(descriptor, false) != 0) {
    if (interrupted()) {
      return refuse("interrupted while waiting for the lock");
    }
    if (steady::now() >= end) {
      return refuse("is in use by another run");
    }
    if (!waited) {
      waited = true;
      out_.message(told(zantrolume_waiting_text, path));
    }
    usleep(lock_poll_microseconds);
  }
  return true;
}

bool complex_flash::is_in_reset() const {
  return zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, run_state_bit_) != 0;
}

void complex_flash::read(uint32_t offset, std::span<uint8_t> to) const {
  if (!to.empty()) {
    // It refuses nothing but to read no bytes.
    (void)zantrolume_cpld_read(nullptr, offset, static_cast<uint32_t>(to.size()), to.data());
  }
}

std::span<const uint8_t> complex_flash::contents() {
  if (bytes_.empty()) {
    bytes_.assign(flash_size, flash_erased_byte);
    block_read_.assign(flash_size / block_size, false);
  }
  for (uint32_t block = 0; block < block_read_.size() && !interrupted(); ++block) {
    if (!block_read_[block]) {
      const uint32_t offset = block * block_size;
      out_.progress("reading " + name_, offset, flash_size);
      read(offset, std::span(bytes_).subspan(offset, block_size));
      block_read_[block] = true;
    }
  }
  return bytes_;
}

std::span<uint8_t> complex_flash::private_view() {
  if (view_.empty()) {
    const std::span<const uint8_t> read = contents();
    view_.assign(read.begin(), read.end());
  }
  return view_;
}

bool complex_flash::program(uint32_t offset, std::span<const uint8_t> bytes, std::string* why) {
  if (offset % word_size != 0 || bytes.size() % word_size != 0) {
    *why = place_text(offset) + ": only whole words can be programmed";
    return false;
  }
  while (!bytes.empty()) {
    const size_t piece = std::min<size_t>(bytes.size(), page_size - offset % page_size);
    if (!program_words(offset, bytes.first(piece), why)) {
      return false;
    }
    offset += static_cast<uint32_t>(piece);
    bytes = bytes.subspan(piece);
  }
  return true;
}

// Programs the runs of words in which a bit is to be cleared, and compares the whole. A bit that
// only an erase could set is not asked for.
bool complex_flash::program_words(uint32_t offset, std::span<const uint8_t> bytes,
                                  std::string* why) {
  const device_clock running;
  uint8_t* held = bytes_.data() + offset;
  std::vector<uint8_t> wanted(bytes.size());
  std::transform(bytes.begin(), bytes.end(), held, wanted.begin(),
                 [](uint8_t asked, uint8_t there) { return static_cast<uint8_t>(asked & there); });
  const auto changes = [&](size_t at) {
    return held[at] != wanted[at] || held[at + 1] != wanted[at + 1];
  };
  for (size_t at = 0; at < wanted.size();) {
    size_t end = at;
    while (end < wanted.size() && changes(end)) {
      end += word_size;
    }
    if (end == at) {
      at += word_size;
      continue;
    }
    const flash_return_code result =
        zantrolume_cpld_write(nullptr, offset + static_cast<uint32_t>(at),
                              static_cast<uint32_t>(end - at), wanted.data() + at);
    if (result != flash_ok) {
      *why = place_text(offset + static_cast<uint32_t>(at)) + ": " + driver_text(result);
      return false;
    }
    at = end;
  }
  std::copy(wanted.begin(), wanted.end(), held);
  return compare(offset, static_cast<uint32_t>(wanted.size()), why);
}

bool complex_flash::erase(uint32_t offset, std::string* why) {
  const device_clock running;
  const flash_return_code result = zantrolume_cpld_erase(nullptr, offset);
  if (result != flash_ok) {
    *why = place_text(offset) + ": " + driver_text(result);
    return false;
  }
  std::fill_n(bytes_.begin() + offset, block_size, flash_erased_byte);
  return compare(offset, block_size, why);
}

bool complex_flash::compare(uint32_t offset, uint32_t length, std::string* why) const {
  std::vector<uint8_t> found(length);
  read(offset, found);
  const auto wanted = bytes_.begin() + offset;
  const auto differs = std::mismatch(found.begin(), found.end(), wanted);
  if (differs.first == found.end()) {
    return true;
  }
  *why = place_text(offset + static_cast<uint32_t>(differs.first - found.begin())) +
         ": what was written is not what is read back";
  return false;
}

}  // namespace image

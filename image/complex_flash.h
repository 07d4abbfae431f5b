// The flash of a complex, reached as zantrolume reaches it: the same device, driver, lock and
// refusal of a complex that runs. It keeps a copy of what it has read, which follows what is
// written. There is one in a process at most, since the driver has one selection.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "image/geometry.h"
#include "image/globals.h"
#include "image/report.h"

namespace image {

class complex_flash {
 public:
  // Takes the complex that --ppc names, waiting for other runs as long as --lock-timeout says. Null
  // after a failure, which is told and has raised the status. The report must outlive it.
  static std::shared_ptr<complex_flash> open(const globals& options, report& out);
  ~complex_flash();
  complex_flash(const complex_flash&) = delete;
  complex_flash& operator=(const complex_flash&) = delete;

  // "PPC 4".
  const std::string& name() const {
    return name_;
  }
  int32_t ppc() const {
    return ppc_;
  }
  // Whether it is still held in reset.
  bool is_in_reset() const;

  // The whole flash, read at the first call, with progress. After a signal it is not whole; who
  // goes on to use it looks at interrupted().
  std::span<const uint8_t> contents();
  // The same to be changed at will; the flash stays as it is.
  std::span<uint8_t> private_view();
  // Reads some bytes, and nothing else, from the device.
  void read(uint32_t offset, std::span<uint8_t> to) const;

  // Changes of flash, for who has read contents(). Each is read back and compared with what must be
  // there. False, with the reason, when the driver fails or something else is there.
  //
  // Clears bits: what is there becomes "old and new". In pieces of a page at most; words that are
  // already so are left alone.
  [[nodiscard]] bool program(uint32_t offset, std::span<const uint8_t> bytes, std::string* why);
  // Erases the block that begins at the offset.
  [[nodiscard]] bool erase(uint32_t offset, std::string* why);

 private:
  complex_flash(int32_t ppc, uint32_t run_state_bit, report& out);
  bool take(const globals& options);
  bool lock(int descriptor, const char* path, const globals& options);
  bool refuse(const std::string& why);
  bool program_words(uint32_t offset, std::span<const uint8_t> bytes, std::string* why);
  bool compare(uint32_t offset, uint32_t length, std::string* why) const;

  const int32_t ppc_;
  const uint32_t run_state_bit_;
  const std::string name_;
  report& out_;
  std::vector<uint8_t> bytes_;    // empty until they are asked for
  std::vector<bool> block_read_;  // by block
  std::vector<uint8_t> view_;
};

}  // namespace image

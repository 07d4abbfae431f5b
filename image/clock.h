// The date of what is written into an image: the tool's own clock, in place of the device's. All
// dates are clamped by SOURCE_DATE_EPOCH, so that the same input gives the same bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace image {

// What is wrong with SOURCE_DATE_EPOCH, for a person; empty: nothing. Then it says nothing.
[[nodiscard]] std::string clock_fault();
// What is written from now on has this date; nothing: today's.
void clock_set(std::optional<uint32_t> date);
// A source's date, in seconds since 1970, as it goes to flash: not beyond SOURCE_DATE_EPOCH where
// that is set, nor beyond the 32 bits; 0 and what comes before it become 1.
uint32_t clock_date_of(int64_t seconds);

// While one of these lives, the clock is the real one, whatever dates are to be written: a device's
// driver measures its waits by it.
class device_clock {
 public:
  device_clock();
  ~device_clock();
  device_clock(const device_clock&) = delete;
  device_clock& operator=(const device_clock&) = delete;
};

}  // namespace image

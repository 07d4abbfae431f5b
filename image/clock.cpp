// The clock that flashfs-image links.
#include "image/clock.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "window/clock.h"

namespace image {

namespace {

std::optional<uint32_t> date_set;
int device_clocks = 0;

constexpr const char* variable = "SOURCE_DATE_EPOCH";

// Whether the variable is set, which it is not when it is empty.
bool is_set() {
  const char* text = std::getenv(variable);
  return text != nullptr && *text != '\0';
}

// Its seconds since 1970; nothing when it is no number of them.
std::optional<int64_t> seconds_set() {
  const char* text = std::getenv(variable);
  char* end = nullptr;
  errno = 0;
  const long long seconds = std::strtoll(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && seconds >= 0 ? std::optional<int64_t>(seconds)
                                                                   : std::nullopt;
}

// What SOURCE_DATE_EPOCH allows at most.
int64_t latest_date() {
  return is_set() ? std::min<int64_t>(seconds_set().value_or(UINT32_MAX), UINT32_MAX) : UINT32_MAX;
}

}  // namespace

std::string clock_fault() {
  return is_set() && !seconds_set()
             ? std::string(variable) + " is no number of seconds: " + std::getenv(variable)
             : "";
}

void clock_set(std::optional<uint32_t> date) {
  date_set = date;
}

uint32_t clock_date_of(int64_t seconds) {
  return static_cast<uint32_t>(std::max<int64_t>(1, std::min(seconds, latest_date())));
}

device_clock::device_clock() {
  device_clocks++;
}

device_clock::~device_clock() {
  device_clocks--;
}

}  // namespace image

int64_t window_clock() {
  if (image::device_clocks > 0) {
    return std::time(nullptr);
  }
  return image::date_set ? *image::date_set : image::clock_date_of(std::time(nullptr));
}

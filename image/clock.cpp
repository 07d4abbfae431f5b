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

// What SOURCE_DATE_EPOCH allows at most; what is no number there says nothing.
int64_t latest_date() {
  const char* text = std::getenv("SOURCE_DATE_EPOCH");
  if (text == nullptr || *text == '\0') {
    return UINT32_MAX;
  }
  char* end = nullptr;
  errno = 0;
  const long long seconds = std::strtoll(text, &end, 10);
  return errno == 0 && *end == '\0' && seconds >= 0 ? std::min<int64_t>(seconds, UINT32_MAX)
                                                    : UINT32_MAX;
}

}  // namespace

void clock_set(std::optional<uint32_t> date) {
  date_set = date;
}

uint32_t clock_date_of(int64_t seconds) {
  return static_cast<uint32_t>(std::max<int64_t>(1, std::min(seconds, latest_date())));
}

}  // namespace image

int64_t window_clock() {
  return image::date_set ? *image::date_set : image::clock_date_of(std::time(nullptr));
}

// Reading an image: decoded, put together, judged.
#include "image/records.h"

namespace image {

records read_records(std::span<const uint8_t> image, const geometry& layout) {
  records all;
  all.image = image;
  all.layout = layout;
  decode_records(&all);
  find_owners(&all);
  all.findings = judge_records(all);
  return all;
}

}  // namespace image

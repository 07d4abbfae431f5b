// Geometries: said, known, or found. To be found a header must have a good checksum, and ones where
// it has nothing to say: data are hardly ever mistaken for it, and a header that is damaged is
// outvoted by the others.
#include "image/geometry.h"

#include <algorithm>
#include <charconv>
#include <map>

#include "flashfs/format.h"

namespace image {

namespace {

constexpr uint32_t complex_blocks = 256;
constexpr uint32_t complex_usable_blocks = 216;
constexpr uint32_t complex_block_size = 0x20000;

// What the file system can number, and what its 16-bit counters hold.
constexpr uint32_t blocks_max = INT16_MAX;
constexpr uint32_t sectors_of_block_max = UINT16_MAX;
constexpr uint32_t block_size_min = sizeof(flashfs_blkheader) + sizeof(flashfs_sector);
constexpr uint64_t image_size_max = UINT32_MAX;

geometry all_usable(std::vector<geometry::run> runs) {
  geometry layout{std::move(runs), 0};
  layout.usable_blocks = block_count(layout);
  return layout.runs == default_geometry().runs ? default_geometry() : layout;
}

// --- parsing ---

// A decimal number at the start of the text, which it is taken from. Nothing when there is none.
std::optional<uint32_t> take_number(std::string_view* text) {
  uint32_t value = 0;
  const auto result = std::from_chars(text->data(), text->data() + text->size(), value);
  if (result.ec != std::errc()) {
    return std::nullopt;
  }
  text->remove_prefix(static_cast<size_t>(result.ptr - text->data()));
  return value;
}

bool take_character(std::string_view* text, std::string_view any_of) {
  if (text->empty() || any_of.find(text->front()) == std::string_view::npos) {
    return false;
  }
  text->remove_prefix(1);
  return true;
}

std::optional<uint32_t> take_size(std::string_view* text) {
  const std::optional<uint32_t> number = take_number(text);
  if (!number) {
    return std::nullopt;
  }
  uint64_t size = *number;
  if (take_character(text, "kK")) {
    size <<= 10;
  } else if (take_character(text, "mM")) {
    size <<= 20;
  }
  return size > UINT32_MAX ? std::nullopt : std::optional(static_cast<uint32_t>(size));
}

std::optional<geometry::run> take_run(std::string_view* text) {
  const std::optional<uint32_t> count = take_number(text);
  if (!count || !take_character(text, "xX")) {
    return std::nullopt;
  }
  const std::optional<uint32_t> size = take_size(text);
  return size ? std::optional(geometry::run{*count, *size}) : std::nullopt;
}

// Why no flash can look so; null when one can.
const char* objection(const std::vector<geometry::run>& runs) {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  for (const geometry::run& run : runs) {
    if (run.count == 0) {
      return "a run has at least one block";
    }
    if (run.size < block_size_min) {
      return "a block has room for its header and a sector, 2088 bytes";
    }
    if (run.size % 2 != 0) {
      return "a block has an even number of bytes";
    }
    if ((run.size - sizeof(flashfs_blkheader)) / sizeof(flashfs_sector) > sectors_of_block_max) {
      return "a block has at most 65535 sectors";
    }
    blocks += run.count;
    bytes += uint64_t{run.count} * run.size;
  }
  if (blocks > blocks_max) {
    return "a flash has at most 32767 blocks";
  }
  return bytes > image_size_max ? "a flash has less than 4 GiB" : nullptr;
}

// --- detection ---

// Whether something that is a good header, whatever its number and state, stands at these bytes.
bool looks_like_header(const flashfs_blkheader* header) {
  constexpr uint8_t state_unused_bits = 0xF0;
  return (header->state & state_unused_bits) == state_unused_bits &&
         is_erased(header->reserved, sizeof(header->reserved)) &&
         blkheader_crc(header) == flashfs_good_crc;
}

const flashfs_blkheader* header_at(std::span<const uint8_t> bytes, uint64_t offset) {
  return reinterpret_cast<const flashfs_blkheader*>(bytes.data() + offset);
}

// Where the headers of each number stand, in ascending order.
using header_places = std::map<uint32_t, std::vector<uint64_t>>;

header_places find_headers(std::span<const uint8_t> bytes) {
  header_places places;
  for (uint64_t at = 0; at + sizeof(flashfs_blkheader) <= bytes.size(); at += 2) {
    const flashfs_blkheader* header = header_at(bytes, at);
    // The cheap tests first: erased flash has the number 65535.
    if (header->block_num < blocks_max &&
        header->reserved[sizeof(header->reserved) - 1] == flash_erased_byte &&
        looks_like_header(header)) {
      places[header->block_num].push_back(at);
    }
  }
  return places;
}

bool stands_at(const header_places& places, uint32_t number, uint64_t offset) {
  const auto found = places.find(number);
  return found != places.end() &&
         std::binary_search(found->second.begin(), found->second.end(), offset);
}

uint32_t headers_in_place(const header_places& places, const geometry& layout) {
  uint32_t count = 0;
  uint32_t number = 0;
  for (const flash_block_info& block : block_table(layout)) {
    count += stands_at(places, number, block.offset) ? 1 : 0;
    number++;
  }
  return count;
}

// Blocks of one size that fill the image, with the most headers in their places; no runs when no
// two headers agree on any.
geometry best_of_equal_blocks(const header_places& places, uint64_t image_size) {
  geometry best;
  uint32_t most = 1;
  std::map<uint64_t, bool> tried;
  for (const auto& [number, offsets] : places) {
    for (const uint64_t offset : offsets) {
      const uint64_t size = number == 0 ? 0 : offset / number;
      if (size == 0 || size * number != offset || image_size % size != 0 ||
          image_size / size > blocks_max || !tried.try_emplace(size, true).second) {
        continue;
      }
      std::vector<geometry::run> runs{
          {static_cast<uint32_t>(image_size / size), static_cast<uint32_t>(size)}};
      if (objection(runs) != nullptr) {
        continue;
      }
      const geometry layout = all_usable(std::move(runs));
      if (const uint32_t count = headers_in_place(places, layout); count > most) {
        most = count;
        best = layout;
      }
    }
  }
  return best;
}

// The headers that stand where the blocks of a geometry begin; block 0 tells nothing of sizes.
uint32_t headers_that_fit(std::span<const uint8_t> bytes, const geometry& layout) {
  uint32_t count = 0;
  uint32_t number = 0;
  for (const flash_block_info& block : block_table(layout)) {
    const flashfs_blkheader* header = header_at(bytes, block.offset);
    count += number != 0 && header->block_num == number && looks_like_header(header) ? 1 : 0;
    number++;
  }
  return count;
}

// The size of blocks that has the most headers in their places, two at least; 0: none has.
uint64_t size_of_most_blocks(const header_places& places) {
  std::map<uint64_t, uint32_t> votes;
  for (const auto& [number, offsets] : places) {
    for (const uint64_t offset : offsets) {
      if (number != 0 && offset != 0 && offset % number == 0) {
        votes[offset / number]++;
      }
    }
  }
  const auto most = std::max_element(
      votes.begin(), votes.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
  return most == votes.end() || most->second < 2 ? 0 : most->first;
}

void append_run(std::vector<geometry::run>* runs, uint32_t count, uint32_t size) {
  if (!runs->empty() && runs->back().size == size) {
    runs->back().count += count;
  } else {
    runs->push_back({count, size});
  }
}

// Whether a last block of this size is rather the end of an image that is too short or too long:
// all others have one size, and it is larger than those or no round number.
bool looks_cut(const std::vector<geometry::run>& runs, uint64_t rest) {
  constexpr uint64_t round = 1024;
  return runs.size() == 1 && (rest > runs.front().size || rest % round != 0);
}

// Blocks of several sizes, from header to header. A header that is missing is taken to stand in
// equal parts of the way to the next; what lies behind the last is of that block's size. No runs
// when the headers do not give such a chain.
geometry chain_of_headers(const header_places& places, uint64_t image_size) {
  std::vector<geometry::run> runs;
  uint32_t number = 0;
  uint64_t offset = 0;
  for (const auto& [next, offsets] : places) {
    if (next == 0) {
      continue;
    }
    const auto behind = std::upper_bound(offsets.begin(), offsets.end(), offset);
    if (behind == offsets.end()) {
      continue;
    }
    const uint64_t way = *behind - offset;
    const uint32_t steps = next - number;
    if (way % steps != 0 || way / steps < block_size_min) {
      continue;
    }
    append_run(&runs, steps, static_cast<uint32_t>(way / steps));
    number = next;
    offset = *behind;
  }
  // The size of the last block is known by nothing but the end: one block, or some like the one
  // before.
  const uint64_t rest = image_size - offset;
  if (!runs.empty() && rest % runs.back().size == 0) {
    append_run(&runs, static_cast<uint32_t>(rest / runs.back().size), runs.back().size);
  } else if (rest >= block_size_min && !looks_cut(runs, rest)) {
    append_run(&runs, 1, static_cast<uint32_t>(rest));
  } else {
    return {};
  }
  return objection(runs) == nullptr ? all_usable(std::move(runs)) : geometry{};
}

}  // namespace

geometry default_geometry() {
  return {{{complex_blocks, complex_block_size}}, complex_usable_blocks};
}

geometry raw_image_geometry() {
  return {{{complex_usable_blocks, complex_block_size}}, complex_usable_blocks};
}

uint32_t block_count(const geometry& layout) {
  uint32_t count = 0;
  for (const geometry::run& run : layout.runs) {
    count += run.count;
  }
  return count;
}

uint64_t size_bytes(const geometry& layout) {
  uint64_t size = 0;
  for (const geometry::run& run : layout.runs) {
    size += uint64_t{run.count} * run.size;
  }
  return size;
}

std::vector<flash_block_info> block_table(const geometry& layout) {
  std::vector<flash_block_info> blocks;
  blocks.reserve(block_count(layout));
  uint32_t offset = 0;
  for (const geometry::run& run : layout.runs) {
    for (uint32_t i = 0; i < run.count; ++i) {
      blocks.push_back({offset, run.size, uint8_t{blocks.size() >= layout.usable_blocks}});
      offset += run.size;
    }
  }
  return blocks;
}

std::string geometry_text(const geometry& layout) {
  std::string text;
  for (const geometry::run& run : layout.runs) {
    text += (text.empty() ? "" : ",") + std::to_string(run.count) + "x" + std::to_string(run.size);
  }
  return text;
}

std::optional<geometry> parse_geometry(std::string_view text, std::string* why) {
  std::vector<geometry::run> runs;
  do {
    const std::optional<geometry::run> run = take_run(&text);
    if (!run) {
      *why = "a geometry is COUNTxSIZE[,COUNTxSIZE...], 256x128K for instance";
      return std::nullopt;
    }
    runs.push_back(*run);
  } while (take_character(&text, ","));
  if (!text.empty()) {
    *why = "a geometry ends with a size in bytes, or one in K or M";
    return std::nullopt;
  }
  if (const char* reason = objection(runs); reason != nullptr) {
    *why = reason;
    return std::nullopt;
  }
  return all_usable(std::move(runs));
}

std::optional<geometry> detect_geometry(std::span<const uint8_t> bytes) {
  if (bytes.size() > image_size_max) {
    return std::nullopt;
  }
  // A flash of a complex is seldom anything else: a header in its place settles it.
  geometry by_size;
  for (const geometry& known : {default_geometry(), raw_image_geometry()}) {
    if (bytes.size() == size_bytes(known)) {
      by_size = known;
    }
  }
  const uint32_t second = complex_block_size;
  if (!by_size.runs.empty() && looks_like_header(header_at(bytes, second)) &&
      header_at(bytes, second)->block_num == 1) {
    return by_size;
  }
  const header_places places = find_headers(bytes);
  geometry found = best_of_equal_blocks(places, bytes.size());
  const uint32_t votes = found.runs.empty() ? 0 : headers_in_place(places, found);
  const geometry chained = chain_of_headers(places, bytes.size());
  if (!chained.runs.empty() && headers_in_place(places, chained) > votes) {
    found = chained;
  }
  if (!by_size.runs.empty() && (found.runs.empty() || headers_in_place(places, by_size) >=
                                                          headers_in_place(places, found))) {
    return by_size;
  }
  return found.runs.empty() ? std::nullopt : std::optional(found);
}

std::optional<geometry> contradicting_geometry(std::span<const uint8_t> bytes,
                                               const geometry& given) {
  const uint32_t fit = headers_that_fit(bytes, given);
  if (fit + 1 >= given.usable_blocks) {
    return std::nullopt;  // all of them: there is nothing to search for
  }
  std::optional<geometry> told = detect_geometry(bytes);
  return told && told->runs != given.runs && headers_that_fit(bytes, *told) > fit ? told
                                                                                  : std::nullopt;
}

std::optional<expected_size> size_by_headers(std::span<const uint8_t> bytes) {
  const uint64_t block =
      bytes.size() > image_size_max ? 0 : size_of_most_blocks(find_headers(bytes));
  if (block == 0 || bytes.size() % block == 0) {
    return std::nullopt;
  }
  if (block != complex_block_size) {
    return expected_size{(bytes.size() + block / 2) / block * block, block};
  }
  // Nearest to it: all of a flash, or the file system's part of one.
  const uint64_t whole = size_bytes(default_geometry());
  const uint64_t raw = size_bytes(raw_image_geometry());
  return expected_size{bytes.size() >= raw + block ? whole : raw, block};
}

}  // namespace image

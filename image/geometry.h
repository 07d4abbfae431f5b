// How an image is divided into erase blocks, and which of them are the file system's: said by the
// user, known from the size, or found by the block headers in it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "flashfs/flash_driver.h"

namespace image {

struct geometry {
  struct run {
    uint32_t count;  // blocks
    uint32_t size;   // bytes of each
    bool operator==(const run&) const = default;
  };
  std::vector<run> runs;       // from offset 0 on
  uint32_t usable_blocks = 0;  // the first so many are the file system's, numbered from 0

  bool operator==(const geometry&) const = default;
};

// The flash of a complex: 256 blocks of 128 KiB, of which the first 216 are the file system's.
geometry default_geometry();
// What the file system's raw image of it holds: these 216 blocks alone.
geometry raw_image_geometry();

// Blocks in all, the file system's and the others.
uint32_t block_count(const geometry& layout);
uint64_t size_bytes(const geometry& layout);
// Every block with its place, as a flash driver's record wants it.
std::vector<flash_block_info> block_table(const geometry& layout);
// "256x131072" or "8x8192,31x65536": what parse_geometry reads.
std::string geometry_text(const geometry& layout);

// Reads COUNTxSIZE[,COUNTxSIZE...]; a size is in bytes, or ends in K or M. All blocks are the file
// system's, but those of the default geometry are as in that. Nothing, with the reason in `*why`,
// when it is not of this form or no flash can look so.
std::optional<geometry> parse_geometry(std::string_view text, std::string* why);

// The geometry that the block headers of an image tell; one without headers is judged by its size.
// Nothing when neither tells any: the user has to say it.
std::optional<geometry> detect_geometry(std::span<const uint8_t> bytes);

// What the block headers of an image tell, where that is another division than the one given and
// fits more of them. Nothing when they have nothing against it. As many bytes as the geometry has.
std::optional<geometry> contradicting_geometry(std::span<const uint8_t> bytes,
                                               const geometry& given);

// How many bytes an image with these block headers should have, when it ends within a block; and
// the size of its blocks.
struct expected_size {
  uint64_t bytes;
  uint64_t block_bytes;
};
std::optional<expected_size> size_by_headers(std::span<const uint8_t> bytes);

}  // namespace image

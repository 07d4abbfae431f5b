// The raw device handle.
#include "flashfs/raw.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "flashfs/erase.h"
#include "flashfs/filemap.h"
#include "flashfs/fsck.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

// What a block has besides its sectors, at most: header and spare bytes.
constexpr uint32_t raw_buffer_extra = 2088;

std::unique_ptr<uint8_t[]> make_raw_buffer(const flashfs* fs) {
  const size_t size = size_t{fs->largest_block_size} * sizeof(flashfs_sector) + raw_buffer_extra;
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
  if (buffer == nullptr) {
    errno = ENOMEM;
  }
  return buffer;
}

struct stream_place {
  int16_t block_num;
  uint32_t offset;  // in the block
};

// Where a position of the stream lies; the block is num_blocks past the end.
stream_place find_stream_place(const flashfs* fs, uint32_t position) {
  int16_t b = 0;
  while (b < fs->num_blocks && position >= block_size(fs, b)) {
    position -= block_size(fs, b);
    b++;
  }
  return {b, position};
}

// Reads the words of a block that hold these bytes to their places in `contents`.
int read_block_words(flashfs* fs, int16_t block_num, uint32_t start, uint32_t end,
                     uint8_t* contents) {
  const uint32_t first = round_down_to_words(start);
  const uint32_t behind = std::min(round_up_to_words(end), block_size(fs, block_num));
  return first == behind ? 0 : read_block(fs, block_num, {first, behind - first}, contents + first);
}

// Reads the parts of a block, before the place and behind `length` bytes from there on, that a
// write of these leaves as they are.
int read_block_around(flashfs* fs, const stream_place& place, uint32_t length, uint8_t* contents) {
  const uint32_t end = place.offset + length;
  return read_block_words(fs, place.block_num, 0, place.offset, contents) == 0 &&
                 read_block_words(fs, place.block_num, end, block_size(fs, place.block_num),
                                  contents) == 0
             ? 0
             : 1;
}

}  // namespace

bool flashfs_is_raw(const flashfs* fs, const flashfs_open_file* open) {
  return open->file == &fs->raw_file_map;
}

bool flashfs_is_usable(const flashfs* fs, const flashfs_open_file* open) {
  return fs->ready != 0 && !flashfs_is_raw(fs, open);
}

int flashfs_raw_prepare(flashfs* fs, uint32_t oflags) {
  if ((oflags & flashfs_opened_for_writing) == 0) {
    fs->ready = 0;
    return 0;
  }
  flashfs_clear_maps(fs);
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    // The image brings its own headers.
    if (erase_block(fs, b, false, false) != 0) {
      return 1;
    }
  }
  return 0;
}

int32_t flashfs_raw_read(flashfs* fs, flashfs_open_file* open, void* buffer, uint32_t length) {
  if ((open->oflags & ifs_open_read) == 0) {
    return flashfs_fail(EBADF);
  }
  const auto raw = make_raw_buffer(fs);
  if (raw == nullptr) {
    return -1;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  uint32_t total = 0;
  stream_place place = find_stream_place(fs, open->filepos);
  while (place.block_num < fs->num_blocks && total < length) {
    process_may_suspend();
    const uint32_t taken = std::min(length - total, block_size(fs, place.block_num) - place.offset);
    if (read_block_words(fs, place.block_num, place.offset, place.offset + taken, raw.get()) != 0) {
      return flashfs_fail(EIO);
    }
    memcpy(out + total, raw.get() + place.offset, taken);
    total += taken;
    place = {static_cast<int16_t>(place.block_num + 1), 0};
    if (intr_req() != 0) {
      return flashfs_fail(EINTR);
    }
  }
  open->filepos += total;
  return static_cast<int32_t>(total);
}

int32_t flashfs_raw_write(flashfs* fs, flashfs_open_file* open, const void* buffer,
                          uint32_t length) {
  if ((open->oflags & ifs_open_write) == 0) {
    return flashfs_fail(EBADF);
  }
  const auto raw = make_raw_buffer(fs);
  if (raw == nullptr) {
    return -1;
  }
  const auto* in = static_cast<const uint8_t*>(buffer);
  uint32_t total = 0;
  stream_place place = find_stream_place(fs, open->filepos);
  while (place.block_num < fs->num_blocks && total < length) {
    process_may_suspend();
    const uint32_t taken = std::min(length - total, block_size(fs, place.block_num) - place.offset);
    if (read_block_around(fs, place, taken, raw.get()) != 0) {
      return flashfs_fail(EIO);
    }
    memcpy(raw.get() + place.offset, in + total, taken);
    if (write_block(fs, place.block_num, raw.get()) != 0) {
      return flashfs_fail(EIO);
    }
    total += taken;
    open->filepos += taken;
    place = {static_cast<int16_t>(place.block_num + 1), 0};
    if (intr_req() != 0) {
      return flashfs_fail(EINTR);
    }
  }
  return static_cast<int32_t>(total);
}

int32_t flashfs_raw_finish(flashfs* fs, const flashfs_open_file* open) {
  if ((open->oflags & flashfs_opened_for_writing) == 0) {
    fs->ready = 1;
    return 0;
  }
  if (flashfs_fsck(fs, 0, 0) != 0) {
    flashfs_clear_maps(fs);
    return flashfs_fail(EIO);
  }
  return 0;
}

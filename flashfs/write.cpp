// Writing to a file, and cutting it short. A sector that holds data is never changed in place: a
// fresh copy is written first, then the old one is marked obsolete, and only then does the list
// point at the copy, so that a power cut leaves one of the two.
#include "flashfs/write.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "flashfs/alloc.h"
#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/place.h"
#include "flashfs/raw.h"
#include "flashfs/status.h"

namespace {

struct write_request {
  flashfs* fs;
  flashfs_open_file* open;
  flashfs_sector* buffer;
  const uint8_t* data;
  uint32_t length;  // bytes
};

void erase_buffer(flashfs_sector* sector) {
  ifs_runtime::memset(sector, flash_erased_byte, sizeof(*sector));
}

// Who owns a sector that was reserved: nothing else stands in it.
int read_owner(flashfs* fs, const flashfs_sctr_list_ordered* entry, uint16_t* fileid) {
  flashfs_sector held;
  if (read_sector(fs, entry->sctr_ptr, &held, only_fileid) != 0) {
    return 1;
  }
  *fileid = held.fileid;
  return 0;
}

// Writes a sector that was reserved for the file, in the place reserved.
int write_reserved(const write_request& request, flashfs_sctr_list_ordered* entry,
                   uint16_t held_fileid, uint32_t bytes_used) {
  entry->slot_no = slot_of_sector;
  request.buffer->fileid = request.open->file->fileid;
  request.buffer->count = static_cast<uint16_t>(bytes_used);
  request.buffer->seq_no = entry->seq_no;
  sector_set_checksum(request.buffer);
  return update_claimed_sector(request.fs, entry->sctr_ptr, held_fileid, request.buffer);
}

int write_zero_sector(const write_request& request, flashfs_sctr_list_ordered* entry) {
  uint16_t held_fileid = fileid_available;
  if (read_owner(request.fs, entry, &held_fileid) != 0) {
    return 1;
  }
  memset(request.buffer->data, 0, sector_data_size);
  return write_reserved(request, entry, held_fileid, sector_data_size);
}

// Goes to the sector with an index. Reserved ones on the way become zeros, so that a hole reads as
// such. 1 when the flash fails.
int fill_holes_before(const write_request& request, uint32_t index, list_place* reached) {
  list_place place = request.open->place.start(request.open->file, index);
  for (; place.entry() != nullptr && place.index() < index; place.advance()) {
    process_may_suspend();
    if (place.entry()->slot_no == slot_of_reserved_sector &&
        write_zero_sector(request, place.entry()) != 0) {
      return 1;
    }
  }
  *reached = place;
  return 0;
}

int overwrite_reserved(const write_request& request, flashfs_sctr_list_ordered* entry,
                       uint32_t offset, const uint8_t* data, uint32_t length) {
  uint16_t held_fileid = fileid_available;
  if (read_owner(request.fs, entry, &held_fileid) != 0) {
    return 1;
  }
  const bool claim_was_lost = offset == 0 && held_fileid == fileid_available;
  uint8_t* bytes = request.buffer->data;
  memset(bytes, 0, offset);
  memcpy(bytes + offset, data, length);
  memset(bytes + offset + length, claim_was_lost ? 0 : flash_erased_byte,
         sector_data_size - offset - length);
  return write_reserved(request, entry, held_fileid, offset + length);
}

// Writes what stands nowhere yet.
int write_fresh_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  sector_set_checksum(sector);
  return update_sector(fs, pointer, nullptr, sector);
}

// Reads what a write of these bytes of a sector's data leaves as it is, and its owner. Whole words:
// so perhaps a byte more on each side.
int read_around(flashfs* fs, flashfs_sctr_ptr pointer, uint32_t offset, uint32_t length,
                flashfs_sector* sector) {
  const auto data = static_cast<uint32_t>(offsetof(flashfs_sector, data));
  const uint32_t behind = round_down_to_words(data + offset + length);
  const record_part before_it = {0, data + round_up_to_words(offset)};
  const record_part behind_it = {behind, only_seq_no.offset + only_seq_no.length - behind};
  return read_sector(fs, pointer, sector, before_it) == 0
             ? read_sector(fs, pointer, sector, behind_it)
             : 1;
}

int overwrite_written(const write_request& request, flashfs_sctr_list_ordered* entry,
                      uint32_t offset, const uint8_t* data, uint32_t length) {
  flashfs* fs = request.fs;
  flashfs_sector* buffer = request.buffer;
  flashfs_sctr_ptr fresh;
  // The allocation may collect garbage and move the old sector; the list entry follows it.
  if (flashfs_alloc_sector(fs, &fresh, 1) != 0 ||
      read_around(fs, entry->sctr_ptr, offset, length, buffer) != 0) {
    return 1;
  }
  if (buffer->fileid != request.open->file->fileid) {
    return 1;  // damaged flash put something else into the file's list
  }
  memcpy(buffer->data + offset, data, length);
  buffer->count = static_cast<uint16_t>(std::max(sector_bytes_used(buffer), offset + length));
  if (write_fresh_sector(fs, fresh, buffer) != 0 ||
      obsolete_sector(fs, entry->sctr_ptr, buffer->fileid) != 0) {
    return 1;
  }
  entry->sctr_ptr = fresh;
  return 0;
}

// Writes from the place on until the data or the list ends. Returns the bytes written, or -1.
int32_t write_sectors(const write_request& request, list_place place) {
  flashfs_open_file* open = request.open;
  uint32_t total = 0;
  for (; place.entry() != nullptr && total < request.length; place.advance()) {
    process_may_suspend();
    const uint32_t offset = open->filepos % sector_data_size;
    const uint32_t length = std::min(sector_data_size - offset, request.length - total);
    const bool reserved = place.entry()->slot_no == slot_of_reserved_sector;
    const int failure =
        reserved ? overwrite_reserved(request, place.entry(), offset, request.data + total, length)
                 : overwrite_written(request, place.entry(), offset, request.data + total, length);
    if (failure != 0) {
      return flashfs_fail(EIO);
    }
    open->filepos += length;
    total += length;
    open->place.remember(place);
    if (intr_req() != 0) {
      return flashfs_fail(EINTR);
    }
  }
  return static_cast<int32_t>(total);
}

// Moves the position to where the write begins: for an append, the file's end. 0, or -1 with errno,
// and then the operation has ended.
int32_t begin_write(flashfs* fs, flashfs_open_file* open, uint32_t length) {
  if (!flashfs_is_usable(fs, open)) {
    return flashfs_fail(EINVAL);
  }
  if ((open->oflags & ifs_open_write) == 0) {
    return flashfs_fail(EBADF);
  }
  uint32_t start = open->filepos;
  if (length != 0 && (open->oflags & ifs_open_append) != 0) {
    ppc_stat status;
    const int32_t result = flashfs_status(fs, open->file, &status, &open->place);
    if (result != 0) {
      return flashfs_finish(fs, result, marks_down::always);
    }
    start = status.size;
  }
  if (uint64_t{start} + length > INT32_MAX) {
    return flashfs_fail(EINVAL);
  }
  open->filepos = start;
  return 0;
}

// Writes at the position, as far as the list could be made to reach, and dates the file.
int32_t write_within_reach(const write_request& request, uint32_t reach) {
  flashfs_open_file* open = request.open;
  list_place place;
  if (fill_holes_before(request, open->filepos / sector_data_size, &place) != 0) {
    return flashfs_fail(EIO);
  }
  if (place.entry() == nullptr) {
    open->filepos = reach;
    return flashfs_touch(request.fs, open->file, 0) == 0 ? flashfs_fail(ENOSPC) : flashfs_fail(EIO);
  }
  const int32_t total = write_sectors(request, place);
  if (total < 0) {
    return -1;
  }
  return flashfs_touch(request.fs, open->file, 0) == 0 ? total : flashfs_fail(EIO);
}

int32_t write_file(flashfs* fs, flashfs_open_file* open, flashfs_sector* buffer, const void* data,
                   uint32_t length) {
  const uint32_t end = open->filepos + length;
  const int32_t reach =
      extend_sctr_list_from(fs, open->file, open->place, static_cast<int32_t>(end));
  if (reach < 0) {
    return flashfs_fail(EIO);
  }
  const auto reachable = static_cast<uint32_t>(reach);
  if (reachable < end) {
    length = reachable > open->filepos ? reachable - open->filepos : 0;
  }
  return write_within_reach({fs, open, buffer, static_cast<const uint8_t*>(data), length},
                            reachable);
}

// Rewrites the last sector that a cut leaves with its first bytes only.
int shorten_sector(flashfs* fs, const flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry,
                   uint32_t kept_bytes) {
  sector_buffer buffer(fs);
  flashfs_sctr_ptr fresh;
  if (!buffer || flashfs_alloc_sector(fs, &fresh, 1) != 0) {
    return 1;
  }
  flashfs_sector* shortened = buffer.get();
  erase_buffer(shortened);
  const bool is_hole = entry->slot_no == slot_of_reserved_sector;
  const record_part kept = {
      0, static_cast<uint32_t>(offsetof(flashfs_sector, data)) + round_up_to_words(kept_bytes)};
  if (read_sector(fs, entry->sctr_ptr, shortened, is_hole ? only_fileid : kept) != 0 ||
      shortened->fileid != file->fileid) {
    return 1;
  }
  shortened->count = static_cast<uint16_t>(kept_bytes);
  shortened->seq_no = entry->seq_no;
  if (is_hole) {
    memset(shortened->data, 0, kept_bytes);
  } else {
    memset(shortened->data + kept_bytes, flash_erased_byte, sector_data_size - kept_bytes);
  }
  if (write_fresh_sector(fs, fresh, shortened) != 0 ||
      obsolete_sector(fs, entry->sctr_ptr, shortened->fileid) != 0) {
    return 1;
  }
  entry->sctr_ptr = fresh;
  entry->slot_no = slot_of_sector;
  return 0;
}

// Obsoletes everything behind an entry of the file's list.
int cut_behind(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry) {
  while (entry->next != nullptr) {
    const flashfs_sctr_list_ordered* dropped = entry->next;
    process_may_suspend();
    if (obsolete_on_flash(fs, dropped->sctr_ptr, dropped->slot_no) != 0) {
      return 1;
    }
    sctr_list_remove_behind(fs, file, entry);
  }
  return 0;
}

}  // namespace

int32_t flashfs_vctr_write(int32_t fd, const void* buffer, uint32_t length) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  sector_buffer sector(fs);
  if (!sector) {
    return -1;
  }
  if (flashfs_is_raw(fs, open)) {
    return flashfs_finish(fs, flashfs_raw_write(fs, open, buffer, length));
  }
  if (begin_write(fs, open, length) != 0) {
    return -1;
  }
  return length == 0 ? 0 : flashfs_finish(fs, write_file(fs, open, sector.get(), buffer, length));
}

int32_t flashfs_truncate_to(flashfs* fs, flashfs_open_file* open, uint32_t length) {
  if ((open->oflags & ifs_open_write) == 0) {
    return flashfs_fail(EBADF);
  }
  ppc_stat status;
  if (flashfs_status(fs, open->file, &status, nullptr) != 0) {
    return -1;
  }
  if (length > status.size) {
    return flashfs_fail(EINVAL);
  }
  if (length == status.size) {
    return 0;
  }
  const list_place last =
      open->place.find(open->file, (length == 0 ? 0 : length - 1) / sector_data_size);
  open->place.forget();
  if (length == 0) {
    return flashfs_truncate_entry(fs, open->file) == 0 ? 0 : flashfs_fail(EIO);
  }
  const uint32_t kept = length - last.index() * sector_data_size;
  if ((kept < sector_data_size && shorten_sector(fs, open->file, last.entry(), kept) != 0) ||
      cut_behind(fs, open->file, last.entry()) != 0) {
    return flashfs_fail(EIO);
  }
  return 0;
}

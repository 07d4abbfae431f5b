// Writing to a file, and cutting it short. A sector that holds data is never changed in place: a
// fresh copy is written first, then the old one is marked obsolete, and only then does the list
// point at the copy, so that a power cut leaves one of the two.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

namespace {

struct write_request {
  flashfs* fs;
  flashfs_open_file* open;
  flashfs_sector* buffer;
  const uint8_t* data;
  uint32_t length;  // bytes
};

int write_data_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  sector_set_checksum(sector);
  return write_sector(fs, pointer, sector, whole_sector);
}

// Writes a sector that was reserved for the file, in the place reserved.
int write_reserved(const write_request& request, flashfs_sctr_list_ordered* entry,
                   uint32_t bytes_used) {
  entry->slot_no = slot_of_sector;
  request.buffer->fileid = request.open->file->fileid;
  request.buffer->count = static_cast<uint16_t>(bytes_used);
  request.buffer->seq_no = entry->seq_no;
  return write_data_sector(request.fs, entry->sctr_ptr, request.buffer);
}

int write_zero_sector(const write_request& request, flashfs_sctr_list_ordered* entry) {
  memset(request.buffer->data, 0, sector_data_size);
  return write_reserved(request, entry, sector_data_size);
}

// The sector's list entry; reserved ones that are passed over become zeros, so that a hole reads
// as such. 1 when the flash fails.
int find_sector_to_write(const write_request& request, uint32_t index, list_place* found) {
  flashfs_open_file* open = request.open;
  list_place place = {0, open->file->sctr_list};
  if (open->place.entry != nullptr && open->place.index <= index) {
    place = open->place;
  }
  while (place.entry != nullptr && place.index < index) {
    process_may_suspend();
    if (place.entry->slot_no == slot_of_reserved_sector &&
        write_zero_sector(request, place.entry) != 0) {
      return 1;
    }
    place = {place.index + 1, place.entry->next};
  }
  *found = place;
  return 0;
}

int overwrite_reserved(const write_request& request, flashfs_sctr_list_ordered* entry,
                       uint32_t offset, const uint8_t* data, uint32_t length) {
  if (offset != 0) {
    ifs_runtime::memset(request.buffer, flash_erased_byte, sizeof(*request.buffer));
    memset(request.buffer->data, 0, offset);
  } else if (read_sector(request.fs, entry->sctr_ptr, request.buffer, whole_sector) != 0) {
    return 1;
  } else if (request.buffer->fileid == fileid_available) {
    memset(request.buffer->data, 0, sector_data_size);
  }
  memcpy(request.buffer->data + offset, data, length);
  return write_reserved(request, entry, offset + length);
}

int overwrite_written(const write_request& request, flashfs_sctr_list_ordered* entry,
                      uint32_t offset, const uint8_t* data, uint32_t length) {
  flashfs* fs = request.fs;
  flashfs_sector* buffer = request.buffer;
  flashfs_sctr_ptr fresh;
  // The allocation may collect garbage and move the old sector; the list entry follows it.
  if (flashfs_alloc_sector(fs, &fresh, 1) != 0 ||
      read_sector(fs, entry->sctr_ptr, buffer, whole_sector) != 0) {
    return 1;
  }
  if (buffer->fileid != request.open->file->fileid) {
    return 1;  // damaged flash put something else into the file's list
  }
  memcpy(buffer->data + offset, data, length);
  buffer->count = static_cast<uint16_t>(std::max(sector_bytes_used(buffer), offset + length));
  if (write_data_sector(fs, fresh, buffer) != 0 ||
      obsolete_on_flash(fs, entry->sctr_ptr, entry->slot_no, buffer) != 0) {
    return 1;
  }
  entry->sctr_ptr = fresh;
  return 0;
}

// Writes from the place on until the data or the list ends. Returns the bytes written, or -1.
int32_t write_sectors(const write_request& request, list_place place) {
  flashfs_open_file* open = request.open;
  uint32_t total = 0;
  while (place.entry != nullptr && total < request.length) {
    process_may_suspend();
    const uint32_t offset = open->filepos % sector_data_size;
    const uint32_t length = std::min(sector_data_size - offset, request.length - total);
    const bool reserved = place.entry->slot_no == slot_of_reserved_sector;
    const int failure =
        reserved ? overwrite_reserved(request, place.entry, offset, request.data + total, length)
                 : overwrite_written(request, place.entry, offset, request.data + total, length);
    if (failure != 0) {
      return flashfs_fail_down(request.fs);
    }
    open->filepos += length;
    total += length;
    open->place = place;
    place = {place.index + 1, place.entry->next};
    if (intr_req() != 0) {
      return flashfs_fail(EINTR);
    }
  }
  return static_cast<int32_t>(total);
}

int32_t write_file(flashfs* fs, flashfs_open_file* open, flashfs_sector* buffer, const void* data,
                   uint32_t length) {
  if (fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  if ((open->oflags & ifs_open_write) == 0) {
    return flashfs_fail(EBADF);
  }
  if (length == 0) {
    return 0;
  }
  uint32_t start = open->filepos;
  if ((open->oflags & ifs_open_append) != 0) {
    ppc_stat status;
    if (flashfs_status(fs, open->file, &status, &open->place) != 0) {
      return flashfs_pass_down(fs, -1);
    }
    start = status.size;
  }
  const uint64_t end = uint64_t{start} + length;
  if (end > INT32_MAX) {
    return flashfs_fail(EINVAL);
  }
  open->filepos = start;
  const int32_t reach =
      extend_sctr_list_from(fs, open->file, open->place, static_cast<int32_t>(end));
  if (reach < 0) {
    return flashfs_fail_down(fs);
  }
  const auto reachable = static_cast<uint32_t>(reach);
  if (reachable < end) {
    length = reachable > open->filepos ? reachable - open->filepos : 0;
  }
  const write_request request = {fs, open, buffer, static_cast<const uint8_t*>(data), length};
  list_place place = {};
  if (find_sector_to_write(request, open->filepos / sector_data_size, &place) != 0) {
    return flashfs_fail_down(fs);
  }
  if (place.entry == nullptr) {
    open->filepos = reachable;
    return flashfs_touch(fs, open->file, 0) == 0 ? flashfs_fail(ENOSPC) : flashfs_fail_down(fs);
  }
  const int32_t total = write_sectors(request, place);
  if (total < 0) {
    return -1;
  }
  return flashfs_touch(fs, open->file, 0) == 0 ? total : flashfs_fail_down(fs);
}

// Rewrites the last sector that a cut leaves with its first bytes only.
int shorten_sector(flashfs* fs, const flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry,
                   uint32_t kept_bytes) {
  sector_buffer old_buffer(fs);
  sector_buffer new_buffer(fs);
  flashfs_sctr_ptr fresh;
  if (!old_buffer || !new_buffer || flashfs_alloc_sector(fs, &fresh, 1) != 0 ||
      read_sector(fs, entry->sctr_ptr, old_buffer.get(), whole_sector) != 0 ||
      old_buffer->fileid != file->fileid) {
    return 1;
  }
  ifs_runtime::memset(new_buffer.get(), flash_erased_byte, sizeof(flashfs_sector));
  new_buffer->fileid = old_buffer->fileid;
  new_buffer->count = static_cast<uint16_t>(kept_bytes);
  new_buffer->seq_no = entry->seq_no;
  if (entry->slot_no == slot_of_reserved_sector) {
    memset(new_buffer->data, 0, kept_bytes);  // never written: a hole
  } else {
    memcpy(new_buffer->data, old_buffer->data, kept_bytes);
  }
  if (write_data_sector(fs, fresh, new_buffer.get()) != 0 ||
      obsolete_on_flash(fs, entry->sctr_ptr, entry->slot_no, old_buffer.get()) != 0) {
    return 1;
  }
  entry->sctr_ptr = fresh;
  entry->slot_no = slot_of_sector;
  return 0;
}

// Obsoletes everything behind an entry of the file's list.
int cut_behind(flashfs* fs, flashfs_sctr_list_ordered* entry) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  while (entry->next != nullptr) {
    flashfs_sctr_list_ordered* dropped = entry->next;
    process_may_suspend();
    if (obsolete_on_flash(fs, dropped->sctr_ptr, dropped->slot_no, buffer.get()) != 0) {
      return 1;
    }
    entry->next = dropped->next;
    chunk_free(fs->sctr_ptr_chunk, dropped);
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
  return flashfs_is_raw(fs, open) ? flashfs_raw_write(fs, open, buffer, length)
                                  : write_file(fs, open, sector.get(), buffer, length);
}

int32_t flashfs_truncate_to(flashfs* fs, flashfs_open_file* open, uint32_t length) {
  if ((open->oflags & ifs_open_write) == 0) {
    return flashfs_fail(EBADF);
  }
  ppc_stat status;
  if (flashfs_status(fs, open->file, &status, nullptr) != 0) {
    return flashfs_finish(fs, -1);
  }
  if (length > status.size) {
    return flashfs_fail(EINVAL);
  }
  if (length == status.size) {
    return 0;
  }
  const list_place last =
      flashfs_find_place(open, (length == 0 ? 0 : length - 1) / sector_data_size);
  open->place = {};
  if (length == 0) {
    return flashfs_truncate_entry(fs, open->file) == 0 ? 0 : flashfs_fail_down(fs);
  }
  const uint32_t kept = length - last.index * sector_data_size;
  if ((kept < sector_data_size && shorten_sector(fs, open->file, last.entry, kept) != 0) ||
      cut_behind(fs, last.entry) != 0) {
    return flashfs_fail_down(fs);
  }
  return 0;
}

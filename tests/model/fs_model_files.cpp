// Descriptors and file data of the model.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ext/alloc_traits.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/model/fs_model.h"
#include "tests/model/fs_model_rules.h"
#include "tests/model/model_operation.h"

namespace model_test {

namespace {

constexpr size_t path_by_fileid_size = 190;
constexpr size_t file_info_path_size = 320;
constexpr uint32_t opened_for_writing = ifs_open_write | ifs_open_truncate;

std::string without_leading_slashes(std::string path) {
  while (path.size() > 1 && path.front() == '/') {
    path.erase(0, 1);
  }
  return path;
}

sector_ref erased_sector(bool reserved) {
  auto sector = std::make_shared<model_sector>();
  sector->data.fill(flash_erased_byte);
  sector->reserved = reserved;
  return sector;
}

sector_ref zero_sector() {
  auto sector = std::make_shared<model_sector>();
  sector->data.fill(0);
  sector->count = sector_data_size;
  return sector;
}

// One sector's part of a write.
sector_ref overwritten(const model_sector& old, uint32_t offset, const uint8_t* data, uint32_t n) {
  auto sector = std::make_shared<model_sector>(old);
  if (old.reserved) {
    std::fill_n(sector->data.begin(), offset, uint8_t{0});
  }
  std::copy_n(data, n, sector->data.begin() + offset);
  const auto end = static_cast<uint16_t>(offset + n);
  sector->count = old.reserved ? end : std::max(old.count, end);
  sector->reserved = false;
  return sector;
}

// The list after a write of `n` bytes at `position` that holds them all.
sector_list written_list(sector_list sectors, uint32_t position, const uint8_t* data, uint32_t n) {
  size_t index = position / sector_data_size;
  for (size_t i = 0; i < index && i < sectors.size(); ++i) {
    if (sectors[i]->reserved) {
      sectors[i] = zero_sector();
    }
  }
  uint32_t offset = position % sector_data_size;
  while (n > 0) {
    const uint32_t part = std::min(sector_data_size - offset, n);
    sectors[index] = overwritten(*sectors[index], offset, data, part);
    data += part;
    n -= part;
    offset = 0;
    index++;
  }
  return sectors;
}

bool equal_sectors(const model_sector& one, const model_sector& other) {
  return one.count == other.count && one.data == other.data;
}

int32_t lowest_free_fd(const std::array<model_descriptor, handle_count>& descriptors) {
  for (int32_t fd = 0;; ++fd) {
    if (std::none_of(descriptors.begin(), descriptors.end(), [fd](const model_descriptor& each) {
          return each.is_open && each.fd == fd;
        })) {
      return fd;
    }
  }
}

}  // namespace

int fs_model::open_count() const {
  return static_cast<int>(std::count_if(descriptors_.begin(), descriptors_.end(),
                                        [](const model_descriptor& each) { return each.is_open; }));
}

model_entry* fs_model::entry_of(uint32_t handle) {
  return &entries_.at(descriptors_[handle].fileid);
}

const model_entry* fs_model::entry_of(uint32_t handle) const {
  return &entries_.at(descriptors_[handle].fileid);
}

expected_result fs_model::open(uint32_t handle, const std::string& given_path, uint32_t oflags,
                               ppc_mode_t mode, const seen_result& seen) {
  const std::string path = without_leading_slashes(given_path);
  if (!ready_) {
    return fails(EINVAL);
  }
  if (path.empty()) {
    return fails(ENOENT);
  }
  if (path == "...") {
    if (open_count() != 0) {
      return fails(EBUSY);
    }
    const int32_t fd = lowest_free_fd(descriptors_);
    descriptors_[handle] = {true, true, fd, fileid_available, 0, oflags};
    ready_ = false;
    return {fd, 0, false, false};
  }
  uint16_t fileid = lookup(path);
  const bool created = fileid == 0;
  if (!created) {
    const model_entry& entry = entries_.at(fileid);
    const bool for_writing = (oflags & opened_for_writing) != 0;
    if (entry.is_directory() && for_writing) {
      return fails(EISDIR);
    }
    if (entry.writer || (for_writing && entry.readers != 0)) {
      return fails(EBUSY);
    }
    if ((oflags & ifs_open_create) != 0 && (oflags & ifs_open_exclusive) != 0) {
      return fails(EEXIST);
    }
  } else if ((oflags & ifs_open_create) == 0) {
    return fails(ENOENT);
  } else {
    const uint32_t file_mode = (mode & ppc_mode_permissions) | uint32_t{ppc_mode_regular};
    const expected_result refused = create(path, file_mode, seen, &fileid);
    if (refused.error != 0) {
      return refused;
    }
  }
  return finish_open(handle, fileid, oflags, created, seen);
}

expected_result fs_model::finish_open(uint32_t handle, uint16_t fileid, uint32_t oflags,
                                      bool created, const seen_result& seen) {
  model_entry& entry = entries_.at(fileid);
  if ((oflags & ifs_open_truncate) != 0 && !created) {
    set_sectors(&entry, {});
    if (!touch(fileid, seen)) {
      return {-1, EIO, true, false};
    }
  }
  if (created || (oflags & opened_for_writing) != 0) {
    entry.writer = true;
  } else {
    entry.readers++;
  }
  const int32_t fd = lowest_free_fd(descriptors_);
  descriptors_[handle] = {true, false, fd, fileid, 0, oflags};
  return {fd, 0, false, false};
}

expected_result fs_model::open_by_id(uint32_t handle, uint32_t fileid, uint32_t oflags,
                                     const seen_result& seen) {
  if (!ready_) {
    return fails(EINVAL);
  }
  if (fileid > fileid_last || find(static_cast<uint16_t>(fileid)) == nullptr) {
    return fails(EBADF);
  }
  const std::string path = path_of(static_cast<uint16_t>(fileid));
  return path.size() >= path_by_fileid_size ? fails(ENAMETOOLONG)
                                            : open(handle, path, oflags, 0, seen);
}

expected_result fs_model::close(uint32_t handle) {
  model_descriptor& descriptor = descriptors_[handle];
  if (!descriptor.is_open) {
    return fails(EBADF);
  }
  if (descriptor.raw) {
    ready_ = true;
  } else if (ready_) {
    model_entry* entry = entry_of(handle);
    if (entry->writer) {
      entry->writer = false;
    } else {
      entry->readers--;
    }
  }
  descriptor = {};
  return {};
}

expected_result fs_model::read(uint32_t handle, uint32_t length, std::vector<uint8_t>* data) {
  model_descriptor& descriptor = descriptors_[handle];
  if (!descriptor.is_open) {
    return fails(EBADF);
  }
  if (!ready_) {
    return fails(EINVAL);
  }
  const model_entry* entry = entry_of(handle);
  if (entry->is_directory()) {
    return fails(EISDIR);
  }
  if ((descriptor.oflags & ifs_open_read) == 0) {
    return fails(EBADF);
  }
  uint32_t offset = descriptor.filepos % sector_data_size;
  for (size_t i = descriptor.filepos / sector_data_size;
       i < entry->sectors.size() && data->size() < length; ++i) {
    // A short sector gives what it has; the next one follows without a gap.
    const model_sector& sector = *entry->sectors[i];
    const size_t wanted = std::min<size_t>(sector_data_size - offset, length - data->size());
    const size_t held = sector.count > offset ? sector.count - offset : 0;
    const auto from = sector.data.begin() + offset;
    data->insert(data->end(), from, from + static_cast<ptrdiff_t>(std::min(wanted, held)));
    offset = 0;
  }
  descriptor.filepos += static_cast<uint32_t>(data->size());
  return {static_cast<int32_t>(data->size()), 0, false, false};
}

expected_result fs_model::write(uint32_t handle, const std::vector<uint8_t>& data, uint32_t length,
                                const seen_result& seen) {
  model_descriptor& descriptor = descriptors_[handle];
  if (!descriptor.is_open) {
    return fails(EBADF);
  }
  if (descriptor.raw) {
    return fails(EBADF);
  }
  if (!ready_) {
    return fails(EINVAL);
  }
  if ((descriptor.oflags & ifs_open_write) == 0) {
    return fails(EBADF);
  }
  if (length == 0) {
    return {};
  }
  model_entry* entry = entry_of(handle);
  const bool append = (descriptor.oflags & ifs_open_append) != 0;
  const uint32_t position = append ? entry->size() : descriptor.filepos;
  if (uint64_t{position} + length > INT32_MAX) {
    return fails(EINVAL);
  }
  const size_t have = entry->sectors.size();
  const size_t needed = (size_t{position} + length + sector_data_size - 1) / sector_data_size;
  size_t reach = std::max(have, needed);
  const bool cut = seen.result != static_cast<int32_t>(length);
  if (cut && seen.file_sectors < reach && seen.file_sectors >= have) {
    const auto granted = static_cast<int64_t>(seen.file_sectors - have);
    if (space_may_be_gone(free_slots() - granted * slots_per_sector, seen)) {
      reach = seen.file_sectors;
    }
  }
  const int64_t left =
      free_slots() - (static_cast<int64_t>(reach) - static_cast<int64_t>(have)) * slots_per_sector;
  if (reach > have && left < int64_t{slots_per_sector}) {
    return fails(ENOSPC);  // one sector must have stayed
  }
  sector_list reserved = entry->sectors;
  reserved.resize(reach, erased_sector(true));
  const bool no_room = position / sector_data_size >= reach;
  const auto n =
      no_room
          ? 0U
          : static_cast<uint32_t>(std::min<size_t>(length, reach * sector_data_size - position));
  sector_list written = written_list(reserved, position, data.data(), n);
  if (went_down(seen)) {
    const auto grown = static_cast<int64_t>(reach - have);
    if (reserve_may_be_gone(free_slots() - grown * slots_per_sector, seen)) {
      unfinished_ = std::make_unique<unfinished_write>(
          unfinished_write{entry->fileid, entry->sectors, std::move(written)});
      go_down();
      return {-1, EIO, true, false};
    }
  }
  set_sectors(entry, std::move(written));
  entry->date = now_;
  if (no_room) {
    descriptor.filepos = static_cast<uint32_t>(reach * sector_data_size);
    return fails(ENOSPC);
  }
  descriptor.filepos = position + n;
  return {static_cast<int32_t>(n), 0, false, false};
}

expected_result fs_model::seek(uint32_t handle, int32_t offset, int32_t whence) {
  model_descriptor& descriptor = descriptors_[handle];
  if (!descriptor.is_open) {
    return fails(EBADF);
  }
  if (!ready_ || whence < ifs_seek_set || whence > ifs_seek_end) {
    return fails(EINVAL);
  }
  int64_t position = offset;
  if (whence == ifs_seek_current) {
    position += descriptor.filepos;
  } else if (whence == ifs_seek_end) {
    position += entry_of(handle)->size();
  }
  if (position < 0 || position > INT32_MAX) {
    return fails(EINVAL);
  }
  descriptor.filepos = static_cast<uint32_t>(position);
  return {static_cast<int32_t>(position), 0, false, false};
}

expected_result fs_model::truncate(uint32_t handle, uint32_t length, const seen_result& seen) {
  const expected_result refused = look(handle);
  if (refused.error != 0) {
    return refused;
  }
  if ((descriptors_[handle].oflags & ifs_open_write) == 0) {
    return fails(EBADF);
  }
  model_entry* entry = entry_of(handle);
  if (length > entry->size()) {
    return fails(EINVAL);
  }
  if (length == entry->size()) {
    return {};
  }
  sector_list kept = entry->sectors;
  kept.resize((size_t{length} + sector_data_size - 1) / sector_data_size);
  const uint32_t last_bytes = length - static_cast<uint32_t>((kept.size() - 1) * sector_data_size);
  if (length != 0 && last_bytes < sector_data_size) {
    if (went_down(seen) && reserve_may_be_gone(free_slots(), seen)) {
      go_down();
      return {-1, EIO, true, false};
    }
    auto last = std::make_shared<model_sector>(*erased_sector(false));
    std::copy_n(kept.back()->data.begin(), last_bytes, last->data.begin());
    last->count = static_cast<uint16_t>(last_bytes);
    kept.back() = last;
  }
  set_sectors(entry, std::move(kept));
  return {};
}

expected_result fs_model::getdents(uint32_t handle, uint32_t length,
                                   std::vector<ppc_dirent>* records) {
  model_descriptor& descriptor = descriptors_[handle];
  if (!descriptor.is_open) {
    return fails(EBADF);
  }
  const uint32_t wanted = length / static_cast<uint32_t>(sizeof(ppc_dirent));
  if (!ready_ || wanted == 0) {
    return fails(EINVAL);
  }
  const model_entry* directory = entry_of(handle);
  if (!directory->is_directory()) {
    return fails(ENOTDIR);
  }
  constexpr uint32_t unit = sizeof(flashfs_dir_slot);
  if (descriptor.filepos % unit != 0) {
    return fails(ENOENT);
  }
  if ((descriptor.oflags & ifs_open_read) == 0) {
    return fails(EBADF);
  }
  uint32_t index = 0;
  const uint32_t first = descriptor.filepos / unit;
  for (const auto& [seq_no, fileid] : directory->slots) {
    if (fileid == fileid_root || index++ < first || records->size() == wanted) {
      continue;
    }
    ppc_dirent record = {};
    entries_.at(fileid).name.copy(record.name, sizeof record.name);
    record.fileid = fileid;
    descriptor.filepos += unit;
    record.next_position = descriptor.filepos;
    record.record_length = sizeof record;
    records->push_back(record);
  }
  return {static_cast<int32_t>(records->size() * sizeof(ppc_dirent)), 0, false, false};
}

expected_result fs_model::look(uint32_t handle) const {
  if (!descriptors_[handle].is_open) {
    return fails(EBADF);
  }
  return ready_ ? expected_result{} : fails(EINVAL);
}

expected_result fs_model::file_info(uint32_t handle, std::string* path, uint32_t* size) const {
  const expected_result refused = look(handle);
  if (refused.error != 0) {
    return refused;
  }
  const model_entry* entry = entry_of(handle);
  *path = path_of(entry->fileid);
  *size = entry->size();
  return path->size() >= file_info_path_size ? fails(ENAMETOOLONG) : expected_result{};
}

std::string fs_model::settle(const sector_list& found, bool quick_check) {
  const std::unique_ptr<unfinished_write> write = std::move(unfinished_);
  const sector_list& old_sectors = write->old_sectors;
  const sector_list& new_sectors = write->new_sectors;
  const bool grew = new_sectors.size() > old_sectors.size();
  // Sectors reserved and never written have no place in the file: the quick check, which trusts
  // what it reads, drops the file's contents because of them.
  const bool dropped = found.empty() && quick_check && grew;
  if (!dropped && (found.size() < old_sectors.size() || found.size() > new_sectors.size())) {
    return "an unfinished write left " + std::to_string(found.size()) + " sectors";
  }
  for (size_t i = 0; i < found.size(); ++i) {
    const bool is_old = i < old_sectors.size() && equal_sectors(*found[i], *old_sectors[i]);
    if (!is_old && !equal_sectors(*found[i], *new_sectors[i])) {
      return "sector " + std::to_string(i) + " of an unfinished write is neither old nor new";
    }
  }
  set_sectors(&entries_.at(write->fileid), found);
  return "";
}

}  // namespace model_test

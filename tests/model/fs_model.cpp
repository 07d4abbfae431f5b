// The tree: look-up, names, status, and what concerns the file system as a whole. Descriptors and
// file data are fs_model_files.cpp.
#include "tests/model/fs_model.h"

#include <algorithm>
#include <cerrno>
#include <ext/alloc_traits.h>
#include <iterator>
#include <utility>

#include "flashfs/path.h"
#include "tests/model/fs_model_rules.h"

namespace model_test {

namespace {

constexpr ppc_mode_t root_mode = 0x4600;
constexpr uint32_t all_file_ids = 65534;

bool legal_name(const std::string& name) {
  static const std::string illegal = " \"'`\\/:;\x7F";
  return std::none_of(name.begin(), name.end(), [](char each) {
    const auto byte = static_cast<unsigned char>(each);
    return byte < 0x20 || byte >= 0x80 || illegal.find(each) != std::string::npos;
  });
}

uint16_t next_slot(const model_entry& directory) {
  uint16_t next = 0;
  while (directory.slots.count(next) != 0) {
    next++;
  }
  return next;
}

std::string without_trailing_slashes(std::string path) {
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

}  // namespace

expected_result fails(int error) {
  return {-1, error, false, false};
}

bool reserve_may_be_gone(int64_t free_slots, const seen_result& seen) {
  return seen.collected_in_vain || free_slots <= int64_t{slots_per_sector};
}

bool space_may_be_gone(int64_t free_slots, const seen_result& seen) {
  return seen.collected_in_vain || free_slots <= 2 * int64_t{slots_per_sector};
}

bool went_down(const seen_result& seen) {
  return seen.result < 0 && seen.error == EIO && seen.marked_down;
}

std::string base_name(const std::string& path) {
  const std::string cut = without_trailing_slashes(path);
  return cut.substr(cut.rfind('/') + 1);
}

std::string directory_name(const std::string& path) {
  const std::string cut = without_trailing_slashes(path);
  return without_trailing_slashes(cut.substr(0, cut.rfind('/') + 1));
}

uint32_t model_entry::size() const {
  if (is_directory()) {
    return static_cast<uint32_t>(slots.size() * sizeof(flashfs_dir_slot));
  }
  return sectors.empty() ? 0
                         : static_cast<uint32_t>((sectors.size() - 1) * sector_data_size) +
                               sectors.back()->count;
}

fs_model::fs_model(uint32_t total_sectors, uint32_t now)
    : total_sectors_(total_sectors), now_(now) {
  format();
}

const model_entry* fs_model::find(uint16_t fileid) const {
  const auto found = entries_.find(fileid);
  return found == entries_.end() ? nullptr : &found->second;
}

uint16_t fs_model::lookup(const std::string& path) const {
  if (path.size() >= path_size_max) {
    return 0;
  }
  uint16_t fileid = fileid_root;
  for (size_t start = 0; start < path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string name = path.substr(start, end - start);
    start = end + 1;
    if (name.empty()) {
      continue;
    }
    const model_entry& directory = entries_.at(fileid);
    fileid = 0;
    for (const auto& [seq_no, id] : directory.slots) {
      if (entries_.at(id).name == name) {
        fileid = id;
        break;
      }
    }
    if (fileid == 0) {
      return 0;
    }
  }
  return fileid;
}

std::string fs_model::path_of(uint16_t fileid) const {
  if (fileid == fileid_root) {
    return "/";
  }
  std::string path;
  while (fileid != fileid_root) {
    const model_entry& entry = entries_.at(fileid);
    path = "/" + entry.name + path;
    fileid = entry.parent;
  }
  return path;
}

bool fs_model::touch(uint16_t fileid, const seen_result& seen) {
  if (went_down(seen) && reserve_may_be_gone(free_slots(), seen)) {
    go_down();
    return false;
  }
  entries_.at(fileid).date = now_;
  return true;
}

void fs_model::go_down() {
  ready_ = false;
  down_ = true;
}

expected_result fs_model::refuse_create(const std::string& path, uint16_t* directory) const {
  if (path.empty()) {
    return fails(ENOENT);
  }
  if (lookup(path) != 0) {
    return fails(EEXIST);
  }
  if (path.size() >= path_size_max) {
    return fails(ENAMETOOLONG);
  }
  const std::string name = base_name(path);
  if (name.size() > filename_max) {
    return {-1, ENAMETOOLONG, false, true};
  }
  if (!legal_name(name)) {
    return fails(EINVAL);
  }
  *directory = lookup(directory_name(path));
  if (*directory == 0) {
    return fails(ENOENT);
  }
  const model_entry& holder = entries_.at(*directory);
  if (!holder.is_directory()) {
    return fails(ENOTDIR);
  }
  return holder.writer || holder.readers != 0 ? fails(EBUSY) : expected_result{};
}

expected_result fs_model::create(const std::string& path, uint32_t mode, const seen_result& seen,
                                 uint16_t* fileid) {
  uint16_t directory = 0;
  const expected_result refused = refuse_create(path, &directory);
  if (refused.error != 0) {
    return refused;
  }
  if (seen.result < 0 && seen.error == ENOSPC && space_may_be_gone(free_slots(), seen)) {
    return fails(ENOSPC);
  }
  if (free_slots() < 2) {
    return fails(ENOSPC);  // one slot must stay
  }
  *fileid = fileid_root;
  while (entries_.count(*fileid) != 0) {
    ++*fileid;
  }
  model_entry entry;
  entry.fileid = *fileid;
  entry.parent = directory;
  entry.mode = static_cast<ppc_mode_t>(mode | 0x0700);
  entry.date = now_;
  entry.name = base_name(path);
  entry.seq_no = next_slot(entries_.at(directory));
  entries_.at(directory).slots[entry.seq_no] = *fileid;
  entries_[*fileid] = entry;
  used_slots_++;
  return touch(directory, seen) ? expected_result{} : expected_result{-1, EIO, true, false};
}

expected_result fs_model::mkdir(const std::string& path, ppc_mode_t mode, const seen_result& seen) {
  if (!ready_) {
    return fails(EINVAL);
  }
  uint16_t fileid = 0;
  return create(path, (mode & ppc_mode_permissions) | uint32_t{ppc_mode_directory}, seen, &fileid);
}

void fs_model::set_sectors(model_entry* file, sector_list sectors) {
  data_sectors_ +=
      static_cast<int64_t>(sectors.size()) - static_cast<int64_t>(file->sectors.size());
  file->sectors = std::move(sectors);
}

void fs_model::free_entry(uint16_t fileid) {
  model_entry& entry = entries_.at(fileid);
  set_sectors(&entry, {});
  entries_.at(entry.parent).slots.erase(entry.seq_no);
  used_slots_--;
  entries_.erase(fileid);
}

expected_result fs_model::remove(const std::string& path, bool directory, const seen_result& seen) {
  if (!ready_) {
    return fails(EINVAL);
  }
  const uint16_t fileid = lookup(path);
  if (path.empty() || fileid == 0) {
    return fails(ENOENT);
  }
  const model_entry& entry = entries_.at(fileid);
  if (entry.is_directory() != directory) {
    return fails(directory ? ENOTDIR : EISDIR);
  }
  if (directory && !entry.slots.empty()) {
    return fails(ENOTEMPTY);
  }
  const uint16_t parent_id = entry.parent;
  const model_entry& parent = entries_.at(parent_id);
  if (entry.writer || entry.readers != 0 || parent.writer || parent.readers != 0) {
    return fails(EBUSY);
  }
  free_entry(fileid);
  return touch(parent_id, seen) ? expected_result{} : expected_result{-1, EIO, true, false};
}

expected_result fs_model::refuse_rename(const std::string& from, const std::string& to,
                                        uint16_t* directory) const {
  const uint16_t fileid = lookup(from);
  if (from.empty() || to.empty() || fileid == 0) {
    return fails(ENOENT);
  }
  if (fileid == fileid_root) {
    return fails(EINVAL);
  }
  if (lookup(to) != 0) {
    return fails(EEXIST);
  }
  if (to.size() >= path_size_max) {
    return fails(ENAMETOOLONG);
  }
  *directory = lookup(directory_name(to));
  if (*directory == 0) {
    return fails(EEXIST);
  }
  if (!entries_.at(*directory).is_directory()) {
    return fails(ENOTDIR);
  }
  const std::string name = base_name(to);
  if (name.size() > filename_max) {
    return {-1, ENAMETOOLONG, false, true};
  }
  if (!legal_name(name)) {
    return fails(EINVAL);
  }
  const model_entry& entry = entries_.at(fileid);
  if (*directory == entry.parent) {
    return {};
  }
  for (uint16_t each = *directory; entry.is_directory() && each != fileid_root;
       each = entries_.at(each).parent) {
    if (each == fileid) {
      return fails(EINVAL);
    }
  }
  const model_entry& target = entries_.at(*directory);
  const model_entry& source = entries_.at(entry.parent);
  const bool busy = target.writer || target.readers != 0 || source.writer || source.readers != 0;
  return busy ? fails(EBUSY) : expected_result{};
}

expected_result fs_model::rename(const std::string& from, const std::string& to,
                                 const seen_result& seen) {
  if (!ready_) {
    return fails(EINVAL);
  }
  uint16_t directory = 0;
  const expected_result refused = refuse_rename(from, to, &directory);
  if (refused.error != 0) {
    return refused;
  }
  if (went_down(seen) && reserve_may_be_gone(free_slots(), seen)) {
    go_down();
    return {-1, EIO, true, false};
  }
  model_entry& entry = entries_.at(lookup(from));
  entry.name = base_name(to);
  if (directory != entry.parent) {
    entries_.at(entry.parent).slots.erase(entry.seq_no);
    entry.seq_no = next_slot(entries_.at(directory));
    entry.parent = directory;
    entries_.at(directory).slots[entry.seq_no] = entry.fileid;
  }
  return {};
}

expected_result fs_model::chmod(const std::string& path, ppc_mode_t mode, const seen_result& seen) {
  if (!ready_) {
    return fails(EINVAL);
  }
  const uint16_t fileid = lookup(path);
  if (path.empty() || fileid == 0) {
    return fails(ENOENT);
  }
  if (fileid == fileid_root) {
    return fails(EINVAL);
  }
  if (went_down(seen) && reserve_may_be_gone(free_slots(), seen)) {
    go_down();
    return {-1, EIO, true, false};
  }
  model_entry& entry = entries_.at(fileid);
  entry.mode = static_cast<ppc_mode_t>((entry.mode & 0xFE00) | (mode & ppc_mode_permissions));
  return {};
}

void fs_model::fill_status(const model_entry& entry, ppc_stat* status) const {
  *status = {};
  status->link_count = 1;
  status->fileid = entry.fileid;
  status->mode = entry.mode;
  status->size = entry.size();
  status->access_date = entry.date;
  status->modification_date = entry.date;
  status->change_date = entry.date;
}

expected_result fs_model::stat(const std::string& path, ppc_stat* status) const {
  if (!ready_) {
    return fails(EINVAL);
  }
  const uint16_t fileid = lookup(path);
  if (path.empty() || fileid == 0) {
    return fails(ENOENT);
  }
  fill_status(entries_.at(fileid), status);
  return {};
}

expected_result fs_model::fstat(uint32_t handle, ppc_stat* status) const {
  const expected_result refused = look(handle);
  if (refused.error == 0) {
    fill_status(*entry_of(handle), status);
  }
  return refused;
}

expected_result fs_model::istat(const std::string& path, uint32_t fileid, ppc_stat* status) const {
  if (!ready_) {
    return fails(EINVAL);
  }
  if (path.empty()) {
    return fails(ENOENT);
  }
  const model_entry* entry = fileid > fileid_last ? nullptr : find(static_cast<uint16_t>(fileid));
  if (entry == nullptr) {
    return fails(EIO);
  }
  fill_status(*entry, status);
  return {};
}

expected_result fs_model::statfs(bool none_free, ppc_statfs* status) const {
  if (!ready_) {
    return fails(EINVAL);
  }
  const auto files = static_cast<uint32_t>(entries_.size());
  *status = {};
  status->version = 1;
  status->block_size = sector_data_size;
  status->total_blocks = total_sectors_;
  status->free_blocks =
      static_cast<uint32_t>(free_slots() / slots_per_sector) - (none_free ? 0U : 1U);
  status->total_fileids = all_file_ids;
  status->free_fileids = all_file_ids - files;
  status->files = files;
  status->lost_fileids = entries_.rbegin()->first - files;
  return {};
}

expected_result fs_model::verify(const std::string& path) const {
  if (!ready_) {
    return fails(EINVAL);
  }
  return lookup(path) == 0 ? fails(ENOENT) : expected_result{};
}

expected_result fs_model::highest_id(uint32_t* fileid) const {
  if (!ready_) {
    return fails(EINVAL);
  }
  *fileid = entries_.rbegin()->first;
  return {};
}

expected_result fs_model::unknown_control() const {
  return fails(EINVAL);
}

expected_result fs_model::format() {
  if (open_count() != 0) {
    return fails(EBUSY);
  }
  model_entry root;
  root.fileid = fileid_root;
  root.parent = fileid_root;
  root.mode = root_mode;
  root.date = now_;
  root.slots[0] = fileid_root;
  entries_.clear();
  entries_[fileid_root] = root;
  used_slots_ = 1;
  data_sectors_ = 0;
  unfinished_.reset();
  ready_ = true;
  down_ = false;
  return {};
}

expected_result fs_model::check() {
  if (open_count() != 0) {
    return fails(EBUSY);
  }
  restart();
  return {};
}

void fs_model::remount() {
  descriptors_ = {};
  restart();
}

void fs_model::restart() {
  for (auto& [fileid, entry] : entries_) {
    entry.readers = 0;
    entry.writer = false;
  }
  ready_ = true;
  down_ = false;
}

}  // namespace model_test

// What the file system must do, as a plain structure in memory: the tree, every sector's bytes and
// valid count, the claims, the open descriptors and the space that is left. Each operation says
// what the call must return. Where space is short, which of several failures a full device meets
// depends on how its free sectors and slots lie; then the model takes the answer that was seen, if
// so little space is left that it can be right, and goes on from there.
//
// Space is counted in slots: a free or obsolete sector is worth 32, a free or deleted slot 1.
// Garbage collection, copying of sectors and dating of entries leave the sum as it is.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/model/model_operation.h"

namespace model_test {

// What the call that the model is asked about did.
struct seen_result {
  int32_t result = 0;
  int error = 0;
  bool marked_down = false;
  bool collected_in_vain = false;  // a block of no sectors was brought into service
  size_t file_sectors = 0;         // of the file of the handle, after the call
};

// What it must do. An error of 0 means success.
struct expected_result {
  int32_t result = 0;
  int error = 0;
  bool marked_down = false;
  bool name_message = false;  // says that a name is too long
};

struct model_sector {
  std::array<uint8_t, sector_data_size> data;
  uint16_t count = 0;
  bool reserved = false;
};
using sector_ref = std::shared_ptr<const model_sector>;
using sector_list = std::vector<sector_ref>;

struct model_entry {
  uint16_t fileid = 0;
  uint16_t parent = 0;
  uint16_t mode = 0;
  uint16_t seq_no = 0;  // of its slot, among those of its directory
  uint32_t date = 0;
  std::string name;
  uint32_t readers = 0;
  bool writer = false;
  sector_list sectors;                 // of a file
  std::map<uint16_t, uint16_t> slots;  // of a directory: sequence number -> file id

  bool is_directory() const {
    return is_directory_mode(mode);
  }
  size_t list_length() const {
    return is_directory() ? slots.size() : sectors.size();
  }
  uint32_t size() const;
};

struct model_descriptor {
  bool is_open = false;
  bool raw = false;
  int32_t fd = -1;
  uint16_t fileid = 0;
  uint32_t filepos = 0;
  uint32_t oflags = 0;
};

// A write that met a full device half way, until the check after it has shown what is left.
struct unfinished_write {
  uint16_t fileid = 0;
  sector_list old_sectors;
  sector_list new_sectors;
};

class fs_model {
 public:
  // A fresh file system of so many sectors besides the spare.
  fs_model(uint32_t total_sectors, uint32_t now);

  // The time from now on.
  void set_clock(uint32_t now) {
    now_ = now;
  }

  // --- the operations; the handle's descriptor is `descriptor(handle)` ---

  expected_result open(uint32_t handle, const std::string& path, uint32_t oflags, ppc_mode_t mode,
                       const seen_result& seen);
  expected_result open_by_id(uint32_t handle, uint32_t fileid, uint32_t oflags,
                             const seen_result& seen);
  expected_result close(uint32_t handle);
  expected_result read(uint32_t handle, uint32_t length, std::vector<uint8_t>* data);
  expected_result write(uint32_t handle, const std::vector<uint8_t>& data, uint32_t length,
                        const seen_result& seen);
  expected_result seek(uint32_t handle, int32_t offset, int32_t whence);
  expected_result truncate(uint32_t handle, uint32_t length, const seen_result& seen);
  expected_result getdents(uint32_t handle, uint32_t length, std::vector<ppc_dirent>* records);
  expected_result fstat(uint32_t handle, ppc_stat* status) const;
  // Controls of a descriptor that only look: verify, name, path and size, unknown codes.
  expected_result look(uint32_t handle) const;
  expected_result file_info(uint32_t handle, std::string* path, uint32_t* size) const;

  expected_result chmod(const std::string& path, ppc_mode_t mode, const seen_result& seen);
  expected_result remove(const std::string& path, bool directory, const seen_result& seen);
  expected_result rename(const std::string& from, const std::string& to, const seen_result& seen);
  expected_result mkdir(const std::string& path, ppc_mode_t mode, const seen_result& seen);
  expected_result stat(const std::string& path, ppc_stat* status) const;
  expected_result istat(const std::string& path, uint32_t fileid, ppc_stat* status) const;
  // `none_free`: no sector is free or obsolete.
  expected_result statfs(bool none_free, ppc_statfs* status) const;
  expected_result verify(const std::string& path) const;
  expected_result highest_id(uint32_t* fileid) const;
  expected_result unknown_control() const;
  expected_result format();
  expected_result check();
  // The next run: nothing is open, everything is as it is on flash.
  void remount();
  // A raw image was written back.
  void restart();

  // --- what a check shows of an unfinished write ---

  const unfinished_write* unfinished() const {
    return unfinished_.get();
  }
  // Takes over what is left of the file, or says what is wrong with it.
  std::string settle(const sector_list& found, bool quick_check);

  // --- the state ---

  bool ready() const {
    return ready_;
  }
  bool down() const {
    return down_;
  }
  int open_count() const;
  // The space that is left, in slots.
  int64_t free_slots() const {
    return int64_t{slots_per_sector} * (int64_t{total_sectors_} - data_sectors_) - used_slots_;
  }
  uint32_t total_sectors() const {
    return total_sectors_;
  }
  const model_descriptor& descriptor(uint32_t handle) const {
    return descriptors_[handle];
  }
  const std::map<uint16_t, model_entry>& entries() const {
    return entries_;
  }
  const model_entry* find(uint16_t fileid) const;
  // 0: nothing there.
  uint16_t lookup(const std::string& path) const;
  std::string path_of(uint16_t fileid) const;

 private:
  model_entry* entry_of(uint32_t handle);
  const model_entry* entry_of(uint32_t handle) const;
  expected_result create(const std::string& path, uint32_t mode, const seen_result& seen,
                         uint16_t* fileid);
  expected_result refuse_create(const std::string& path, uint16_t* directory) const;
  expected_result refuse_rename(const std::string& from, const std::string& to,
                                uint16_t* directory) const;
  expected_result finish_open(uint32_t handle, uint16_t fileid, uint32_t oflags, bool created,
                              const seen_result& seen);
  // Dates the entry, unless no slot was left for that and it went down. True when it went on.
  bool touch(uint16_t fileid, const seen_result& seen);
  void go_down();
  void fill_status(const model_entry& entry, ppc_stat* status) const;
  void set_sectors(model_entry* file, sector_list sectors);
  void free_entry(uint16_t fileid);

  uint32_t total_sectors_;
  uint32_t now_;
  int64_t data_sectors_ = 0;
  int64_t used_slots_ = 0;
  bool ready_ = true;
  bool down_ = false;
  std::map<uint16_t, model_entry> entries_;
  std::array<model_descriptor, handle_count> descriptors_;
  std::unique_ptr<unfinished_write> unfinished_;
};

// The last component of a path, and what stands before it.
std::string base_name(const std::string& path);
std::string directory_name(const std::string& path);

}  // namespace model_test

// Registering, mounting and giving back a flash file system.
#include "volume/volume.h"

#include <cerrno>
#include <cstddef>
#include <memory>

namespace volume {

file_system::file_system(std::string_view prefix) : files(prefix), prefix_(prefix) {}

file_system::~file_system() {
  detach();
}

int32_t file_system::attach(const std::vector<device>& devices) {
  detach();
  // All asked first: a file system that the switch then refuses would be left behind in memory.
  if (devices.size() > static_cast<size_t>(flashfs_max_devices) ||
      prefix_.size() >= ifs_prefix_size) {
    errno = EINVAL;
    return -1;
  }
  if (ifs_lookup_prefix(full_path("").c_str()) >= 0) {
    errno = EEXIST;
    return -1;
  }
  const flash_driver_info* records[flashfs_max_devices] = {};
  const void* handles[flashfs_max_devices] = {};
  for (size_t i = 0; i < devices.size(); ++i) {
    records[i] = devices[i].driver;
    handles[i] = devices[i].handle;
  }
  const int32_t fsid =
      flashfs_initialize(handles, records, static_cast<int32_t>(devices.size()), prefix_.c_str());
  if (fsid < 0) {
    errno = EINVAL;
    return -1;
  }
  state_ = static_cast<flashfs*>(ifs_fsid_get_fs_context(static_cast<ppc_fsid_t>(fsid)));
  return fsid;
}

void file_system::detach() {
  if (state_ != nullptr) {
    flashfs_release(state_);
    state_ = nullptr;
  }
}

int32_t file_system::mount(const std::vector<device>& devices, uint32_t check_flags) {
  return attach(devices) < 0 ? -1 : check(check_flags);
}

}  // namespace volume

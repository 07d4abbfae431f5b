// A flash file system as an object: registered with the switch over any driver records, mounted,
// and given back at the end of its scope, with what is still open on it.
//
// Up to 16 of them live at once, each under a prefix of its own. None of them empties the switch:
// its tables are empty when a process begins, and ifs_init() would pull the ground from under those
// that live. What the file system says goes to standard output, as ever.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "volume/files.h"

namespace volume {

// One flash. Record and handle must live as long as the file system is registered over them.
struct device {
  const flash_driver_info* driver;
  const void* handle;  // passed to the driver as it is
};

class file_system : public files {
 public:
  // The prefix: at most 31 characters, no colon among them. Nothing is registered yet.
  explicit file_system(std::string_view prefix = "bootflash");
  ~file_system();
  file_system(const file_system&) = delete;
  file_system& operator=(const file_system&) = delete;

  // Registers it over one or two devices, unmounted; what was registered by this object is given
  // back first. Returns the fsid, or -1 with errno: EEXIST when the prefix is taken, EINVAL when
  // the file system or the switch refuses, after its message.
  [[nodiscard]] int32_t attach(const std::vector<device>& devices);
  // Gives it back: memory, open files, the place in the switch. The flash stays as it is, just as
  // at the end of a process. `file` objects of it must not be used afterwards.
  void detach();
  // Attaches and checks. 0, or -1 with errno; after a check that failed it stays attached.
  [[nodiscard]] int32_t mount(const std::vector<device>& devices,
                              uint32_t check_flags = flashfs_check_quick);

  // Whether a check has passed and nothing has marked it down since.
  bool is_ready() const {
    return state_ != nullptr && state_->ready != 0;
  }
  // The file system's own state; null when it is not attached.
  flashfs* state() const {
    return state_;
  }

 private:
  std::string prefix_;
  flashfs* state_ = nullptr;
};

}  // namespace volume

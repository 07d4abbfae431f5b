// Start-up of the file system on demand, and the maintenance commands beside it: format, check, and
// two that do little. The file commands are elsewhere.
#include "zantrolume/zantrolume_startup.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "ifs/ifs.h"
#include "zantrolume/zantrolume_flashfs.h"
#include "zantrolume/zantrolume_signals.h"

namespace {

constexpr char bootflash_prefix[] = "bootflash:";
constexpr char checking_step[] = "the check of the file system";
constexpr char error_step[] = "an error message";

bool registered;
bool file_system_started;

void register_again() {
  registered = false;
  register_flashfs();
}

// Cuts a path to the prefix that begins it, colon included. False, after a message, when no file
// system is registered under that prefix.
bool cut_to_prefix(char* path) {
  if (ifs_lookup_prefix_internal(path, nullptr, 0, 1) < 0) {
    printf("Unknown filesystem \"%s\"\n", path);
    return false;
  }
  strchr(path, ':')[1] = '\0';
  return true;
}

}  // namespace

void report_error(const char* prefix, int error) {
  fflush(stdout);
  // Nobody reads any more? Then there was never a message.
  zantrolume_next_step(error_step);
  errno = error;
  perror(prefix);
}

bool start_or_abort() {
  if (start_flashfs() != 0) {
    return true;
  }
  puts("Abort: could not start flash file system");
  return false;
}

int register_flashfs() {
  if (registered) {
    return 1;
  }
  ifs_init();
  if (zantrolume_flashfs_initialize() != 1) {
    exit(1);
  }
  registered = true;
  return 1;
}

int start_flashfs() {
  if (file_system_started) {
    return 1;
  }
  register_again();
  uint32_t flags = flashfs_check_quick;
  zantrolume_next_step(checking_step);
  if (ifs_ioctl(bootflash_prefix, flashfs_ioctl_check, &flags) != 0) {
    printf("%s file system initialization failed\n", bootflash_prefix);
    return 0;
  }
  file_system_started = true;
  return 1;
}

int format_cmd(int argc, char* argv[]) {
  register_again();
  if (argc != 2) {
    return -1;
  }
  char* filesystem = argv[1];
  if (!cut_to_prefix(filesystem)) {
    return 1;
  }
  puts("Formatting filesystem, please wait 150 seconds");
  uint32_t argument = 0;
  zantrolume_next_step("the formatting");
  if (ifs_ioctl(filesystem, flashfs_ioctl_format, &argument) != 0) {
    const int error = errno;
    printf("Filesystem \"%s\" not formatted -- ", filesystem);
    report_error("", error);
    return 1;
  }
  file_system_started = true;
  printf("Filesystem \"%s\" formatted\n", filesystem);
  return 0;
}

int fsck_cmd(int argc, char* argv[]) {
  register_again();
  uint32_t flags = 0;
  int index = 1;
  for (; index < argc && argv[index][0] == '-'; ++index) {
    if (strcmp(argv[index], "-f") == 0) {
      flags |= flashfs_check_quick;
    } else if (strcmp(argv[index], "-test") == 0) {
      flags |= flashfs_check_reclaim_all;
    } else {
      return -1;
    }
  }
  if (argc - index != 1) {
    return -1;
  }
  char* filesystem = argv[index];
  if (!cut_to_prefix(filesystem)) {
    return 1;
  }
  zantrolume_next_step(checking_step);
  if (ifs_ioctl(filesystem, flashfs_ioctl_check, &flags) != 0) {
    const int error = errno;
    printf("Filesystem \"%s\" not checked -- ", filesystem);
    report_error("", error);
    return 1;
  }
  puts("File system check passed");
  file_system_started = true;
  return 0;
}

int flashfs_init_cmd(int argc) {
  if (argc != 1) {
    return -1;
  }
  return start_or_abort() ? 0 : 1;
}

int set_bs_cmd() {
  return 0;
}

// The control codes of the file system, for ifs_ioctl and ifs_fioctl, and the records that they
// fill. Codes that are not here are refused with EINVAL.
#pragma once

#include <cstdint>

#include "ifs/ifs.h"

// By path. The argument is not looked at where none is named.
constexpr uint32_t flashfs_ioctl_format = 6;
constexpr uint32_t flashfs_ioctl_verify = 7;           // the file or directory that the path names
constexpr uint32_t flashfs_ioctl_format_too = 10;      // the same as 6
constexpr uint32_t flashfs_ioctl_check = 11;           // const uint32_t*: flags of check_flags.h
constexpr uint32_t flashfs_ioctl_highest_fileid = 36;  // uint32_t*: takes the id

// By descriptor.
constexpr uint32_t flashfs_fioctl_truncate = ifs_fioctl_set_size;  // const uint32_t*: bytes
constexpr uint32_t flashfs_fioctl_verify = 7;
constexpr uint32_t flashfs_fioctl_name = 12;           // flashfs_file_name*
constexpr uint32_t flashfs_fioctl_path_and_size = 15;  // flashfs_file_info*

struct flashfs_file_name {
  uint32_t reserved;
  char name[64];
};

struct flashfs_file_info {
  char path[320];
  uint32_t size;  // bytes
  uint32_t reserved;
};

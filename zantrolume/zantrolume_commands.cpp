// The file commands: list, print, delete, verify, rename files and make or remove directories,
// through the file-system switch. Copying has its own source.
#include "zantrolume/zantrolume_commands.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "flashfs/control_codes.h"
#include "ifs/ifs.h"
#include "zantrolume/zantrolume_signals.h"
#include "zantrolume/zantrolume_startup.h"

namespace {

constexpr uint32_t cat_piece_size = 512;  // bytes
constexpr int end_of_string = 0;
constexpr int end_of_text = 26;  // Ctrl-Z
constexpr char interruption[] = "\nCommand interrupted.";
constexpr ppc_mode_t no_mode = 0xFFFF;
constexpr uint32_t no_value = 0xFFFFFFFF;

// Permission bits as the listing shows them.
constexpr ppc_mode_t listed_read = 0x400;
constexpr ppc_mode_t listed_write = 0x200;
constexpr ppc_mode_t listed_execute = 0x100;
constexpr ppc_mode_t mode_link = 0xC000;

// --- dir ---

constexpr char listing_step[] = "a step of the listing";

// 32 bits on every build, so that all of them print the same.
long listed_number(uint32_t value) {
  return static_cast<int32_t>(value);
}

const char* access_word(uint32_t flags) {
  switch (flags & ifs_flag_access_mask) {
    case 1:
      return "read-only";
    case 2:
      return "write-only";
    case 3:
      return "read-write";
    default:
      return "???";
  }
}

void list_filesystems(bool show_hidden) {
  puts("\nList of filesystems currently registered:\n");
  for (ppc_fsid_t fsid = 0; fsid < ifs_max_filesystems; ++fsid) {
    const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
    if (entry == nullptr) {
      continue;
    }
    const uint32_t flags = ifs_fsid_get_flags(fsid);
    if ((flags & ifs_flag_hidden) != 0 && !show_hidden) {
      continue;
    }
    for (const ifs_prefix* prefix = entry->prefixes; prefix != nullptr; prefix = prefix->next) {
      zantrolume_next_step(listing_step);
      printf("%20s: (%s)\n", prefix->name, access_word(flags));
    }
  }
  putchar('\n');
}

char type_letter(ppc_mode_t mode) {
  const int type = mode & ppc_mode_type_mask;
  if (type == ppc_mode_directory) {
    return 'd';
  }
  return type == mode_link ? 's' : '-';
}

void print_entry(const ppc_stat& status, const char* name) {
  if (status.fileid != no_value) {
    printf("%-3ld  ", listed_number(status.fileid));
  } else {
    printf("     ");
  }
  putchar(type_letter(status.mode));
  putchar((status.mode & listed_read) != 0 ? 'r' : '-');
  putchar((status.mode & listed_write) != 0 ? 'w' : '-');
  putchar((status.mode & listed_execute) != 0 ? 'x' : '-');
  if (status.size != no_value) {
    printf("  %-10ld", listed_number(status.size));
  } else {
    printf("   <no size>");
  }
  printf("%-21s", status.change_date != no_value ? "<date>" : "<no date>");
  printf("%s\n", name);
}

// False, after a message where one is due, when the listing must end without a summary.
bool print_entries(int32_t fd, const std::string& path) {
  for (bool first = true;; first = false) {
    ppc_dirent entry = {};
    zantrolume_next_step(listing_step);
    const int32_t got = ifs_getdents(fd, &entry, sizeof(entry));
    if (got < 0) {
      return false;
    }
    if (first) {
      printf("Directory of %s\n", path.c_str());
    }
    if (got == 0) {
      return true;
    }
    const std::string full_name = path + entry.name;
    ppc_stat status = {};
    zantrolume_next_step(listing_step);
    if (ifs_stat(full_name.c_str(), &status) < 0) {
      report_error(full_name.c_str(), errno);
      return false;
    }
    print_entry(status, entry.name);
  }
}

void print_space(const std::string& path) {
  ppc_statfs space = {};
  zantrolume_next_step(listing_step);
  if (ifs_statfs(path.c_str(), &space) < 0) {
    puts("\nNo space information available");
    return;
  }
  printf("\n%ld bytes available (%ld bytes used)\n",
         listed_number(space.block_size * space.free_blocks),
         listed_number(space.block_size * (space.total_blocks - space.free_blocks)));
}

void list_directory(const char* argument) {
  const std::string path = std::string(argument) + "/";
  ppc_stat status = {};
  zantrolume_next_step(listing_step);
  if (ifs_stat(path.c_str(), &status) < 0) {
    const int error = errno;
    printf("unable to stat ");
    report_error(path.c_str(), error);
    return;
  }
  if (status.mode != no_mode && (status.mode & ppc_mode_type_mask) != ppc_mode_directory) {
    printf("Not a directory: %s\n", path.c_str());
    return;
  }
  zantrolume_next_step(listing_step);
  const int32_t fd = ifs_open(path.c_str(), ifs_open_read, 0);
  if (fd < 0) {
    const int error = errno;
    printf("Unable to open ");
    report_error(path.c_str(), error);
    return;
  }
  if (print_entries(fd, path)) {
    print_space(path);
  }
  zantrolume_next_step(listing_step);
  ifs_close(fd);
}

// --- cat ---

constexpr char reading_step[] = "a step of the reading";

// The number of bytes before the first NUL or Ctrl-Z.
size_t text_length(const uint8_t* bytes, size_t count) {
  for (const int end : {end_of_string, end_of_text}) {
    const auto* found = static_cast<const uint8_t*>(memchr(bytes, end, count));
    count = found == nullptr ? count : static_cast<size_t>(found - bytes);
  }
  return count;
}

void print_file(int32_t fd, const char* path) {
  bool more = true;
  while (more) {
    uint8_t piece[cat_piece_size];
    zantrolume_next_step(reading_step);
    const int32_t got = ifs_read(fd, piece, sizeof(piece));
    if (got < 0) {
      const int error = errno;
      printf("%s: ", path);
      report_error("read", error);
      return;
    }
    const auto count = static_cast<size_t>(got);
    const size_t length = text_length(piece, count);
    if (fwrite(piece, 1, length, stdout) != length) {
      puts(interruption);
      return;
    }
    more = length == count && count != 0;
  }
  // What is still buffered must be out before it is known that the output took it.
  if (fflush(stdout) != 0) {
    puts(interruption);
  }
}

// --- one operation per argument ---

// Carries out `operation` (negative: failed, with errno), which `step` names to who interrupts it,
// on every argument and prints its line.
int for_each_argument(int argc, char* argv[], int32_t (*operation)(const char* path),
                      const char* step, const char* subject, const char* done,
                      const char* not_done) {
  if (!start_or_abort()) {
    return 1;
  }
  int result = 0;
  for (int i = 1; i < argc; ++i) {
    zantrolume_next_step(step);
    if (operation(argv[i]) >= 0) {
      printf("%s \"%s\" %s\n", subject, argv[i], done);
      continue;
    }
    const int error = errno;
    printf("%s \"%s\" %s -- ", subject, argv[i], not_done);
    report_error("", error);
    result = 1;
  }
  return result;
}

constexpr char verifying_step[] = "a step of the verification";

int32_t verify_file(const char* path) {
  const int32_t fd = ifs_open(path, ifs_open_read, 0);
  if (fd < 0) {
    return fd;
  }
  zantrolume_next_step(verifying_step);
  const int32_t result = ifs_fioctl(fd, flashfs_fioctl_verify, nullptr);
  const int error = errno;
  zantrolume_next_step(verifying_step);
  ifs_close(fd);
  errno = error;
  return result;
}

int32_t make_directory(const char* path) {
  return ifs_mkdir(path, 0);
}

}  // namespace

int rename_cmd(int argc, char* argv[]) {
  if (!start_or_abort()) {
    return 1;
  }
  if (argc != 3) {
    return -1;
  }
  zantrolume_next_step("the renaming");
  if (ifs_rename(argv[1], argv[2]) < 0) {
    report_error("rename", errno);
    return 1;
  }
  return 0;
}

int dir_cmd(int argc, char* argv[]) {
  if (!start_or_abort()) {
    return 1;
  }
  bool show_hidden = false;
  int index = 1;
  for (; index < argc && argv[index][0] == '-'; ++index) {
    if (strcmp(argv[index], "-a") != 0) {
      return -1;
    }
    show_hidden = true;
  }
  if (index == argc) {
    list_filesystems(show_hidden);
    return 0;
  }
  for (; index < argc; ++index) {
    list_directory(argv[index]);
  }
  return 0;
}

int cat_cmd(int argc, char* argv[]) {
  if (!start_or_abort()) {
    return 1;
  }
  for (int i = 1; i < argc; ++i) {
    zantrolume_next_step(reading_step);
    const int32_t fd = ifs_open(argv[i], ifs_open_read, 0);
    if (fd < 0) {
      report_error(argv[i], errno);
      continue;
    }
    print_file(fd, argv[i]);
    zantrolume_next_step(reading_step);
    ifs_close(fd);
  }
  return 1;
}

int more_cmd(int argc, char* argv[]) {
  cat_cmd(argc, argv);
  return 0;
}

int delete_cmd(int argc, char* argv[]) {
  return for_each_argument(argc, argv, ifs_remove, "the removal", "File", "deleted", "not deleted");
}

int verify_cmd(int argc, char* argv[]) {
  return for_each_argument(argc, argv, verify_file, verifying_step, "File", "verified",
                           "verify failed");
}

int mkdir_cmd(int argc, char* argv[]) {
  return for_each_argument(argc, argv, make_directory, "the new directory", "Directory", "created",
                           "not created");
}

int rmdir_cmd(int argc, char* argv[]) {
  return for_each_argument(argc, argv, ifs_rmdir, "the removal", "Directory", "removed",
                           "not removed");
}

// Mounts, operates and looks at a file system for the reliability tables.
#include "reliability/rig.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/flashfs_fixture.h"

namespace reliability {

namespace {

constexpr uint32_t ioctl_check = 11;
constexpr uint32_t fioctl_truncate = 1;

std::string read_content(const std::string& path) {
  const int32_t fd = ifs_open(full_path(path).c_str(), ifs_open_read, 0);
  std::string content;
  char part[4096];
  int32_t got = fd < 0 ? -1 : 0;
  while (fd >= 0 && (got = ifs_read(fd, part, sizeof(part))) > 0) {
    content.append(part, static_cast<size_t>(got));
  }
  if (got < 0) {
    content = "<errno " + std::to_string(errno) + ">";
  }
  if (fd >= 0) {
    ifs_close(fd);
  }
  return content;
}

}  // namespace

uint32_t block_of_sectors(uint32_t sectors) {
  return static_cast<uint32_t>(sizeof(flashfs_blkheader) + sectors * sizeof(flashfs_sector));
}

std::string full_path(const std::string& path) {
  return "bootflash:" + path;
}

std::string pattern(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed * 2654435761U + 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

uint64_t hash_of(const std::vector<uint8_t>& contents) {
  uint64_t hash = 0xcbf29ce484222325U;
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= contents.size(); i += sizeof(uint64_t)) {
    uint64_t word = 0;
    memcpy(&word, contents.data() + i, sizeof(word));
    hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 29;
  }
  for (; i < contents.size(); i++) {
    hash = (hash ^ contents[i]) * 0x100000001b3U;
  }
  return hash;
}

rig::rig(const std::vector<test_support::ram_block>& blocks) : device_(blocks, &supply_) {
  kept_ = open_memstream(&text_, &text_size_);
  if (kept_ == nullptr) {
    perror("no memory for the output");
    abort();
  }
}

rig::~rig() {
  supply_.restore();
  unmount();
  fclose(kept_);
  free(text_);
}

std::string rig::take_output() {
  fflush(kept_);
  std::string text(text_, text_size_);
  rewind(kept_);
  return text;
}

void rig::unmount() {
  const capture quiet(*this);
  test_support::free_flashfs(fs_);
  fs_ = nullptr;
}

void rig::register_only() {
  unmount();
  take_output();
  const capture quiet(*this);
  ifs_init();
  const void* handles[] = {device_.handle()};
  const flash_driver_info* records[] = {device_.driver()};
  flashfs_initialize(handles, records, 1, "bootflash");
  fs_ = flashfs_get_fsp("bootflash:");
}

int32_t rig::check(uint32_t check_flags) {
  const capture quiet(*this);
  return ifs_ioctl("bootflash:", ioctl_check, &check_flags);
}

int32_t rig::mount(uint32_t check_flags) {
  mount_flags_ = check_flags;
  register_only();
  return check(check_flags);
}

tree rig::walk() {
  const capture quiet(*this);
  tree found;
  std::set<uint32_t> entered = {fileid_root};
  walk_directory("", &found, &entered);
  for (auto& [path, node] : found) {
    if (is_regular_mode(node.mode)) {
      node.content = read_content(path);
    }
    if (fs_->ready == 0) {
      // A bad file takes the file system down; the next command checks it and goes on.
      mount(mount_flags_);
    }
  }
  return found;
}

void rig::walk_directory(const std::string& path, tree* found, std::set<uint32_t>* entered) {
  const int32_t fd = ifs_open(full_path(path + "/").c_str(), ifs_open_read, 0);
  if (fd < 0) {
    return;
  }
  std::vector<std::string> directories;
  ppc_dirent entry;
  while (ifs_getdents(fd, &entry, sizeof(entry)) > 0) {
    const std::string child = path.empty() ? entry.name : path + "/" + entry.name;
    ppc_stat status;
    if (ifs_stat(full_path(child).c_str(), &status) != 0) {
      (*found)[child] = {0, 0, "<no status>"};
      continue;
    }
    (*found)[child] = {status.mode, status.change_date, ""};
    if (is_directory_mode(status.mode) && entered->insert(status.fileid).second) {
      directories.push_back(child);
    }
  }
  ifs_close(fd);
  for (const std::string& directory : directories) {
    walk_directory(directory, found, entered);
  }
}

int32_t close_after(int32_t fd, int32_t result) {
  const int error = errno;
  const int32_t closed = ifs_close(fd);
  if (result >= 0) {
    return closed;
  }
  errno = error;
  return result;
}

int32_t rig::write(const std::string& path, const std::string& content, uint32_t oflags,
                   int32_t position) {
  const capture quiet(*this);
  const int32_t fd = ifs_open(full_path(path).c_str(), oflags, 0);
  if (fd < 0) {
    return fd;
  }
  int32_t result = position == 0 ? 0 : ifs_lseek(fd, position, ifs_seek_set);
  if (result >= 0 && !content.empty()) {
    result = ifs_write_until(fd, content.data(), static_cast<uint32_t>(content.size()));
  }
  return close_after(fd, result);
}

int32_t rig::make_file(const std::string& path, const std::string& content) {
  return write(path, content, ifs_open_write | ifs_open_create);
}

int32_t rig::truncate(const std::string& path, uint32_t length) {
  const capture quiet(*this);
  const int32_t fd = ifs_open(full_path(path).c_str(), ifs_open_write, 0);
  const int32_t result = fd < 0 ? fd : ifs_fioctl(fd, fioctl_truncate, &length);
  return fd < 0 ? fd : close_after(fd, result);
}

}  // namespace reliability

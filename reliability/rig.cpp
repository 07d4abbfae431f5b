// Mounts, operates and looks at a file system for the reliability tables.
#include "reliability/rig.h"

#include "tests/support/flashfs_fixture.h"

namespace reliability {

uint32_t block_of_sectors(uint32_t sectors) {
  return static_cast<uint32_t>(sizeof(flashfs_blkheader) + sectors * sizeof(flashfs_sector));
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

rig::rig(const std::vector<test_support::ram_block>& blocks) : device_(blocks, &supply_) {}

rig::~rig() {
  supply_.restore();
  unmount();
}

std::string rig::take_output() {
  return kept_.take();
}

void rig::unmount() {
  const capture quiet(*this);
  files_.detach();
}

void rig::register_only() {
  unmount();
  take_output();
  const capture quiet(*this);
  static_cast<void>(files_.attach({test_support::device_of(device_)}));
}

int32_t rig::check(uint32_t check_flags) {
  const capture quiet(*this);
  return files_.check(check_flags);
}

int32_t rig::mount(uint32_t check_flags) {
  mount_flags_ = check_flags;
  register_only();
  return check(check_flags);
}

tree rig::walk() {
  const capture quiet(*this);
  std::vector<volume::entry> entries;
  static_cast<void>(files_.walk("", &entries));  // what can be reached counts
  tree found;
  for (const volume::entry& one : entries) {
    found[one.path] = {one.status.mode, one.status.change_date,
                       one.error == 0 ? "" : "<no status>"};
  }
  for (auto& [path, node] : found) {
    if (is_regular_mode(node.mode)) {
      node.content = test_support::contents_of(files_, path);
    }
    if (!files_.is_ready()) {
      // A bad file takes the file system down; the next command checks it and goes on.
      mount(mount_flags_);
    }
  }
  return found;
}

int32_t rig::write(const std::string& path, const std::string& content, uint32_t oflags,
                   int32_t position) {
  const capture quiet(*this);
  return files_.write_file(path, content, oflags, position);
}

int32_t rig::make_file(const std::string& path, const std::string& content) {
  return write(path, content, ifs_open_write | ifs_open_create);
}

int32_t rig::truncate(const std::string& path, uint32_t length) {
  const capture quiet(*this);
  return files_.truncate(path, length);
}

}  // namespace reliability

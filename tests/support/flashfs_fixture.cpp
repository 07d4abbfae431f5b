// Makes, mounts and gives back file systems for tests.
#include "tests/support/flashfs_fixture.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace test_support {

namespace {

constexpr const char* prefix = "bootflash";
constexpr uint32_t ioctl_check = 11;
constexpr uint32_t quick_check = 1;
constexpr uint32_t full_check = 0;

std::string path_of(const std::string& name) {
  return std::string(prefix) + ":" + name;
}

}  // namespace

output_capture::output_capture() : file_(std::tmpfile()) {
  std::fflush(stdout);
  saved_fd_ = dup(STDOUT_FILENO);
  if (file_ == nullptr || saved_fd_ < 0 || dup2(fileno(file_), STDOUT_FILENO) < 0) {
    std::perror("cannot catch the standard output");
    std::abort();
  }
}

void output_capture::end() {
  std::fflush(stdout);
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  saved_fd_ = -1;
}

std::string output_capture::take() {
  if (saved_fd_ >= 0) {
    end();
  }
  std::string text;
  char part[4096];
  std::rewind(file_);
  for (size_t got; (got = std::fread(part, 1, sizeof part, file_)) != 0;) {
    text.append(part, got);
  }
  return text;
}

output_capture::~output_capture() {
  if (saved_fd_ >= 0) {
    end();
  }
  std::fclose(file_);
}

void free_flashfs(flashfs* fs) {
  if (fs == nullptr) {
    return;
  }
  flashfs_release(fs);
}

flashfs_fixture::flashfs_fixture() {
  chassis_.clock_hold(fixture_time);
  sim::install_chassis(&chassis_);
  ifs_init();
}

flashfs_fixture::~flashfs_fixture() {
  // A test may have installed one of its own, which is gone by now; closing files reads the clock.
  sim::install_chassis(&chassis_);
  output_capture dropped;
  free_flashfs(fs_);
}

void flashfs_fixture::TearDown() {
  if (fs_ != nullptr && expect_no_buffers_out_) {
    EXPECT_EQ(fs_->sctr_bufs_allocated, 0U);
  }
  for (const auto& one : devices_) {
    if (expect_no_deviations_) {
      EXPECT_EQ(one->deviations(), 0U);
      EXPECT_EQ(one->flash().bit_set_requests(), 0U);
    }
  }
}

void flashfs_fixture::make_flash(const std::vector<ram_block>& device_0) {
  unmount();
  devices_.clear();
  devices_.push_back(std::make_unique<ram_flash>(device_0, &supply_));
}

void flashfs_fixture::make_flash(const std::vector<ram_block>& device_0,
                                 const std::vector<ram_block>& device_1) {
  make_flash(device_0);
  devices_.push_back(std::make_unique<ram_flash>(device_1, &supply_));
}

int32_t flashfs_fixture::initialize() {
  unmount();
  const void* handles[flashfs_max_devices] = {};
  const flash_driver_info* records[flashfs_max_devices] = {};
  for (size_t i = 0; i < devices_.size(); ++i) {
    handles[i] = devices_[i]->handle();
    records[i] = devices_[i]->driver();
  }
  output_capture dropped;
  const int32_t fsid =
      flashfs_initialize(handles, records, static_cast<int32_t>(devices_.size()), prefix);
  if (fsid >= 0) {
    fs_ = static_cast<flashfs*>(ifs_fsid_get_fs_context(static_cast<ppc_fsid_t>(fsid)));
  }
  return fsid;
}

int32_t flashfs_fixture::check(uint32_t flags) {
  output_capture capture;
  const int32_t result = ifs_ioctl(path_of("").c_str(), ioctl_check, &flags);
  const int error = errno;
  check_output_ = capture.take();
  errno = error;
  return result;
}

void flashfs_fixture::mount(uint32_t flags) {
  ASSERT_GE(initialize(), 0);
  ASSERT_EQ(check(flags), 0) << check_output_;
}

void flashfs_fixture::mount_new(size_t count, uint32_t size_bytes) {
  make_flash(ram_blocks(count, size_bytes));
  mount();
}

void flashfs_fixture::remount(uint32_t flags) {
  unmount();
  mount(flags);
}

void flashfs_fixture::unmount() {
  if (fs_ == nullptr) {
    return;
  }
  if (expect_no_buffers_out_) {
    EXPECT_EQ(fs_->sctr_bufs_allocated, 0U);
  }
  output_capture dropped;
  free_flashfs(fs_);
  fs_ = nullptr;
}

testing::AssertionResult flashfs_fixture::flash_is_consistent() {
  for (const uint32_t flags : {quick_check, full_check}) {
    unmount();
    std::vector<std::vector<uint8_t>> before;
    for (const auto& one : devices_) {
      before.push_back(one->flash().snapshot());
    }
    if (initialize() < 0 || check(flags) != 0) {
      return testing::AssertionFailure() << "check " << flags << " failed:\n" << check_output_;
    }
    for (size_t i = 0; i < devices_.size(); ++i) {
      const size_t offset = devices_[i]->flash().first_difference(before[i]);
      if (offset != devices_[i]->flash().size()) {
        return testing::AssertionFailure()
               << "check " << flags << " changed device " << i << " at offset " << offset << ":\n"
               << check_output_;
      }
    }
  }
  return testing::AssertionSuccess();
}

int flashfs_fixture::write_file(const std::string& path, const std::string& contents) {
  const int32_t fd =
      ifs_open(path_of(path).c_str(), ifs_open_write | ifs_open_create | ifs_open_truncate, 0);
  if (fd < 0) {
    return -1;
  }
  const auto length = static_cast<uint32_t>(contents.size());
  const int32_t written = length == 0 ? 0 : ifs_write_until(fd, contents.data(), length);
  const int write_error = errno;
  const int32_t closed = ifs_close(fd);
  if (written < 0) {
    errno = write_error;
  }
  return written < 0 || closed < 0 ? -1 : 0;
}

std::string flashfs_fixture::read_file(const std::string& path) {
  const int32_t fd = ifs_open(path_of(path).c_str(), ifs_open_read, 0);
  if (fd < 0) {
    return "<errno " + std::to_string(errno) + ">";
  }
  std::string contents;
  char part[4096];
  int32_t got;
  while ((got = ifs_read(fd, part, sizeof part)) > 0) {
    contents.append(part, static_cast<size_t>(got));
  }
  if (got < 0) {
    contents = "<errno " + std::to_string(errno) + ">";
  }
  ifs_close(fd);
  return contents;
}

}  // namespace test_support

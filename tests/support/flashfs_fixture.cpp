// Makes, mounts and gives back file systems for tests.
#include "tests/support/flashfs_fixture.h"

#include <cerrno>
#include <cstdint>
#include <initializer_list>

#include "sim/flash.h"
#include "tests/support/output_capture.h"

namespace test_support {

std::string contents_of(const volume::files& files, const std::string& path) {
  std::string contents;
  return files.read_file(path, &contents) == 0 ? contents : "<errno " + std::to_string(errno) + ">";
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
  files_.detach();
}

void flashfs_fixture::TearDown() {
  if (fs() != nullptr && expect_no_buffers_out_) {
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
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
  std::vector<volume::device> devices;
  for (const auto& one : devices_) {
    devices.push_back(device_of(*one));
  }
  output_capture dropped;
  return files_.attach(devices);
}

int32_t flashfs_fixture::check(uint32_t flags) {
  output_capture capture;
  const int32_t result = files_.check(flags);
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
  if (fs() != nullptr && expect_no_buffers_out_) {
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
  output_capture dropped;
  files_.detach();
}

testing::AssertionResult flashfs_fixture::flash_is_consistent() {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
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
  return files_.write_file(path, contents);
}

std::string flashfs_fixture::read_file(const std::string& path) {
  return contents_of(files_, path);
}

}  // namespace test_support

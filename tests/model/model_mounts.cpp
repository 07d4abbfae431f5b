// The steps of a run that concern the file system as a whole: checks, formats, new mounts and the
// copying of the raw image, and what a sequence must end with.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "tests/model/fs_model.h"
#include "tests/model/model_operation.h"
#include "tests/model/model_run.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace model_test {

namespace {

constexpr const char* device_path = "bootflash:";
constexpr const char* raw_path = "bootflash:...";

}  // namespace

std::vector<std::vector<uint8_t>> model_run::snapshot() {
  std::vector<std::vector<uint8_t>> contents;
  for (const auto& device : devices_) {
    contents.push_back(device->flash().snapshot());
  }
  return contents;
}

bool model_run::expect_unchanged(const std::vector<std::vector<uint8_t>>& before, const char* by) {
  for (size_t i = 0; i < devices_.size(); ++i) {
    const size_t offset = devices_[i]->flash().first_difference(before[i]);
    if (offset != devices_[i]->flash().size()) {
      return fail(std::string(by) + " changed device " + std::to_string(i) + " at offset " +
                  std::to_string(offset));
    }
  }
  return true;
}

bool model_run::settle(bool quick) {
  if (model_->unfinished() == nullptr) {
    return true;
  }
  const std::string wrong = model_->settle(sectors_on_flash(model_->unfinished()->fileid), quick);
  return wrong.empty() || fail(wrong);
}

bool model_run::play_check(uint32_t flags) {
  const bool settles = model_->unfinished() != nullptr;
  const bool must_not_change =
      !settles && (flags & flashfs_check_reclaim_all) == 0 && model_->open_count() == 0;
  const auto before =
      must_not_change ? snapshot() : std::vector<std::vector<uint8_t>>(devices_.size());
  seen_result checked = seen(files_.check(flags));
  checked.marked_down = false;
  const expected_result expected = model_->check();
  if (expected.error != 0) {
    return expect(checked, expected);
  }
  if (checked.result != 0) {
    return fail("the check failed: " + take_output());
  }
  return expect_check_output(flags, settles) && settle((flags & flashfs_check_quick) != 0) &&
         (!must_not_change || expect_unchanged(before, "the check")) && compare_maps() &&
         compare_space() && compare_flash();
}

bool model_run::play_format(const step& one) {
  seen_result formatted = seen(ifs_ioctl(device_path, static_cast<uint32_t>(one.a), nullptr));
  formatted.marked_down = false;
  const expected_result expected = model_->format();
  if (expected.error != 0) {
    return expect(formatted, expected);
  }
  if (formatted.result != 0) {
    return fail("formatting failed: " + take_output());
  }
  return expect_check_output(flashfs_check_full, false) && compare_flash();
}

bool model_run::play_remount(uint32_t flags) {
  const bool settles = model_->unfinished() != nullptr;
  drop_state();
  const auto before = snapshot();
  if (!mount(flags)) {
    return false;
  }
  model_->remount();
  counts_->fresh_mounts++;
  const bool may_change = settles || (flags & flashfs_check_reclaim_all) != 0;
  return expect_check_output(flags, settles) && settle((flags & flashfs_check_quick) != 0) &&
         (may_change || expect_unchanged(before, "a fresh mount")) && compare_maps() &&
         compare_space() && compare_flash();
}

// The bytes of all blocks that the file system uses, in order.
std::vector<uint8_t> model_run::image() {
  std::vector<uint8_t> bytes;
  for (const auto& device : devices_) {
    for (const flash_block_info& block : device->blocks()) {
      if (block.skip == 0) {
        const uint8_t* first = device->bytes() + block.offset;
        bytes.insert(bytes.end(), first, first + block.size);
      }
    }
  }
  return bytes;
}

bool model_run::play_raw_copy(uint32_t chunk) {
  if (!model_->ready()) {
    return true;
  }
  if (model_->open_count() != 0) {
    return expect(seen(ifs_open(raw_path, ifs_open_read, 0)), {-1, EBUSY, false, false});
  }
  return raw_copy(chunk);
}

bool model_run::raw_copy(uint32_t chunk) {
  const std::vector<uint8_t> whole = image();
  chunk = std::clamp<uint32_t>(chunk, 1000, 1U << 20);
  std::vector<uint8_t> copy(whole.size() + chunk);
  size_t length = 0;
  int32_t fd = ifs_open(raw_path, ifs_open_read, 0);
  for (int32_t got = 1;
       got > 0 && length<copy.size(); length += got> 0 ? static_cast<size_t>(got) : 0) {
    got = ifs_read(fd, copy.data() + length,
                   static_cast<uint32_t>(std::min<size_t>(chunk, copy.size() - length)));
  }
  if (length != whole.size() || !std::equal(whole.begin(), whole.end(), copy.begin())) {
    return fail("the raw image differs from the flash");
  }
  ppc_stat status;
  if (ifs_stat("bootflash:/", &status) != -1 || errno != EINVAL || ifs_close(fd) != 0) {
    return fail("the raw device was not alone");
  }
  if (!expect_output({"fsp not ready"}) || !compare_maps()) {
    return false;
  }
  fd = ifs_open(raw_path, ifs_open_read | ifs_open_write, 0);
  for (size_t done = 0; done < whole.size();) {
    const auto part = static_cast<uint32_t>(std::min<size_t>(chunk, whole.size() - done));
    if (ifs_write(fd, whole.data() + done, part) != static_cast<int32_t>(part)) {
      return fail("writing the raw image failed");
    }
    done += part;
  }
  if (ifs_close(fd) != 0) {
    return fail("closing the raw image failed: " + take_output());
  }
  model_->restart();
  return (image() == whole || fail("the flash differs from the raw image")) &&
         expect_check_output(flashfs_check_full, false) && compare_maps() && compare_space() &&
         compare_flash();
}

bool model_run::finish() {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    if (!play_remount(flags) || !compare_through_switch()) {
      return false;
    }
    if (fs_->sctr_bufs_allocated != 0) {
      return fail("sector buffers are out");
    }
  }
  // What a check had to settle is settled: from here on nothing may change.
  if (!play_remount(flashfs_check_quick)) {
    return false;
  }
  for (const auto& device : devices_) {
    if (device->deviations() != 0 || device->flash().bit_set_requests() != 0) {
      return fail("the flash saw deviations");
    }
  }
  return true;
}

}  // namespace model_test

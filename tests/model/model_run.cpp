// One run: the devices, the mounts, and what each step calls.
#include "tests/model/model_run.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "flashfs/vector.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"

namespace model_test {

namespace {

constexpr uint32_t largest_transfer = 64U << 20;

const char* const down_line = "flashfs[0]: filesystem marked down.  Use \"fsck\" to recover.";
const char* const time_line = "flashfs[0]: flashfs fsck took 0 seconds.";
const char* const name_line = "flashfs[0]: Cannot accept filenames longer than 45 characters.";
const char* const empty_block_line = "flashfs[0]: inconsistency during sector reclamation";
const char* const block_test = "flashfs[0]: testing block ";

bool starts_with(const std::string& text, const char* start) {
  return text.compare(0, std::strlen(start), start) == 0;
}

// Takes the markers " wS12" and " eS12" out.
std::string without_markers(const std::string& text) {
  std::string rest;
  for (size_t i = 0; i < text.size();) {
    if (text.compare(i, 3, " wS") != 0 && text.compare(i, 3, " eS") != 0) {
      rest += text[i++];
      continue;
    }
    i += 3;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      i++;
    }
  }
  return rest;
}

std::string error_text(int error) {
  return error == 0 ? "no error" : strerrorname_np(error);
}

uint32_t total_sectors(const geometry& shape) {
  uint32_t sum = 0;
  uint32_t largest = 0;
  for (const auto* device : {&shape.device_0, &shape.device_1}) {
    for (const test_support::ram_block& block : *device) {
      const uint32_t sectors =
          block.skip ? 0U
                     : (block.size - static_cast<uint32_t>(sizeof(flashfs_blkheader))) /
                           static_cast<uint32_t>(sizeof(flashfs_sector));
      sum += sectors;
      largest = std::max(largest, sectors);
    }
  }
  return sum - largest;
}

}  // namespace

model_run::model_run(const geometry& shape, run_counts* counts) : shape_(shape), counts_(counts) {
  sim::install_chassis(&clock_);
  clock_.clock_hold(now_);
  for (const auto* device : {&shape.device_0, &shape.device_1}) {
    if (!device->empty()) {
      devices_.push_back(std::make_unique<test_support::ram_flash>(*device, &supply_));
      record_.watch(*devices_.back());
    }
  }
  model_ = std::make_unique<fs_model>(total_sectors(shape), now_);
  mount(flashfs_check_quick);
  take_output();
}

model_run::~model_run() {
  drop_state();
  for (const auto& device : devices_) {
    counts_->erases += device->counts().erases;
  }
  sim::install_chassis(nullptr);
}

bool model_run::fail(const std::string& what) {
  if (failure_.empty()) {
    failure_ = what;
  }
  return false;
}

std::string model_run::take_output() {
  std::string text = output_.take();
  record_.add_text(text);
  return text;
}

std::string model_run::take_changes() {
  record_.add_memory(*fs_);
  return record_.take();
}

void model_run::drop_state() {
  files_.detach();
  fs_ = nullptr;
  take_output();
}

bool model_run::mount(uint32_t flags) {
  std::vector<volume::device> devices;
  for (const auto& device : devices_) {
    devices.push_back(test_support::device_of(*device));
  }
  if (files_.attach(devices) < 0) {
    return fail("attaching failed");
  }
  fs_ = files_.state();
  return files_.check(flags) == 0 || fail("mounting failed: " + take_output());
}

int32_t model_run::fd_of(uint32_t handle) const {
  static constexpr int32_t bad_descriptors[] = {127, -1, 128, 1000000, INT32_MIN, 126};
  const model_descriptor& descriptor = model_->descriptor(handle);
  return descriptor.is_open ? descriptor.fd : bad_descriptors[handle % std::size(bad_descriptors)];
}

seen_result model_run::seen(int32_t result, uint32_t handle) {
  seen_result seen;
  seen.result = result;
  seen.error = result < 0 ? errno : 0;
  record_.add_answer(seen.result, seen.error);
  seen.marked_down = model_->ready() && fs_->ready == 0;
  seen.collected_in_vain =
      shape_.has_empty_blocks && output_.peek().find(empty_block_line) != std::string::npos;
  if (handle < handle_count && model_->descriptor(handle).is_open) {
    const flashfs_sctr_map* file = filemap_lookup(fs_, model_->descriptor(handle).fileid);
    seen.file_sectors = file == nullptr ? 0 : sctr_list_length(file->sctr_list);
  }
  return seen;
}

bool model_run::expect(const seen_result& seen, const expected_result& expected) {
  if (seen.result != expected.result || (expected.result < 0 && seen.error != expected.error)) {
    return fail("returned " + std::to_string(seen.result) + " (" + error_text(seen.error) +
                "), must return " + std::to_string(expected.result) + " (" +
                error_text(expected.error) + "); free slots " +
                std::to_string(model_->free_slots()));
  }
  if (seen.marked_down != expected.marked_down) {
    return fail(seen.marked_down ? "marked the file system down" : "did not mark it down");
  }
  counts_->successes += seen.result >= 0 ? 1 : 0;
  if (seen.error == ENOSPC) {
    counts_->no_space[kind_name(current_)]++;
  }
  std::vector<std::string> lines;
  if (expected.name_message) {
    lines.emplace_back(name_line);
  }
  if (expected.marked_down) {
    lines.emplace_back(down_line);
  }
  return expect_output(lines);
}

bool model_run::expect_output(const std::vector<std::string>& lines) {
  const std::string text = take_output();
  std::vector<std::string> printed = test_support::lines_of(without_markers(text));
  printed.erase(std::remove_if(printed.begin(), printed.end(),
                               [this](const std::string& line) {
                                 return line.empty() ||
                                        (shape_.has_empty_blocks && line == empty_block_line);
                               }),
                printed.end());
  return printed == lines || fail("printed: " + text);
}

bool model_run::expect_check_output(uint32_t flags, bool settles) {
  const std::string text = take_output();
  std::vector<std::string> printed = test_support::lines_of(without_markers(text));
  if (printed.empty() || printed.back() != time_line) {
    return fail("the check printed: " + text);
  }
  printed.pop_back();
  for (const std::string& line : printed) {
    const bool is_test = (flags & flashfs_check_reclaim_all) != 0 && starts_with(line, block_test);
    const bool is_repair = settles && (starts_with(line, "flashfs[0]: inconsistent sector list") ||
                                       line.find("checksum (") != std::string::npos);
    if (!is_test && !is_repair) {
      return fail("the check printed: " + text);
    }
  }
  return true;
}

bool model_run::play(const step& one) {
  errno = 0;
  current_ = one.kind;
  counts_->steps++;
  played_++;
  const bool was_ready = model_->ready();
  if (!dispatch(one)) {
    return false;
  }
  if (was_ready && model_->down()) {
    counts_->went_down[kind_name(one.kind)]++;
  }
  if (fs_->sctr_bufs_allocated != 0) {
    return fail("sector buffers are out");
  }
  if (played_ % static_cast<uint64_t>(shape_.steps_per_map_comparison) == 0 &&
      (!compare_maps() || !compare_space())) {
    return false;
  }
  return played_ % static_cast<uint64_t>(shape_.steps_per_comparison) != 0 || compare_flash();
}

bool model_run::dispatch(const step& one) {
  switch (one.kind) {
    case step_kind::check:
      return play_check(static_cast<uint32_t>(one.a));
    case step_kind::remount:
      return play_remount(static_cast<uint32_t>(one.a));
    case step_kind::format:
      return play_format(one);
    case step_kind::raw_copy:
      return play_raw_copy(static_cast<uint32_t>(one.a));
    case step_kind::advance_clock:
      now_ += static_cast<uint32_t>(one.a);
      clock_.clock_hold(now_);
      model_->set_clock(now_);
      return true;
    case step_kind::compare:
      return compare_flash();
    case step_kind::open:
    case step_kind::open_by_id:
      return play_open(one);
    case step_kind::close:
    case step_kind::read:
    case step_kind::write:
    case step_kind::seek:
    case step_kind::truncate:
    case step_kind::getdents:
    case step_kind::fstat:
    case step_kind::fverify:
    case step_kind::file_name:
    case step_kind::file_info:
    case step_kind::file_control:
      return play_on_descriptor(one);
    default:
      return play_on_path(one);
  }
}

bool model_run::play_open(const step& one) {
  if (model_->descriptor(one.handle).is_open) {
    return true;
  }
  const auto oflags = static_cast<uint32_t>(one.a);
  const auto mode = static_cast<ppc_mode_t>(one.b);
  seen_result opened;
  expected_result expected;
  if (one.kind == step_kind::open) {
    opened = seen(ifs_open(files_.full_path(one.path).c_str(), oflags, mode));
    expected = model_->open(one.handle, one.path, oflags, mode, opened);
  } else {
    // No operation of the switch leads here, so what the switch does around an open is done here.
    ifs_open_file_increment(fs_->fsid);
    opened = seen(flashfs_operations.open_by_fileid(fs_->fsid, 0, static_cast<uint32_t>(one.a),
                                                    static_cast<uint32_t>(one.b), 0));
    if (opened.result < 0) {
      ifs_open_file_decrement(fs_->fsid);
    }
    expected = model_->open_by_id(one.handle, static_cast<uint32_t>(one.a),
                                  static_cast<uint32_t>(one.b), opened);
  }
  if (expected.result >= 0 && model_->descriptor(one.handle).raw) {
    opened.marked_down = false;  // not ready while the raw device is open, and nothing is wrong
  }
  return expect(opened, expected);
}

bool model_run::play_on_descriptor(const step& one) {
  const int32_t fd = fd_of(one.handle);
  switch (one.kind) {
    case step_kind::close: {
      const seen_result closed = seen(ifs_close(fd));
      return expect(closed, model_->close(one.handle));
    }
    case step_kind::read:
      return play_read(one);
    case step_kind::write:
      return play_write(one);
    case step_kind::seek: {
      const auto offset = static_cast<int32_t>(one.a);
      const auto whence = static_cast<int32_t>(one.b);
      const seen_result moved = seen(ifs_lseek(fd, offset, whence));
      return expect(moved, model_->seek(one.handle, offset, whence));
    }
    case step_kind::truncate: {
      auto length = static_cast<uint32_t>(one.a);
      const seen_result cut = seen(ifs_fioctl(fd, flashfs_fioctl_truncate, &length));
      return expect(cut, model_->truncate(one.handle, length, cut));
    }
    case step_kind::getdents:
      return play_getdents(one);
    case step_kind::fstat:
      return play_status(one);
    case step_kind::fverify:
      return expect(seen(ifs_fioctl(fd, flashfs_fioctl_verify, nullptr)), model_->look(one.handle));
    case step_kind::file_control: {
      uint32_t argument = 0;
      const seen_result refused = seen(ifs_fioctl(fd, static_cast<uint32_t>(one.a), &argument));
      const expected_result looked = model_->look(one.handle);
      return expect(refused, looked.error != 0 ? looked : model_->unknown_control());
    }
    default:
      return play_file_info(one);
  }
}

bool model_run::play_on_path(const step& one) {
  const std::string path = files_.full_path(one.path);
  const auto mode = static_cast<ppc_mode_t>(one.a);
  switch (one.kind) {
    case step_kind::chmod: {
      const seen_result changed = seen(ifs_chmod(path.c_str(), mode));
      return expect(changed, model_->chmod(one.path, mode, changed));
    }
    case step_kind::remove:
    case step_kind::rmdir: {
      const bool directory = one.kind == step_kind::rmdir;
      const seen_result gone = seen(directory ? ifs_rmdir(path.c_str()) : ifs_remove(path.c_str()));
      return expect(gone, model_->remove(one.path, directory, gone));
    }
    case step_kind::rename: {
      const std::string to = files_.full_path(one.second_path);
      const seen_result renamed = seen(ifs_rename(path.c_str(), to.c_str()));
      return expect(renamed, model_->rename(one.path, one.second_path, renamed));
    }
    case step_kind::mkdir: {
      const seen_result made = seen(ifs_mkdir(path.c_str(), mode));
      return expect(made, model_->mkdir(one.path, mode, made));
    }
    case step_kind::stat:
    case step_kind::istat:
      return play_status(one);
    case step_kind::statfs:
      return play_statfs(one);
    case step_kind::verify:
      return expect(seen(ifs_ioctl(path.c_str(), flashfs_ioctl_verify, nullptr)),
                    model_->verify(one.path));
    case step_kind::highest_id: {
      uint32_t highest = 0;
      uint32_t expected_id = 0;
      const seen_result told =
          seen(ifs_ioctl(path.c_str(), flashfs_ioctl_highest_fileid, &highest));
      const expected_result expected = model_->highest_id(&expected_id);
      return expect(told, expected) &&
             (expected.error != 0 || (highest & 0xFFFF) == expected_id || fail("wrong highest id"));
    }
    default: {
      uint32_t argument = 0;
      const auto code = static_cast<uint32_t>(one.a);
      return expect(seen(ifs_ioctl(path.c_str(), code, &argument)), model_->unknown_control());
    }
  }
}

bool model_run::play_read(const step& one) {
  const auto length = static_cast<uint32_t>(std::clamp<int64_t>(one.a, 0, largest_transfer));
  if (model_->descriptor(one.handle).raw) {
    return true;  // the raw device is read by raw_copy
  }
  std::vector<uint8_t> buffer(size_t{length} + 1);
  std::vector<uint8_t> expected_data;
  const seen_result got = seen(ifs_read(fd_of(one.handle), buffer.data(), length));
  const expected_result expected = model_->read(one.handle, length, &expected_data);
  if (!expect(got, expected)) {
    return false;
  }
  return std::equal(expected_data.begin(), expected_data.end(), buffer.begin()) ||
         fail("read other bytes");
}

bool model_run::play_write(const step& one) {
  const auto length = static_cast<uint32_t>(std::clamp<int64_t>(one.a, 0, INT32_MAX));
  const model_descriptor& descriptor = model_->descriptor(one.handle);
  const model_entry* entry = descriptor.is_open ? model_->find(descriptor.fileid) : nullptr;
  const bool appends = (descriptor.oflags & ifs_open_append) != 0 && entry != nullptr;
  const uint32_t position = appends ? entry->size() : descriptor.filepos;
  // What ends too far is refused before the data is looked at.
  const bool too_far = uint64_t{position} + length > INT32_MAX;
  if (length > largest_transfer && !too_far) {
    return true;  // would need that much memory
  }
  const std::vector<uint8_t> data = written_bytes(too_far ? 1 : length, one.b);
  const seen_result wrote = seen(ifs_write(fd_of(one.handle), data.data(), length), one.handle);
  const expected_result expected = model_->write(one.handle, data, length, wrote);
  if (wrote.result >= 0 && static_cast<uint32_t>(wrote.result) < length) {
    counts_->short_writes++;
  }
  return expect(wrote, expected);
}

bool model_run::play_getdents(const step& one) {
  const auto length = static_cast<uint32_t>(std::clamp<int64_t>(one.a, 0, 100000));
  std::vector<uint8_t> buffer(size_t{length} + 1);
  std::vector<ppc_dirent> records;
  const seen_result got = seen(ifs_getdents(fd_of(one.handle), buffer.data(), length));
  const expected_result expected = model_->getdents(one.handle, length, &records);
  if (!expect(got, expected)) {
    return false;
  }
  for (size_t i = 0; i < records.size(); ++i) {
    ppc_dirent actual;
    std::memcpy(&actual, buffer.data() + i * sizeof actual, sizeof actual);
    if (std::strcmp(actual.name, records[i].name) != 0 || actual.fileid != records[i].fileid ||
        actual.next_position != records[i].next_position ||
        actual.record_length != records[i].record_length) {
      return fail("listed \"" + std::string(actual.name) + "\" instead of \"" + records[i].name +
                  "\"");
    }
  }
  return true;
}

bool model_run::play_status(const step& one) {
  ppc_stat actual = {};
  ppc_stat expected_status = {};
  const std::string path = files_.full_path(one.path);
  seen_result told;
  expected_result expected;
  if (one.kind == step_kind::fstat) {
    told = seen(ifs_fstat(fd_of(one.handle), &actual));
    expected = model_->fstat(one.handle, &expected_status);
  } else if (one.kind == step_kind::istat) {
    const auto fileid = static_cast<uint32_t>(one.a);
    told = seen(ifs_istat(path.c_str(), fileid, &actual));
    expected = model_->istat(one.path, fileid, &expected_status);
  } else {
    told = seen(ifs_stat(path.c_str(), &actual));
    expected = model_->stat(one.path, &expected_status);
    if (!model_->ready()) {
      return told.result == -1 && told.error == EINVAL ? expect_output({"fsp not ready"})
                                                       : fail("stat while not ready");
    }
  }
  if (!expect(told, expected)) {
    return false;
  }
  const std::string differs = expected.error != 0 ? "" : difference(actual, expected_status);
  return differs.empty() || fail("status: " + differs);
}

bool model_run::play_statfs(const step& one) {
  ppc_statfs actual = {};
  ppc_statfs told_by_model = {};
  uint32_t free_sectors = fs_->num_available_sectors;
  for (int16_t b = 0; b < fs_->num_blocks; ++b) {
    if (b != fs_->available_block) {
      const flashfs_block& block = fs_->flashfs_blocks[b];
      free_sectors +=
          state_on_flash(b) == block_available ? block.num_sectors : block.invalid_sectors;
    }
  }
  const seen_result told = seen(ifs_statfs(files_.full_path(one.path).c_str(), &actual));
  const expected_result expected = model_->statfs(free_sectors == 0, &told_by_model);
  if (!expect(told, expected) || expected.error != 0) {
    return failure_.empty();
  }
  const bool same =
      actual.version == told_by_model.version && actual.block_size == told_by_model.block_size &&
      actual.total_blocks == told_by_model.total_blocks &&
      actual.free_blocks == told_by_model.free_blocks &&
      actual.total_fileids == told_by_model.total_fileids &&
      actual.free_fileids == told_by_model.free_fileids && actual.files == told_by_model.files &&
      actual.lost_fileids == told_by_model.lost_fileids && actual.fsid == fs_->fsid;
  return same ||
         fail("statfs: total " + std::to_string(actual.total_blocks) + " free " +
              std::to_string(actual.free_blocks) + " files " + std::to_string(actual.files) +
              "; must be " + std::to_string(told_by_model.total_blocks) + ", " +
              std::to_string(told_by_model.free_blocks) + ", " +
              std::to_string(told_by_model.files));
}

bool model_run::play_file_info(const step& one) {
  const int32_t fd = fd_of(one.handle);
  if (one.kind == step_kind::file_name) {
    flashfs_file_name record = {};
    const expected_result expected = model_->look(one.handle);
    if (!expect(seen(ifs_fioctl(fd, flashfs_fioctl_name, &record)), expected)) {
      return false;
    }
    return expected.error != 0 ||
           model_->find(model_->descriptor(one.handle).fileid)->name == record.name ||
           fail("wrong name: " + std::string(record.name));
  }
  flashfs_file_info record = {};
  record.reserved = 1;
  std::string path;
  uint32_t size = 0;
  const expected_result expected = model_->file_info(one.handle, &path, &size);
  if (!expect(seen(ifs_fioctl(fd, flashfs_fioctl_path_and_size, &record)), expected)) {
    return false;
  }
  return expected.error != 0 ||
         (path == record.path && size == record.size && record.reserved == 0) ||
         fail("wrong path or size: " + std::string(record.path));
}

}  // namespace model_test

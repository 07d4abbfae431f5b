// The operations whose driver calls fail in turn, and how each may end.
#include <functional>
#include <map>

#include "flashfs/control_codes.h"
#include "flashfs/operations.h"
#include "flashfs/vector.h"
#include "reliability/faults.h"

namespace reliability {

namespace {

constexpr uint32_t fileid_inner = 5;

const std::set<ending> marks_down = {ending::marked_down};
// When the list of sectors cannot grow, what stands of it is written; the caller writes the rest.
const std::set<ending> grows = {ending::marked_down, ending::no_space, ending::carries_on};
const std::set<ending> checks = {ending::check_fails};
// An orphan that cannot be named stays without a name until the next check.
const std::set<ending> relinks = {ending::check_fails, ending::carries_on};

const std::map<std::string, std::set<ending>>& endings_of_changes() {
  static const std::map<std::string, std::set<ending>> endings = {
      {"create with content", grows},
      {"append", grows},
      {"extend over a hole", grows},
      {"block into service", grows},
      {"date update", {ending::step_fails}},
      {"slot compaction", {ending::step_fails}},
      {"format", {ending::marked_down, ending::check_fails}},
      {"raw write", {ending::marked_down, ending::check_fails, ending::up_again}},
      {"relink an orphan", relinks},
      {"relink an orphan directory", relinks},
      {"repair: bad slot checksum", relinks},
      {"repair: bad file type", relinks},
      {"repair: illegal name", relinks},
  };
  return endings;
}

std::set<ending> endings_of_change(const std::string& name) {
  const auto found = endings_of_changes().find(name);
  if (found != endings_of_changes().end()) {
    return found->second;
  }
  return name.rfind("check", 0) == 0 || name.rfind("repair", 0) == 0 ? checks : marks_down;
}

using descriptor_use = std::function<int32_t(const volume::file&)>;

// Opens a path, does something with the descriptor and closes it.
std::function<int32_t(rig&)> with_descriptor(const char* path, uint32_t oflags,
                                             descriptor_use act) {
  return [path, oflags, act = std::move(act)](rig& flash) {
    volume::file opened = flash.files().open(path, oflags);
    return opened ? opened.close(act(opened)) : -1;
  };
}

int32_t read_all(const volume::file& opened) {
  uint8_t buffer[4096];
  int32_t got = 0;
  while ((got = opened.read(buffer, sizeof(buffer))) > 0) {
  }
  return got;
}

int32_t list_all(const volume::file& opened) {
  ppc_dirent entry;
  int32_t got = 0;
  while ((got = opened.read(&entry)) > 0) {
  }
  return got;
}

int32_t get_name(const volume::file& opened) {
  flashfs_file_name record;
  return ifs_fioctl(opened.fd(), flashfs_fioctl_name, &record);
}

int32_t get_path_and_size(const volume::file& opened) {
  flashfs_file_info record;
  return ifs_fioctl(opened.fd(), flashfs_fioctl_path_and_size, &record);
}

int32_t open_by_fileid(rig& flash) {
  const int32_t fd =
      flashfs_operations.open_by_fileid(flash.fs()->fsid, 0, fileid_inner, ifs_open_read, 0);
  return fd < 0 ? fd : ifs_close(fd);
}

void add_reading(const operation& files, const char* name, std::function<int32_t(rig&)> act,
                 std::vector<fault_operation>* all) {
  operation reading = files;
  reading.name = name;
  reading.touched = {};
  reading.act = std::move(act);
  all->push_back({reading, marks_down});
}

void add_readings(const operation& files, std::vector<fault_operation>* all) {
  add_reading(files, "list", with_descriptor("/", ifs_open_read, list_all), all);
  add_reading(files, "read", with_descriptor("d/inner", ifs_open_read, read_all), all);
  add_reading(
      files, "seek to the end",
      with_descriptor("file", ifs_open_read,
                      [](const volume::file& opened) { return opened.seek(0, ifs_seek_end); }),
      all);
  add_reading(
      files, "stat",
      [](rig&) {
        ppc_stat status;
        return ifs_stat("bootflash:d/inner", &status);
      },
      all);
  add_reading(files, "fstat",
              with_descriptor("file", ifs_open_read,
                              [](const volume::file& opened) {
                                ppc_stat status;
                                return opened.stat(&status);
                              }),
              all);
  add_reading(
      files, "istat",
      [](rig&) {
        ppc_stat status;
        return ifs_istat("bootflash:x", fileid_inner, &status);
      },
      all);
  add_reading(
      files, "statfs",
      [](rig&) {
        ppc_statfs space;
        return ifs_statfs("bootflash:", &space);
      },
      all);
  add_reading(files, "open by file id", open_by_fileid, all);
  add_reading(
      files, "verify a path", [](rig& flash) { return flash.files().verify("d/inner"); }, all);
  add_reading(
      files, "verify a directory", [](rig& flash) { return flash.files().verify(""); }, all);
  add_reading(files, "verify an open file",
              with_descriptor("file", ifs_open_read,
                              [](const volume::file& opened) {
                                return ifs_fioctl(opened.fd(), flashfs_fioctl_verify, nullptr);
                              }),
              all);
  add_reading(files, "name of an open file", with_descriptor("file", ifs_open_read, get_name), all);
  add_reading(files, "path and size of an open file",
              with_descriptor("d/inner", ifs_open_read, get_path_and_size), all);
}

void add_raw_reading(const operation& files, std::vector<fault_operation>* all) {
  add_reading(files, "raw read", with_descriptor("...", ifs_open_read, read_all), all);
  all->back().endings = {ending::up_again};
}

}  // namespace

std::vector<fault_operation> fault_operations() {
  const std::vector<operation> changes = power_cut_operations();
  std::vector<fault_operation> all;
  add_readings(changes.front(), &all);
  add_raw_reading(changes.front(), &all);
  for (const operation& each : changes) {
    all.push_back({each, endings_of_change(each.name)});
  }
  return all;
}

}  // namespace reliability

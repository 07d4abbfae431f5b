// Open files, listings, walks and whole files through the switch.
#include "volume/files.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <set>
#include <utility>

#include "flashfs/control_codes.h"
#include "flashfs/flashfs.h"

namespace volume {

namespace {

constexpr uint32_t piece_size = 4096;  // bytes of a read of a whole file

std::string joined(std::string_view directory, std::string_view name) {
  std::string path(directory);
  if (!path.empty()) {
    path += '/';
  }
  return path.append(name);
}

std::string_view without_slashes_at_the_end(std::string_view path) {
  while (!path.empty() && path.back() == '/') {
    path.remove_suffix(1);
  }
  return path;
}

}  // namespace

file::~file() {
  if (fd_ >= 0) {
    ifs_close(fd_);
  }
}

file::file(file&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

file& file::operator=(file&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

int32_t file::read(void* buffer, uint32_t length) const {
  return ifs_read(fd_, buffer, length);
}

int32_t file::read(ppc_dirent* record) const {
  return ifs_getdents(fd_, record, sizeof(*record));
}

int32_t file::write(std::string_view bytes) const {
  const auto length = static_cast<uint32_t>(bytes.size());
  return length == 0 || ifs_write_until(fd_, bytes.data(), length) >= 0 ? 0 : -1;
}

int32_t file::seek(int32_t offset, int32_t whence) const {
  return ifs_lseek(fd_, offset, whence);
}

int32_t file::truncate(uint32_t length) const {
  return ifs_fioctl(fd_, flashfs_fioctl_truncate, &length);
}

int32_t file::stat(ppc_stat* status) const {
  return ifs_fstat(fd_, status);
}

int32_t file::close(int32_t result) {
  const int error = errno;
  const int32_t closed = ifs_close(std::exchange(fd_, -1));
  if (result >= 0) {
    return closed;
  }
  errno = error;
  return result;
}

std::string files::full_path(std::string_view path) const {
  return start_ + std::string(path);
}

int32_t files::check(uint32_t flags) const {
  return ifs_ioctl(start_.c_str(), flashfs_ioctl_check, &flags);
}

int32_t files::format() const {
  return ifs_ioctl(start_.c_str(), flashfs_ioctl_format, nullptr);
}

int32_t files::verify(std::string_view path) const {
  return ifs_ioctl(full_path(path).c_str(), flashfs_ioctl_verify, nullptr);
}

file files::open(std::string_view path, uint32_t oflags, uint32_t mode) const {
  return file(ifs_open(full_path(path).c_str(), oflags, mode));
}

int32_t files::stat(std::string_view path, ppc_stat* status) const {
  return ifs_stat(full_path(path).c_str(), status);
}

int32_t files::statfs(ppc_statfs* space) const {
  return ifs_statfs(start_.c_str(), space);
}

int32_t files::rename(std::string_view old_path, std::string_view new_path) const {
  return ifs_rename(full_path(old_path).c_str(), full_path(new_path).c_str());
}

int32_t files::remove(std::string_view path) const {
  return ifs_remove(full_path(path).c_str());
}

int32_t files::mkdir(std::string_view path, uint32_t mode) const {
  return ifs_mkdir(full_path(path).c_str(), mode);
}

int32_t files::rmdir(std::string_view path) const {
  return ifs_rmdir(full_path(path).c_str());
}

int32_t files::chmod(std::string_view path, uint32_t mode) const {
  return ifs_chmod(full_path(path).c_str(), mode);
}

int32_t files::truncate(std::string_view path, uint32_t length) const {
  file opened = open(path, ifs_open_write);
  return opened ? opened.close(opened.truncate(length)) : -1;
}

int32_t files::set_date(std::string_view path, uint32_t date) const {
  flashfs* fs = flashfs_get_fsp(start_.c_str());
  return fs == nullptr ? -1 : flashfs_set_date(fs, std::string(path).c_str(), date);
}

int32_t files::list(std::string_view directory, std::vector<entry>* found) const {
  const std::string_view base = without_slashes_at_the_end(directory);
  file listed = open(std::string(base) + "/", ifs_open_read);
  if (!listed) {
    return -1;
  }
  ppc_dirent record;
  int32_t got = 0;
  while ((got = listed.read(&record)) > 0) {
    entry one = {record.name, {}, 0};
    if (stat(joined(base, record.name), &one.status) != 0) {
      one.error = errno;
      one.status = {};
      one.status.fileid = record.fileid;
    }
    found->push_back(std::move(one));
  }
  return listed.close(got);
}

int32_t files::walk(std::string_view directory, std::vector<entry>* found) const {
  const std::string base(without_slashes_at_the_end(directory));
  std::set<uint32_t> entered = {fileid_root};
  if (ppc_stat status; !base.empty()) {
    if (stat(base, &status) != 0) {
      return -1;
    }
    entered.insert(status.fileid);
  }
  int first_error = 0;
  std::vector<std::string> waiting = {""};  // the next one last
  while (!waiting.empty()) {
    const std::string at = std::move(waiting.back());
    waiting.pop_back();
    std::vector<entry> held;
    if (list(at.empty() ? base : joined(base, at), &held) != 0 && first_error == 0) {
      first_error = errno;
    }
    std::vector<std::string> directories;
    for (entry& one : held) {
      one.path = joined(at, one.path);
      if (one.is_directory() && entered.insert(one.status.fileid).second) {
        directories.push_back(one.path);
      }
      found->push_back(std::move(one));
    }
    waiting.insert(waiting.end(), directories.rbegin(), directories.rend());
  }
  errno = first_error != 0 ? first_error : errno;
  return first_error == 0 ? 0 : -1;
}

int32_t files::read_file(std::string_view path, std::string* contents) const {
  file opened = open(path, ifs_open_read);
  if (!opened) {
    contents->clear();
    return -1;
  }
  // Straight into the text, as long as it was before: who reads many files into one does not wait
  // for it to grow.
  size_t filled = 0;
  int32_t got = 0;
  do {
    filled += static_cast<size_t>(got);
    if (filled == contents->size()) {
      contents->resize(filled + piece_size);
    }
    const size_t room = std::min<size_t>(contents->size() - filled, piece_size);
    got = opened.read(contents->data() + filled, static_cast<uint32_t>(room));
  } while (got > 0);
  contents->resize(filled);
  return opened.close(got);
}

int32_t files::write_file(std::string_view path, std::string_view contents, uint32_t oflags,
                          int32_t position) const {
  file opened = open(path, oflags);
  if (!opened) {
    return -1;
  }
  int32_t result = position == 0 ? 0 : opened.seek(position);
  if (result >= 0) {
    result = opened.write(contents);
  }
  return opened.close(result);
}

}  // namespace volume

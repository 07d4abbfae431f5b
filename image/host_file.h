// Files of the host: descriptors, reading and writing with one rule about signals, and files that
// are written whole or not at all. The contents go into a temporary file beside the target, which
// takes its name when they are complete; so whatever happens, the old file is there or the new. A
// dry run asks here, and only here, whether a file could be written.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace image {

// A descriptor that is closed at the end of its scope; below 0: none.
class descriptor {
 public:
  explicit descriptor(int number = -1) : number_(number) {}
  ~descriptor();
  descriptor(descriptor&& other) noexcept : number_(other.release()) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  int get() const {
    return number_;
  }
  explicit operator bool() const {
    return number_ >= 0;
  }
  int release() {
    return std::exchange(number_, -1);
  }

 private:
  int number_;
};

// As read(2), which nothing interrupts but a signal that ends the run: then it is -1 with EINTR,
// however long nothing comes.
[[nodiscard]] ssize_t read_some(int from, void* to, size_t size);
// All up to the end, in place of what `to` holds; `expected` bytes, should the caller know. False
// with errno: EFBIG when there are more than `most`.
[[nodiscard]] bool read_to_end(int from, std::string* to, size_t most, size_t expected = 0);
// All of it. False with errno, EINTR after a signal that ends the run.
[[nodiscard]] bool write_all(int to, std::span<const uint8_t> bytes);
[[nodiscard]] bool write_all(int to, std::string_view bytes);
// The same at a place of a file. What lies beyond the end cannot be read: EIO.
[[nodiscard]] bool write_all_at(int to, off_t offset, std::span<const uint8_t> bytes);
[[nodiscard]] bool read_all_at(int from, off_t offset, std::span<uint8_t> bytes);

// What makes two names one file.
struct file_identity {
  dev_t device;
  ino_t inode;
  bool operator==(const file_identity&) const = default;
};

// Which file a folder's entry is; a link is the link. Nothing when it is none.
[[nodiscard]] std::optional<file_identity> identity_at(int folder, const std::string& name);

struct file_options {
  bool replaces = false;                     // what is there, if it is a file
  const char* refusal = "is there already";  // told if not
  // Not durable, a file that was not there is left to the system to write to disk, as with a copy:
  // that is most of the time that it takes, and nothing old can be lost.
  bool durable = true;
  bool dry_run = false;                     // only tells whether it can be
  std::optional<file_identity> never = {};  // the file that must stay, whatever its name
  std::optional<uint32_t> mode = {};        // none: the old file's, or what the umask leaves
  std::optional<uint32_t> date = {};        // seconds since 1970; none: now
};

// A file that is being written: until it is finished it lies beside its name under another one, and
// without that it is gone with this object. For what is looked at before it takes its name.
class unfinished_file {
 public:
  // As write_file, but for "-" and dry runs. Nothing, with the reason, when it cannot be made.
  static std::optional<unfinished_file> begin(const std::string& path, const file_options& options,
                                              std::string* why);
  // As replace_file.
  static std::optional<unfinished_file> begin_in_place_of(int opened, const std::string& path,
                                                          std::string* why);
  ~unfinished_file();
  unfinished_file(unfinished_file&& other) noexcept;
  unfinished_file& operator=(unfinished_file&& other) noexcept;

  // Open to be read and written.
  int get() const;
  // It gets its date and its name. False, with the reason, when that cannot be; as write_file.
  [[nodiscard]] bool finish(std::string* why);

 private:
  class temporary_file;
  unfinished_file(std::unique_ptr<temporary_file> made, std::string path, file_options options);

  std::unique_ptr<temporary_file> made_;
  std::string path_;
  file_options options_;
};

// Says why something cannot be; false. The second one adds the text of errno.
bool refuse(std::string* why, const std::string& what);
bool refuse_errno(std::string* why, const std::string& what);

// Writes what a file is to hold. Returns what is wrong, for a person, or nothing.
using file_writer = std::function<std::string(int to)>;

// Makes a file. "-" is standard output. False, with the reason in `*why`, when that cannot be; then
// all is as it was. (One case is left: when only the folder could not be written to disk, either
// may be there after a power cut.)
[[nodiscard]] bool write_file(const std::string& path, const file_writer& contents,
                              const file_options& options, std::string* why);
[[nodiscard]] bool write_file(const std::string& path, std::span<const uint8_t> contents,
                              const file_options& options, std::string* why);
// Puts other contents in place of an open file, of which the path has no links, with its mode and
// owner.
[[nodiscard]] bool replace_file(int opened, const std::string& path,
                                std::span<const uint8_t> contents, bool dry_run, std::string* why);

// Why bytes that are no text cannot go there: standard output ("-") is a terminal, or has the
// document. Empty when they can.
[[nodiscard]] std::string objection_to_output(const std::string& path, bool json);

// Whether files can be made in a folder; errno if not.
[[nodiscard]] bool can_make_files_in(int folder);

}  // namespace image

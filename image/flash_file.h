// Images as files. Who reads one shares its lock, who changes one has it alone, and both hold the
// file that the name stands for when they have the lock: it may have been replaced while they
// waited. A file is never written in place. The new contents go into a temporary file beside it,
// which takes its name when it is safely on disk; so whatever happens, the old contents are there
// or the new.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace image {

class flash_file {
 public:
  enum class access { read, edit };

  // Opens the image ("-": standard input, to read only), following symbolic links, and locks it,
  // waiting for that at most so long. Nothing, with the reason in `*why`, when that cannot be:
  // also for what is neither a file nor standard input.
  static std::optional<flash_file> open(const std::string& path, access wanted,
                                        double timeout_seconds, std::string* why);
  ~flash_file();
  flash_file(flash_file&& other) noexcept;
  flash_file& operator=(flash_file&& other) noexcept;

  // The contents as they are in the file. They are looked at, not read: what nobody asks for costs
  // nothing.
  std::span<const uint8_t> contents() const {
    return {bytes_, size_};
  }
  // The same to be changed at will: nobody else sees it.
  std::optional<std::span<uint8_t>> private_view(std::string* why);

  // Puts other contents in place of the file, with its mode and owner. False, with the reason, when
  // that cannot be; then the file is as it was. (One case is left: when only the folder could not
  // be written to disk, either may be there after a power cut.)
  [[nodiscard]] bool replace(std::span<const uint8_t> contents, std::string* why) const;

 private:
  flash_file() = default;

  std::string real_path_;  // behind all symbolic links
  int descriptor_ = -1;
  const uint8_t* bytes_ = nullptr;
  size_t size_ = 0;
  uint8_t* view_ = nullptr;
  std::vector<uint8_t> input_;  // of standard input
};

// Makes a file of its own, by way of a temporary one, too. Unless `replacing`, it must not be there
// yet. "-" is standard output.
[[nodiscard]] bool write_new_file(const std::string& path, std::span<const uint8_t> contents,
                                  bool replacing, std::string* why);

}  // namespace image

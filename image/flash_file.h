// Images as files. Who reads one shares its lock, who changes one has it alone, and both hold the
// file that the name stands for when they have the lock: it may have been replaced while they
// waited. A file is never written in place: see host_file.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "image/host_file.h"

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
    return {bytes_ != nullptr ? bytes_ : reinterpret_cast<const uint8_t*>(input_.data()), size_};
  }
  // The same to be changed at will: nobody else sees it.
  std::optional<std::span<uint8_t>> private_view(std::string* why);

  // Which file it is, by whatever name, standard input included.
  std::optional<file_identity> identity() const;

  // Puts other contents in place of the file, with its mode and owner, unless it is a dry run.
  // False, with the reason, when that cannot be; then the file is as it was, as far as replace_file
  // says.
  [[nodiscard]] bool replace(std::span<const uint8_t> contents, bool dry_run,
                             std::string* why) const;
  // The same for contents that are still to be made.
  std::optional<unfinished_file> begin_to_replace(std::string* why) const;

 private:
  flash_file() = default;

  std::string real_path_;           // behind all symbolic links
  descriptor opened_;               // none: standard input
  const uint8_t* bytes_ = nullptr;  // mapped
  size_t size_ = 0;
  uint8_t* view_ = nullptr;
  std::string input_;  // of standard input
};

}  // namespace image

// The real file system over an image in memory: the same code that runs on the board, which sees a
// flash and knows nothing of files.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "image/geometry.h"
#include "image/memory_flash.h"
#include "volume/volume.h"

namespace image {

class mounted {
 public:
  // The bytes are as many as the geometry has, and live as long as this object. Nothing is read.
  mounted(std::span<uint8_t> bytes, const geometry& layout);

  // Mounts what the bytes hold now, repairing them, with flags of flashfs/check_flags.h. False when
  // the check cannot make the file system usable.
  [[nodiscard]] bool check(uint32_t flags);
  // Erases every block of the file system, with its history, and checks.
  [[nodiscard]] bool format();

  const volume::file_system& files() const {
    return system_;
  }
  bool is_ready() const {
    return system_.is_ready();
  }
  memory_flash& flash() {
    return flash_;
  }
  // What the file system said in the latest check or formatting.
  const std::vector<std::string>& said() const {
    return said_;
  }

 private:
  [[nodiscard]] bool attach();

  memory_flash flash_;
  volume::file_system system_;
  std::vector<std::string> said_;
};

}  // namespace image

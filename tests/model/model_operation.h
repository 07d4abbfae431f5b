// One recorded step of a model run and its text form, in which failing sequences are printed, kept
// as regressions and played again. It knows neither the model nor the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace model_test {

enum class step_kind : uint8_t {
  open,           // handle, path, flags, mode
  open_by_id,     // handle, file id, flags
  close,          // handle
  read,           // handle, bytes
  write,          // handle, bytes, fill
  seek,           // handle, offset, whence
  truncate,       // handle, bytes
  getdents,       // handle, bytes of buffer
  fstat,          // handle
  fverify,        // handle
  file_name,      // handle
  file_info,      // handle
  file_control,   // handle, a code that the file system does not know
  chmod,          // path, mode
  remove,         // path
  rename,         // path, second path
  mkdir,          // path, mode
  rmdir,          // path
  stat,           // path
  istat,          // path, file id
  statfs,         // path
  verify,         // path
  highest_id,     // path
  path_control,   // path, a code that the file system does not know
  format,         // code 6 or 10
  check,          // flags
  remount,        // flags of the check
  raw_copy,       // bytes of each transfer: the image is read and written back
  advance_clock,  // seconds
  compare,        // everything on flash with everything in the model
};
constexpr size_t step_kinds = static_cast<size_t>(step_kind::compare) + 1;

// Handles name descriptors across a sequence, so that steps can be left out.
constexpr uint32_t handle_count = 12;

struct step {
  step_kind kind = step_kind::compare;
  uint32_t handle = 0;
  std::string path;
  std::string second_path;
  int64_t a = 0;
  int64_t b = 0;
};

const char* kind_name(step_kind kind);
// "open 3 dir/name 0x30a 0x1ff"
std::string to_text(const step& one);
std::optional<step> step_from_text(std::string_view line);
// Steps separated by newlines; a line that is no step is left out and ends up in `*bad`.
std::vector<step> steps_from_text(std::string_view text, std::string* bad);

// The bytes that a write step with this fill writes.
std::vector<uint8_t> written_bytes(size_t length, int64_t fill);

}  // namespace model_test

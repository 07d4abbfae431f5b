// Judging and writing new images.
#include "image/new_image.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "flashfs/format.h"
#include "image/flash_file.h"
#include "image/host_file.h"
#include "image/interrupt.h"

namespace image {

namespace {

bool replace_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                   bool dry_run, std::string* why) {
  const std::optional<flash_file> old =
      flash_file::open(planned.name, flash_file::access::edit, all.lock_timeout_seconds, why);
  return old && old->replace(bytes, dry_run, why);
}

// Writes it, or only tries. False after a message, or a signal.
bool write(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
           bool dry_run, report& out) {
  // An empty file is no image that anybody could be at work on.
  struct stat there = {};
  const bool replacing = planned.force && planned.name != "-" &&
                         stat(planned.name.c_str(), &there) == 0 && there.st_size != 0;
  const file_options how = {.replaces = planned.force,
                            .refusal = "is there already; --force replaces it",
                            .durable = false,
                            .dry_run = dry_run};
  std::string why;
  if (replacing ? replace_image(planned, bytes, all, dry_run, &why)
                : write_file(planned.name, bytes, how, &why)) {
    return true;
  }
  if (!interrupted()) {
    out.fail(exit_status::failed, why, planned.name);
  }
  return false;
}

}  // namespace

std::optional<geometry> plan_new_image(const new_image& planned, const globals& all, report& out) {
  if (const std::string why = objection_to_output(planned.name, all.json); !why.empty()) {
    out.fail(exit_status::usage, why);
    return std::nullopt;
  }
  // The work may be long: what it ends with is tried before.
  if (!write(planned, {}, all, true, out)) {
    return std::nullopt;
  }
  if (all.geometry.empty()) {
    return default_geometry();
  }
  std::string why;
  std::optional<geometry> given = parse_geometry(all.geometry, &why);
  if (!given) {
    out.fail(exit_status::usage, "--geometry: " + why);
  }
  return given;
}

std::vector<uint8_t> erased_flash(const geometry& layout) {
  const auto size = static_cast<size_t>(size_bytes(layout));
  std::vector<uint8_t> bytes;
  bytes.reserve(size);
#ifdef MADV_HUGEPAGE
  // Large pages, if the system has some: a fault for each small one takes longer than the filling.
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(bytes.data()) + page - 1) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(bytes.data()) + size) & ~(page - 1);
  if (begin < end) {
    static_cast<void>(madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE));
  }
#endif
  bytes.resize(size, flash_erased_byte);
  return bytes;
}

bool write_new_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                     report& out) {
  return write(planned, bytes, all, all.dry_run, out);
}

}  // namespace image

#include "image/image_summary.h"

#include <span>
#include <string>

#include "flashfs/check_flags.h"
#include "image/check_report.h"
#include "image/interrupt.h"
#include "image/mounted.h"

namespace image {

std::optional<mounted_space> measure_space(opened_image& opened, const records& before,
                                           const globals& all, report& out) {
  std::string why;
  const std::optional<std::span<uint8_t>> view = opened.private_view(&why);
  if (!view) {
    out.fail(exit_status::failed, why, opened.name);
    return std::nullopt;
  }
  mounted system(*view, opened.layout);
  mounted_space space;
  space.mounts = system.check(all.full ? flashfs_check_full : flashfs_check_quick);
  space.changes = system.flash().changed();
  ppc_statfs told = {};
  if (space.mounts && system.files().statfs(&told) == 0) {
    space.total = uint64_t{told.total_blocks} * told.block_size;
    space.available = uint64_t{told.free_blocks} * told.block_size;
  }
  if (space.changes || !space.mounts) {
    const records after = read_records(*view, opened.layout);
    space.check_does = report_check({.before = before,
                                     .after = after,
                                     .passed = space.mounts,
                                     .lines = system.said(),
                                     .mounted = space.mounts ? &system.files() : nullptr});
  }
  return interrupted() ? std::nullopt : std::optional(space);
}

entry_counts count_entries(const records& all) {
  entry_counts counts;
  for (const auto& [id, entry] : all.entries) {
    if (!entry.is_reached) {
      counts.orphans += entry.is_orphan ? 1 : 0;
    } else if (id != fileid_root) {
      (entry.is_directory ? counts.directories : counts.files)++;
      counts.contents += entry.is_directory ? 0 : entry.size;
    }
  }
  return counts;
}

erase_counts count_erases(const records& all) {
  erase_counts counts;
  for (const block_record& block : all.blocks) {
    if (block.header != nullptr && block.verdict == header_verdict::good) {
      counts.add(block.number, block.header->erase_count);
    }
  }
  return counts;
}

}  // namespace image

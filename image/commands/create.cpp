// create: makes a new image, with the files of a folder or an archive in it. The same files give
// the same bytes: all that is written carries the dates of the source, and every block is new.
#include <algorithm>
#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>

#include "flashfs/check_flags.h"
#include "flashfs/format.h"
#include "image/clock.h"
#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/mounted.h"
#include "image/new_image.h"
#include "image/source.h"
#include "image/space.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct create_options {
  new_image made;
  std::string from;
};

std::vector<uint32_t> sizes_of_usable_blocks(const geometry& layout) {
  std::vector<uint32_t> sizes;
  for (const flash_block_info& block : block_table(layout)) {
    if (block.skip == 0) {
      sizes.push_back(block.size);
    }
  }
  return sizes;
}

// The date of the newest file, which the blocks get, too; none: today's.
std::optional<uint32_t> newest_date(const tree& planned) {
  std::optional<uint32_t> newest = planned.root_mtime;
  for (const tree_entry& entry : planned.entries) {
    newest = std::max(newest.value_or(1), entry.mtime);
  }
  return newest;
}

// Filling an image to its last sectors reclaims blocks. No flash has been erased for that yet: the
// counts, which no checksum covers, begin at 0.
void forget_erasures(std::span<uint8_t> bytes, const geometry& layout) {
  for (const flash_block_info& block : block_table(layout)) {
    if (block.skip == 0) {
      std::fill_n(bytes.begin() + block.offset + offsetof(flashfs_blkheader, erase_count),
                  sizeof(flashfs_blkheader::erase_count), uint8_t{0});
    }
  }
}

// As result_is_sound of session.h, but where it is: a check that has anything to change ends here.
bool passes_check(mounted* made, report& out) {
  const bool passed = made->check(flashfs_check_full);
  if (!interrupted() && (!passed || made->flash().changed())) {
    out.fail(exit_status::failed, "the result does not pass the full check, so nothing is written");
  }
  return passed && !made->flash().changed() && !interrupted();
}

// Into erased bytes. False after a message, or when a signal has come.
bool fill(const tree& planned, const geometry& layout, std::span<uint8_t> bytes, report& out) {
  clock_set(newest_date(planned));
  mounted made(bytes, layout);
  made.flash().is_all_erased();
  if (!made.format()) {
    out.fail(exit_status::failed, "no file system can be made in this geometry");
    return false;
  }
  const std::string fault =
      write_volume(planned, made.files(), [&out](uint64_t done, uint64_t total) {
        out.progress("writing", done, total);
        return !interrupted();
      });
  clock_set(std::nullopt);
  if (!fault.empty() && !interrupted()) {
    out.fail(exit_status::failed, fault);
  }
  forget_erasures(bytes, layout);
  return fault.empty() && passes_check(&made, out);
}

void tell(const tree& planned, const geometry& layout, report& out) {
  const tree_sum sum = sum_of(planned);
  const uint64_t needed = space_for(planned).sectors();
  const uint64_t there = sectors_of_blocks(sizes_of_usable_blocks(layout));
  out.result()["files"] = sum.files;
  out.result()["directories"] = sum.folders;
  out.result()["bytes"] = sum.bytes;
  out.result()["sectors"] = needed;
  out.result()["sectors_there"] = there;
  out.detail(std::to_string(sum.files) + " files, " + std::to_string(sum.folders) +
             " directories, " + std::to_string(sum.bytes) + " bytes; " + std::to_string(needed) +
             " of " + std::to_string(there) + " sectors");
}

void run(const create_options& options, const globals& all, report& out) {
  const std::optional<geometry> layout = plan_new_image(options.made, all, out);
  if (!layout) {
    return;
  }
  const std::vector<uint32_t> sizes = sizes_of_usable_blocks(*layout);
  std::optional<tree> planned = tree();
  if (!options.from.empty()) {
    // What is more cannot fit: then sizes are enough for the message.
    planned = read_source(
        options.from,
        {.contents_limit = sectors_of_blocks(sizes) * sector_data_size, .large_files_later = true},
        out);
  }
  if (!planned || interrupted()) {
    return;
  }
  if (const std::string fault = space_fault(*planned, sizes); !fault.empty()) {
    out.fail(exit_status::failed, "it does not fit: " + fault, options.from);
    return;
  }
  std::vector<uint8_t> bytes = erased_flash(*layout);
  if (!fill(*planned, *layout, bytes, out)) {
    return;
  }
  if (write_new_image(options.made, bytes, all, out)) {
    tell(*planned, *layout, out);
  }
}

}  // namespace

command create_command() {
  auto options = std::make_shared<create_options>();
  return {"create", "Makes a new image",
          "flashfs-image create boot.img --from folder\n"
          "tar -c -C folder . | flashfs-image create boot.img --from -",
          [options](arguments& take) {
            take.word("IMAGE", &options->made.name, "The new image, '-' for standard output");
            take.option("--from", "SOURCE", &options->from,
                        "A folder or a tar archive with its files, '-' for an archive from "
                        "standard input; else it is empty");
            take.flag("--force", &options->made.force, "Replace an image that is there");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image

// create: makes a new image, with the files of a folder or an archive in it. The same files give
// the same bytes: all that is written carries the dates of the source, and every block is new.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "image/clock.h"
#include "image/commands/commands.h"
#include "image/fresh_flash.h"
#include "image/image_draft.h"
#include "image/interrupt.h"
#include "image/new_image.h"
#include "image/session.h"
#include "image/source.h"
#include "image/space.h"
#include "image/volume_tree.h"
#include "volume/volume.h"

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

// What has kept it from being written, unless that was a signal.
void tell_fault(const image_draft& made, const std::string& name, report& out) {
  if (!interrupted()) {
    out.fail(exit_status::failed, made.fault(), name);
  }
}

// Into a flash that is erased. What is wrong, for a person, or nothing.
std::string fill(const tree& planned, const fresh_flash& flash, report& out) {
  volume::file_system system("new");
  if (system.attach({{flash.driver(), flash.handle()}}) < 0 || system.files::format() != 0) {
    return "no file system can be made in this geometry";
  }
  return write_volume(planned, system, [&out](uint64_t done, uint64_t total) {
    out.progress("writing", done, total);
    return !interrupted();
  });
}

// All of it: files, and what is erased. False after a message, or when a signal has come.
bool fill(const tree& planned, const geometry& layout, const std::string& name, image_draft* made,
          report& out) {
  fresh_flash flash(layout, made);
  clock_set(newest_date(planned));
  const std::string fault = fill(planned, flash, out);
  clock_set(std::nullopt);
  if ((fault.empty() && !flash.finish()) || !made->fault().empty()) {
    tell_fault(*made, name, out);
    return false;
  }
  if (!fault.empty() && !interrupted()) {
    out.fail(exit_status::failed, fault);
  }
  return fault.empty();
}

// False after a message, or when a signal has come.
bool make(const tree& planned, const geometry& layout, const new_image& target, const globals& all,
          report& out) {
  std::optional<image_draft> made =
      image_draft::begin(target, static_cast<size_t>(size_bytes(layout)), all, out);
  if (!made || !fill(planned, layout, target.name, &*made, out)) {
    return false;
  }
  const std::optional<std::span<uint8_t>> view = made->private_view();
  if (view && !result_is_sound(*view, layout, out)) {
    return false;
  }
  if (!view || !made->finish()) {
    tell_fault(*made, target.name, out);
    return false;
  }
  return true;
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
  if (make(*planned, *layout, options.made, all, out)) {
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

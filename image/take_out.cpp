// Judging the names, writing, telling what came of it.
#include "image/take_out.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "image/extraction.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/tar.h"
#include "image/volume_tree.h"

namespace image {

namespace {

// Without --keep-going what is missing is a fault; with it something left out, as was asked.
void tell_missing(const host_place& to, exit_status status,
                  const std::vector<tree_problem>& problems, report& out) {
  for (const tree_problem& one : problems) {
    out.fail(to.keep_going ? exit_status::partial : status, one.text, told_path(one.path));
  }
}

void to_folder(const host_place& to, const globals& all, const tree& found, report& out) {
  const extraction done = extract_tree(
      found, to.folder,
      {.force = to.force, .keep_going = to.keep_going, .dry_run = all.dry_run, .never = to.never});
  if (interrupted()) {
    return;
  }
  for (const tree_problem& one : done.warnings) {
    out.warn(codes::advice, one.text, told_path(one.path));
  }
  if (done.refused) {
    for (const tree_problem& one : done.errors) {
      out.fail(exit_status::failed, one.text, one.path);
    }
    return;
  }
  tell_missing(to, exit_status::failed, done.errors, out);
  tell_written(done.files, done.folders, done.bytes, out);
}

void to_archive(const host_place& to, const globals& all, tree found, report& out) {
  const std::vector<tree_problem> faults = host_faults(found);
  tell_missing(to, exit_status::failed, faults, out);
  if (out.status() >= exit_status::faults) {
    return;
  }
  std::erase_if(found.entries, [&](const tree_entry& entry) {
    return std::any_of(faults.begin(), faults.end(), [&](const tree_problem& one) {
      return entry.path == one.path || entry.path.starts_with(one.path + "/");
    });
  });
  const file_writer contents = [&](int fd) { return write_tar(found, fd); };
  const file_options how = {.replaces = to.force,
                            .refusal = "is there already; --force replaces it",
                            .durable = false,
                            .dry_run = all.dry_run,
                            .never = to.never};
  if (std::string why; !write_file(to.archive, contents, how, &why)) {
    if (!interrupted()) {
      out.fail(exit_status::failed, why, to.archive);
    }
    return;
  }
  const tree_sum sum = sum_of(found);
  tell_written(sum.files, sum.folders, sum.bytes, out);
}

}  // namespace

void tell_written(uint64_t files, uint64_t folders, uint64_t bytes, report& out) {
  out.result()["files"] = files;
  out.result()["directories"] = folders;
  out.result()["bytes"] = bytes;
  out.detail(std::to_string(files) + " files, " + std::to_string(folders) + " directories, " +
             std::to_string(bytes) + " bytes");
}

void take_out(const volume::file_system& from, const host_place& to, const globals& all,
              report& out) {
  tree found = to.archive.empty() ? try_volume(from) : read_volume(from);
  if (interrupted()) {
    return;
  }
  tell_missing(to, exit_status::faults, found.errors, out);
  if (out.status() >= exit_status::faults) {
    return;
  }
  if (to.archive.empty()) {
    to_folder(to, all, found, out);
  } else {
    to_archive(to, all, std::move(found), out);
  }
}

}  // namespace image

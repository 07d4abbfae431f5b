// Taking all files out of a mounted file system, into a folder of the host or into an archive: what
// the commands share that do it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "image/globals.h"
#include "image/host_file.h"
#include "image/report.h"
#include "volume/volume.h"

namespace image {

// Where files go: one of the two names is empty.
struct host_place {
  std::string folder;
  std::string archive;      // "-": standard output
  bool keep_going = false;  // what cannot be taken out is left out, and told
  bool force = false;       // into a folder that is not empty, over an archive that is there
  std::optional<file_identity> never;  // a file that must stay, whatever its name: the image

  bool is_standard_output() const {
    return archive == "-";
  }
};

// The numbers of what was written, into the result.
void tell_written(uint64_t files, uint64_t folders, uint64_t bytes, report& out);

// Writes all files out as extract_tree and write_tar do, and tells what cannot be, which raises the
// status; with --dry-run it only tries. Puts the numbers into the result.
void take_out(const volume::file_system& from, const host_place& to, const globals& all,
              report& out);

}  // namespace image

// What every editing command takes, and the shape of an edit: open, change, write.
#pragma once

#include <string>

#include "image/options.h"
#include "image/report.h"
#include "image/session.h"

namespace image {

struct edit_options {
  std::string image;
  bool force = false;

  // Adds the image and --force.
  void add_to(arguments& take) {
    take.edits();
    take.image(&image);
    take.flag("--force", &force, "Repair an image with faults, and go on");
  }
};

// Opens an editing session, has it changed, and writes it unless that has failed.
template <typename change>
void edit(const edit_options& options, const globals& all, report& out, change&& make_change) {
  const std::unique_ptr<session> opened = session::to_edit(all, options.image, options.force, out);
  if (!opened) {
    return;
  }
  make_change(*opened);
  // What kept it from being written has been told.
  static_cast<void>(opened->commit(out));
}

}  // namespace image

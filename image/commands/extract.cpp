// extract: takes all files out, into a folder of the host or into an archive.
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/take_out_options.h"
#include "image/session.h"
#include "image/take_out.h"

namespace image {

namespace {

struct extract_options {
  std::string image;
  host_place to;
};

void run(const extract_options& options, const globals& all, report& out) {
  if (options.to.folder.empty() == options.to.archive.empty()) {
    out.fail(exit_status::usage, "either -C or --to-tar says where the files go");
    return;
  }
  if (const std::string why = objection_to_output(options.to.archive, all.json); !why.empty()) {
    out.fail(exit_status::usage, why);
    return;
  }
  const std::unique_ptr<session> opened = session::to_read(all, options.image, out);
  if (opened && out.status() < exit_status::faults) {
    host_place to = options.to;
    to.never = opened->identity();
    take_out(opened->files(), to, all, out);
  }
}

}  // namespace

command extract_command() {
  auto options = std::make_shared<extract_options>();
  return {"extract", "Takes all files out",
          "flashfs-image extract boot.img -C folder\n"
          "flashfs-image extract boot.img --to-tar - | tar -tv",
          [options](arguments& take) {
            take.image(&options->image);
            take.option("-C", "DIR", &options->to.folder, "Into this folder, made if missing");
            take.option("--to-tar", "FILE", &options->to.archive,
                        "Into a tar archive, '-' for standard output");
            add_take_out_flags(take, &options->to);
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image

// flashfs-image: images of a boot flash on the host.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <utility>
#include <vector>

#include "image/commands/all_commands.h"
#include "image/interrupt.h"
#include "image/options.h"
#include "image/report.h"

namespace {

// Of the run that goes on, for the end that nobody has planned.
image::report* running = nullptr;
bool running_on_complex = false;

// Ends the run with its document, which tells why.
[[noreturn]] void end_with(const char* text) {
  image::report* const out = std::exchange(running, nullptr);
  out->fail(image::exit_status::failed,
            running_on_complex ? "the device or the file system gave up" : text);
  _exit(static_cast<int>(out->finish()));
}

// The file system ends the process when its memory contradicts itself. That is a failure like
// others here, and has its document.
void end_unplanned() {
  if (running != nullptr) {
    end_with("the file system gave up: the image is damaged");
  }
}

void end_at_cut_image() {
  if (running == nullptr) {
    _exit(static_cast<int>(image::exit_status::failed));
  }
  end_with("the image was cut short while it was read");
}

// Descriptors that are closed must not become those of files. What goes there cannot be written, as
// little as read, which is told as always: so what stands there takes and gives nothing.
bool occupy_standard_descriptors() {
  for (const int wanted : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const int useless = wanted == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    // The lowest free descriptor is the one that is given.
    if (fcntl(wanted, F_GETFD) < 0 && open("/dev/null", useless) != wanted) {
      return false;
    }
  }
  return true;
}

image::exit_status refuse(const image::parsed_line& parsed) {
  image::report out(parsed.options, parsed.command_name);
  out.fail(parsed.status, parsed.error + " (--help tells more)");
  return out.finish();
}

image::exit_status run(const image::parsed_line& parsed) {
  image::catch_signals();
  image::catch_cut_images(end_at_cut_image);
  image::report out(parsed.options, parsed.chosen->name);
  running = &out;
  running_on_complex = parsed.options.ppc.has_value();
  image::run_command(parsed, out);
  running = nullptr;
  return out.finish();
}

}  // namespace

int main(int argc, char* argv[]) {
  if (!occupy_standard_descriptors()) {
    return static_cast<int>(image::exit_status::failed);
  }
  std::atexit(end_unplanned);
  const std::vector<image::command> commands = image::all_commands();
  const image::parsed_line parsed = image::parse_command_line(commands, argc, argv);
  if (parsed.chosen != nullptr) {
    return static_cast<int>(run(parsed));
  }
  if (parsed.status != image::exit_status::good) {
    return static_cast<int>(refuse(parsed));
  }
  std::fputs(parsed.out.c_str(), stdout);
  return std::fflush(stdout) == 0 ? 0 : static_cast<int>(image::exit_status::failed);
}

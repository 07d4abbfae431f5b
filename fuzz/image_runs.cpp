// Command lines in this process, and recipes as images.
#include "fuzz/image_runs.h"

#include <algorithm>
#include <cstdio>

#include "flashfs/format.h"
#include "fuzz/hostile_flash.h"
#include "image/clock.h"
#include "image/commands/all_commands.h"
#include "image/console.h"
#include "image/options.h"
#include "image/report.h"
#include "tests/support/output_capture.h"

namespace {

// Standard error goes nowhere while one of these lives.
class dropped_errors {
 public:
  dropped_errors() : shown_(stderr) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    stderr = nowhere;
  }
  ~dropped_errors() {
    stderr = shown_;
  }
  dropped_errors(const dropped_errors&) = delete;
  dropped_errors& operator=(const dropped_errors&) = delete;

 private:
  std::FILE* shown_;
};

// As the program's main function does it, but for the signals.
image::exit_status run_line(int argc, char* argv[]) {
  const std::vector<image::command> commands = image::all_commands();
  const image::parsed_line parsed = image::parse_command_line(commands, argc, argv);
  if (parsed.chosen == nullptr) {
    return parsed.status;
  }
  image::report out(parsed.options, parsed.chosen->name);
  image::run_command(parsed, out);
  return out.finish();
}

}  // namespace

image_run run_image_command(const std::vector<std::string>& words) {
  std::vector<std::string> held = words;
  held.insert(held.begin(), "flashfs-image");
  std::vector<char*> line;
  for (std::string& word : held) {
    line.push_back(word.data());
  }
  line.push_back(nullptr);
  image::clock_set(std::nullopt);
  image_run run;
  {
    test_support::output_capture capture;
    dropped_errors dropped;
    run.status = static_cast<int>(run_line(static_cast<int>(held.size()), line.data()));
    run.out = capture.take();
  }
  image::console_take();
  return run;
}

bool is_status_of_work(int status) {
  return status == 0 || status == 1 || status == 2 || status == 4 || status == 8;
}

hostile_image make_hostile_image(input_bytes& input) {
  std::vector<test_support::ram_block> blocks = hostile_geometry(input);
  hostile_image made;
  for (test_support::ram_block& block : blocks) {
    block.size = std::max<uint32_t>(block.size, sizeof(flashfs_blkheader) + sizeof(flashfs_sector));
    made.geometry += (made.geometry.empty() ? "1x" : ",1x") + std::to_string(block.size);
  }
  test_support::ram_flash flash(blocks);
  test_support::image_builder builder(flash);
  hostile_records(input, builder);
  const std::vector<uint8_t> bytes = flash.flash().snapshot();
  made.bytes.assign(bytes.begin(), bytes.end());
  return made;
}

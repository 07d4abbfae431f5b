// Every command over every stored image and every stored flash of the fuzzers, in this process and
// under its sanitizers: whatever stands there, a run ends with a status of the table, with a
// document when asked for one, and leaves the image alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "fuzz/image_runs.h"
#include "image/commands/all_commands.h"
#include "tests/image/image_command.h"
#include "tests/image/json_schema.h"
#include "tests/support/stored_image.h"

namespace {

namespace fs = std::filesystem;
using test_support::read_whole_file;
using test_support::write_whole_file;
using words = std::vector<std::string>;

class hostile_images : public testing::Test {
 protected:
  hostile_images() {
    fs::create_directory(file("source"));
    write_whole_file(file("source/new"), std::string(3000, 'n'));
  }

  std::string file(const std::string& name) const {
    return folder_.file(name);
  }

  // Every command, in its dry form where it would write the image; `inside`: a path in it.
  std::vector<words> every_command(const std::string& inside) const {
    const std::string image = file("image");
    const std::string source = file("source");
    const std::string out = file("out");
    return {
        {"-n", "create", file("made"), "--from", image},
        {"-n", "format", image, "--force"},
        {"-n", "import", file("made"), image},
        {"info", image},
        {"wear", image},
        {"ls", "-lRa0", image, "/", inside},
        {"--full", "ls", "-R", image},
        {"tree", image},
        {"cat", image, inside},
        {"get", "-r", image, inside, out},
        {"-n", "put", "-rp", "--force", image, source, inside},
        {"-n", "rm", "-rf", "--force", image, inside},
        {"-n", "mkdir", "-p", "--force", image, inside + "/a/b"},
        {"-n", "mv", "-f", "--force", image, inside, "/moved"},
        {"-n", "chmod", "--force", image, "600", inside},
        {"-n", "truncate", "--force", image, "-s", "2049", inside},
        {"check", image},
        {"-n", "check", "--quick", "--repair", "--force", image},
        {"-n", "check", "--repair", image},
        {"rescue", "--plan", image},
        {"rescue", "--deleted", "-o", out, image},
        {"verify", image, "--against", source},
        {"extract", "--keep-going", "-C", out, image},
        {"diff", image, image},
        {"diff", "--records", image, image},
        {"dump", image},
        {"dump", "--hex", "--block", "1", image},
        {"dump", "--path", inside, image},
    };
  }

  // Runs all over the file "image", or only every so many of them: others with each image.
  void run_all(const std::string& geometry, size_t one_of = 1) {
    const std::string before = read_whole_file(file("image"));
    const bool is_even = runs_++ % 2 == 0;
    bool json = is_even;
    size_t number = static_cast<size_t>(runs_);
    for (words line : every_command(first_path(geometry))) {
      if (number++ % one_of != 0) {
        continue;
      }
      line.insert(line.begin(), {"--geometry", geometry});
      json = !json;
      if (json) {
        line.insert(line.begin(), "--json");
      }
      const image_run run = run_image_command(line);
      EXPECT_TRUE(is_status_of_work(run.status)) << testing::PrintToString(line) << run.status;
      if (json) {
        EXPECT_TRUE(nlohmann::json::accept(run.out)) << testing::PrintToString(line) << run.out;
      }
      fs::remove_all(file("out"));
    }
    EXPECT_TRUE(read_whole_file(file("image")) == before);
    EXPECT_FALSE(fs::exists(file("made")));
  }

 private:
  // Something that the image holds, or would.
  std::string first_path(const std::string& geometry) const {
    const std::string listed =
        run_image_command({"--geometry", geometry, "ls", "-Ra0", file("image")}).out;
    const std::string first = listed.substr(0, listed.find('\0'));
    return first.starts_with('/') ? first : "/config";
  }

  test_support::temporary_folder folder_;
  int runs_ = 0;
};

TEST_F(hostile_images, are_met_by_every_command) {
  std::set<std::string> met;
  for (const words& line : every_command("/a")) {
    met.insert(line.begin(), line.end());
  }
  // What knows no images but complexes, or only codes.
  met.insert({"read", "write", "explain"});
  for (const image::command& one : image::all_commands()) {
    EXPECT_TRUE(met.contains(one.name)) << one.name;
  }
}

// The first blocks, which have all that is in most of them; whole ones are in the other tests.
TEST_F(hostile_images, stored_images_do_no_harm) {
  constexpr size_t blocks = 12;
  for (const std::string& name : test_support::stored_images()) {
    SCOPED_TRACE(name);
    write_whole_file(file("image"), test_support::read_stored_image(name).substr(0, blocks << 17));
    run_all(std::to_string(blocks) + "x128K");
  }
}

// Every command meets many of them, and with HOSTILE_IMAGES=all (scripts/test --all) each of them,
// which takes minutes.
TEST_F(hostile_images, flashes_of_the_fuzzers_do_no_harm) {
  const bool all = std::getenv("HOSTILE_IMAGES") != nullptr;
  size_t number = 0;
  for (const char* corpus : {"flash", "image"}) {
    for (const auto& entry :
         fs::directory_iterator(std::string(TESTS_FOLDER "/../fuzz/corpus/") + corpus)) {
      const std::string bytes = read_whole_file(entry.path());
#ifdef ZANTROLUME_EMULATOR
      constexpr size_t one_of = 8;  // under emulation
#else
      constexpr size_t one_of = 1;
#endif
      if (number++ % one_of != 0) {
        continue;
      }
      SCOPED_TRACE(entry.path());
      input_bytes input(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      const hostile_image made = make_hostile_image(input);
      write_whole_file(file("image"), made.bytes);
      run_all(made.geometry, all ? 1 : 8);
    }
  }
}

}  // namespace

// import of what the program printed on the board gives the image back.
#include <gtest/gtest.h>

#include "tests/image/image_command.h"
#include "tests/support/stored_image.h"

namespace image_test {
namespace {

using json = nlohmann::ordered_json;
using test_support::shell_output;
using test_support::write_whole_file;

constexpr size_t block_size = size_t{1} << 17;
constexpr size_t block_count = 256;
constexpr size_t usable_blocks = 216;

class import : public test_support::image_command {
 protected:
  std::string sh(const std::string& command) const {
    return shell_output("cd '" + file("") + "' && " + command);
  }
  // Lays an image out as the flash of complex 4.
  void install(const std::string& image) const {
    sh("mkdir -p chassis && echo 'clock 1800000000' > chassis/chassis.txt && cp " + image +
       " chassis/ppc4.flash");
  }
  // What the program prints, behind a prompt.
  std::string board(const std::string& words) const {
    return "supervisor# zantrolume 4 " + words + "\n" +
           sh("ZANTROLUME_CHASSIS=chassis " + emulator() + " '" ZANTROLUME_SIM_PROGRAM "' 4 " +
              words);
  }
  // Dumps of all blocks that hold anything, the others only begun; block 0 by its second number.
  std::string dumps_of(const std::string& image) const {
    const std::string bytes = contents(image);
    std::string text;
    for (size_t block = 0; block < block_count; ++block) {
      const std::string_view held = std::string_view(bytes).substr(block * block_size, block_size);
      const size_t used = held.find_last_not_of('\xff') + 1;  // 0: npos, nothing
      const size_t number = block == 0 ? block_count : block;
      text += board("sread " + std::to_string(number) + " " + std::to_string(used + 32));
    }
    return text;
  }
};

TEST_F(import, gives_every_stored_image_back) {
  for (const std::string& name : test_support::stored_images()) {
    const std::string image = store(name);
    install(image);
    write_whole_file(file("session.log"), dumps_of(image));
    sh("rm -f back.img");
    // Blocks of which only the beginning was dumped are holes, but erased.
    EXPECT_EQ(run({"import", "back.img", "session.log"}).status, 4) << name;
    EXPECT_TRUE(contents("back.img") == contents(image)) << name;
  }
}

TEST_F(import, needs_no_more_than_the_whole_flash_and_is_silent_about_it) {
  install(store("basic"));
  // From the second line on, since address 0 is what the program does not print; then the first.
  write_whole_file(file("all.log"), board("aread 20 33554400"));
  write_whole_file(file("first.log"), board("sread 256 32"));
  const test_support::program_result done = run({"import", "back.img", "all.log", "first.log"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.out + done.err, "");
  EXPECT_TRUE(contents("back.img") == contents("basic.img"));
  const json document = document_of({"import", "again.img", "all.log"}, 4);
  ASSERT_EQ(document["findings"].size(), 1U);
  EXPECT_EQ(document["findings"][0]["code"], "transcript-hole");
  EXPECT_EQ(document["findings"][0]["offset"], 0);
}

TEST_F(import, minds_no_hole_behind_the_file_system) {
  install(store("basic"));
  write_whole_file(
      file("some.log"),
      board("sread 256 32") + board("aread 20 " + std::to_string(usable_blocks * block_size - 32)));
  const test_support::program_result done = run({"import", "back.img", "some.log", "-v"});
  EXPECT_EQ(done.status, 0);
  EXPECT_NE(done.err.find("5242880 bytes: nothing tells these bytes"), std::string::npos)
      << done.err;
}

TEST_F(import, names_contradictions) {
  install(store("basic"));
  std::string dump = board("sread 1 64");
  write_whole_file(file("one.log"), dump);
  dump.replace(dump.find("0x00020020    0001ffff"), 22, "0x00020020    0000ffff");
  write_whole_file(file("two.log"), dump);
  const json document = document_of({"import", "back.img", "one.log", "two.log"}, 4);
  bool found = false;
  for (const json& one : document["findings"]) {
    found = found || (one["code"] == "transcript-contradiction" && one["offset"] == 0x20021);
  }
  EXPECT_TRUE(found) << document;
}

TEST_F(import, needs_a_dump_and_a_new_name) {
  write_whole_file(file("noise.log"), "login:\n");
  output_of({"import", "back.img", "noise.log"}, 8);
  output_of({"import", "back.img", "gone.log"}, 8);
  output_of({"import", "back.img"}, 16);
  EXPECT_EQ(names(), std::vector<std::string>{"noise.log"});
  install(store("basic"));
  write_whole_file(file("some.log"), board("sread 1 64"));
  output_of({"import", "basic.img", "some.log"}, 8);
  output_of({"import", "basic.img", "some.log", "--force"}, 4);
  EXPECT_EQ(contents("basic.img").size(), size_t{32} << 20);
}

}  // namespace
}  // namespace image_test

// import of what the program printed on the board gives the image back.
#include <gtest/gtest.h>

#include <sstream>

#include "tests/image/image_command.h"
#include "tests/support/stored_image.h"

namespace image_test {
namespace {

using json = nlohmann::ordered_json;
using test_support::shell_output;
using test_support::write_whole_file;

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
};

// The first MiB alone: the whole flash takes a million lines.
TEST_F(import, gives_back_what_the_board_prints_and_is_silent_about_it) {
  install(store("basic"));
  sh("head -c 1048576 basic.img > first.img");
  // From the second line on, since address 0 is what the program does not print; then the first.
  write_whole_file(file("all.log"), board("aread 20 1048544"));
  write_whole_file(file("first.log"), board("sread 256 32"));
  const test_support::program_result done =
      run({"--geometry", "8x128K", "import", "back.img", "all.log", "first.log"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.out + done.err, "");
  EXPECT_EQ(sh("cmp back.img first.img && echo equal"), "equal\n");
  const json document = document_of({"--geometry", "8x128K", "import", "x.img", "all.log"}, 4);
  ASSERT_EQ(document["findings"].size(), 1U);
  EXPECT_EQ(document["findings"][0]["code"], "transcript-hole");
  EXPECT_EQ(document["findings"][0]["offset"], 0);
}

class import_of : public import, public testing::WithParamInterface<std::string> {};

// All that is not erased of the flash, each piece by a run of its own.
TEST_P(import_of, what_the_board_prints_of_a_stored_flash_gives_the_flash_back) {
  constexpr size_t piece = 4096;
  const std::string erased(piece, '\xFF');
  install(store(GetParam()));
  const std::string flash = contents(GetParam() + ".img");
  std::string session = board("sread 256 32") + board("aread 20 4064");
  for (size_t from = piece; from < flash.size(); from += piece) {
    const size_t begin = from;
    while (from < flash.size() && flash.compare(from, piece, erased) != 0) {
      from += piece;
    }
    if (from != begin) {
      std::ostringstream words;
      words << "aread " << std::hex << begin << ' ' << std::dec << from - begin;
      session += board(words.str());
    }
  }
  write_whole_file(file("session.log"), session);
  run({"import", "back.img", "session.log"});
  EXPECT_TRUE(contents("back.img") == flash);
}

INSTANTIATE_TEST_SUITE_P(stored, import_of, testing::ValuesIn(test_support::stored_images()),
                         [](const testing::TestParamInfo<std::string>& image) {
                           return image.param;
                         });

TEST_F(import, minds_no_hole_behind_the_file_system) {
  install(store("basic"));
  write_whole_file(file("some.log"), board("aread 1afffe0 32"));  // the last line before it
  const json document = document_of({"import", "back.img", "some.log"}, 4);
  ASSERT_EQ(document["findings"].size(), 2U);
  EXPECT_EQ(document["findings"][0]["code"], "transcript-hole");
  EXPECT_EQ(document["findings"][1]["code"], "transcript-hole-outside");
  EXPECT_EQ(document["findings"][1]["offset"], 0x1B00000);
  EXPECT_EQ(document["findings"][1]["severity"], "info");
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

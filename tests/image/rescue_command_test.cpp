// rescue, as people run it on images: what it tells, where the result goes and where not, and how
// it ends. What it decides is tried record by record in rescue_test.cpp.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/support/stored_image.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::write_whole_file;

constexpr uint32_t block_size = 16384;

class rescue_command : public test_support::image_command {
 protected:
  // A small image, to be written with a builder.
  struct small {
    explicit small(uint32_t blocks)
        : bytes(blocks * block_size, '\xFF'),
          builder(reinterpret_cast<uint8_t*>(bytes.data()), blocks, block_size) {
      builder.headers(0);
      builder.slot(1, 0, 31, {.entry_fileid = 1, .mode = 0x4600, .name = ""});
    }
    std::string bytes;
    test_support::image_builder builder;
  };

  void write(const std::string& name, const small& image) const {
    write_whole_file(file(name), image.bytes);
  }
};

}  // namespace

// The first blocks of the stored images, which have all that is in most of them.
TEST_F(rescue_command, the_plan_of_a_run_ends_as_the_run_does_and_writes_nothing) {
  constexpr size_t blocks = 12;
  const std::vector<std::string> geometry = {"--geometry", std::to_string(blocks) + "x128K"};
  const auto with_geometry = [&](std::vector<std::string> words) {
    words.insert(words.end(), geometry.begin(), geometry.end());
    return words;
  };
  for (const std::string& name : test_support::stored_images()) {
    const std::string before = test_support::read_stored_image(name).substr(0, blocks << 17);
    write_whole_file(file("image"), before);
    const int status = run(with_geometry({"-n", "rescue", "-o", "new.img", "image"})).status;
    const json plan = document_of(with_geometry({"rescue", "--plan", "image"}), status);
    EXPECT_EQ(names(), std::vector<std::string>{"image"}) << name;
    const json mended = document_of(with_geometry({"rescue", "-o", "new.img", "image"}), status);
    EXPECT_EQ(plan["result"]["decisions"], mended["result"]["decisions"]) << name;
    EXPECT_EQ(mended["result"]["written"], "new.img") << name;
    EXPECT_TRUE(contents("image") == before) << name;
    // Nothing is left to do, for nobody.
    EXPECT_EQ(output_of(with_geometry({"rescue", "--plan", "new.img"})), "nothing to mend\n")
        << name;
    EXPECT_EQ(run(with_geometry({"check", "new.img"})).status, 0) << name;
    std::filesystem::remove(file("new.img"));
  }
}

TEST_F(rescue_command, tells_what_why_and_what_else) {
  small image(6);
  image.builder.slot(1, 0, 30, {.entry_fileid = 2, .mode = 0x8700, .name = "file"});
  image.builder.data_sector(1, 1, 2, 0, std::string(2048, 'a'));
  image.builder.data_sector(1, 3, 2, 2, "the end");
  image.builder.data_sector(2, 0, 7, 0, "an orphan");
  image.builder.header(3, {.state = 1});
  write("gap.img", image);
  test_support::expect_golden("image_rescue.txt",
                              transcript({{"rescue", "--plan", "gap.img"},
                                          {"rescue", "gap.img", "-o", "mended.img"},
                                          {"rescue", "-v", "gap.img", "--to-dir", "files"},
                                          {"ls", "-lR", "mended.img"},
                                          {"rescue", "mended.img", "-o", "again.img"},
                                          {"rescue", "--json", "--plan", "gap.img"}}));
}

TEST_F(rescue_command, never_writes_its_input) {
  store("no_spare");
  const std::string before = contents("no_spare.img");
  ASSERT_EQ(link(file("no_spare.img").c_str(), file("other.img").c_str()), 0);
  ASSERT_EQ(symlink("no_spare.img", file("link.img").c_str()), 0);
  for (const char* output : {"no_spare.img", "other.img", "link.img"}) {
    EXPECT_EQ(run({"rescue", "no_spare.img", "-o", output}).status, 16) << output;
  }
  write_whole_file(file("there.img"), "something");
  EXPECT_EQ(run({"rescue", "no_spare.img", "-o", "there.img"}).status, 8);
  EXPECT_EQ(contents("there.img"), "something");
  EXPECT_EQ(run({"rescue", "no_spare.img"}).status, 16);
  EXPECT_EQ(run({"rescue", "no_spare.img", "-o", "new.img", "--to-dir", "files"}).status, 16);
  EXPECT_EQ(run({"--json", "rescue", "no_spare.img", "--to-tar", "-"}).status, 16);
  EXPECT_EQ(run({"rescue", "gone.img", "--plan"}).status, 8);
  EXPECT_EQ(contents("no_spare.img"), before);
  EXPECT_EQ(names(),
            (std::vector<std::string>{"link.img", "no_spare.img", "other.img", "there.img"}));
}

TEST_F(rescue_command, never_writes_its_input_where_that_comes_as_standard_input) {
  if (!emulator().empty()) {
    GTEST_SKIP() << "the target's program has no tar";
  }
  store("no_spare");
  const std::string before = contents("no_spare.img");
  EXPECT_EQ(test_support::shell_output(
                "cd '" + file("") + "' && '" + program_ +
                "' -q rescue --to-tar no_spare.img --force - < no_spare.img 2>&1 | tail -n 1"),
            "flashfs-image: error: no_spare.img: is the image itself, which is only read\n");
  EXPECT_TRUE(contents("no_spare.img") == before);
}

TEST_F(rescue_command, tells_what_it_decides_where_the_image_is_the_answer) {
  store("no_spare");
  const test_support::program_result result = run({"rescue", "no_spare.img", "-o", "-"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out.size(), contents("no_spare.img").size());
  EXPECT_NE(result.err.find("mended\n"), std::string::npos) << result.err;
}

TEST_F(rescue_command, files_are_taken_out_as_extract_takes_them_out) {
  store("committed_erased");
  EXPECT_EQ(run({"check", "committed_erased.img"}).status, 4);
  output_of({"rescue", "committed_erased.img", "-o", "mended.img"}, 1);
  output_of({"extract", "mended.img", "-C", "extracted"});
  output_of({"rescue", "committed_erased.img", "--to-dir", "files"}, 1);
  EXPECT_EQ(
      test_support::shell_output("diff -r '" + file("extracted") + "' '" + file("files") + "'"),
      "");
  EXPECT_EQ(run({"rescue", "committed_erased.img", "--to-dir", "files"}).status, 8);
  EXPECT_EQ(run({"rescue", "committed_erased.img", "--to-dir", "files", "--force"}).status, 1);
  if (emulator().empty()) {  // the target's program has no tar
    output_of({"rescue", "committed_erased.img", "--to-tar", "files.tar"}, 1);
    output_of({"extract", "mended.img", "--to-tar", "extracted.tar"});
    EXPECT_EQ(contents("files.tar"), contents("extracted.tar"));
    EXPECT_EQ(output_of({"rescue", "committed_erased.img", "--to-tar", "-"}, 1),
              contents("files.tar"));
  }
}

TEST_F(rescue_command, a_hostile_name_stays_inside_the_folder) {
  small image(6);
  image.builder.slot(1, 0, 30, {.entry_fileid = 2, .mode = 0x8700, .name = ".."});
  image.builder.data_sector(1, 1, 2, 0, "out of here");
  image.builder.slot(1, 0, 29, {.seq_no = 1, .entry_fileid = 3, .mode = 0x8700, .name = "good"});
  write("image", image);
  std::filesystem::create_directory(file("inside"));
  EXPECT_EQ(run({"rescue", "image", "--to-dir", "inside/files"}).status, 8);
  EXPECT_EQ(run({"rescue", "image", "--to-dir", "inside/files", "--keep-going", "--force"}).status,
            2);
  EXPECT_TRUE(std::filesystem::exists(file("inside/files/good")));
  EXPECT_EQ(names(), (std::vector<std::string>{"image", "inside"}));
}

TEST_F(rescue_command, removed_files_come_back_when_they_are_asked_for) {
  write_whole_file(file("gone"), std::string(5000, '1'));
  write_whole_file(file("again"), std::string(3000, '2'));
  output_of({"create", "image", "--geometry", "6x16K"});
  output_of({"put", "image", "again", "gone", "/"});  // "again" gets the lower id, twice
  output_of({"rm", "image", "/gone", "/again"});
  write_whole_file(file("again"), "new");
  output_of({"put", "image", "again", "/"});
  EXPECT_EQ(output_of({"rescue", "image", "--plan"}), "nothing to mend\n");
  const json document = document_of({"rescue", "--deleted", "image", "-o", "new.img"}, 1);
  ASSERT_EQ(document["result"]["decisions"].size(), 1U) << document;
  EXPECT_EQ(document["result"]["decisions"][0]["code"], "file-returned");
  EXPECT_EQ(document["result"]["decisions"][0]["path"], "/gone");
  EXPECT_EQ(output_of({"cat", "new.img", "/gone"}), std::string(5000, '1'));
  // A name that stands is not touched.
  EXPECT_EQ(output_of({"cat", "new.img", "/again"}), "new");
}

TEST_F(rescue_command, a_removed_file_without_room_is_left_out) {
  write_whole_file(file("small"), "small");
  write_whole_file(file("big"), std::string(7 * 2048, 'b'));
  write_whole_file(file("rest"), std::string(11 * 2048, 'r'));
  output_of({"create", "image", "--geometry", "4x16K"});
  output_of({"put", "image", "small", "big", "/"});
  output_of({"rm", "image", "/small", "/big"});
  output_of({"put", "image", "rest", "/"});  // with the id that was the small one's
  const json document = document_of({"rescue", "--deleted", "image", "-o", "new.img"}, 2);
  EXPECT_EQ(document["result"]["decisions"].at(0)["code"], "no-room-to-return");
  EXPECT_EQ(contents("new.img"), contents("image"));
  // In a folder there is room.
  EXPECT_EQ(run({"rescue", "--deleted", "image", "--to-dir", "files"}).status, 1);
  EXPECT_EQ(contents("files/small"), "small");
  EXPECT_TRUE(contents("files/rest") == std::string(11 * 2048, 'r'));
}

TEST_F(rescue_command, what_is_impossible_is_told_and_not_written) {
  // Every sector of both blocks is in use: no spare can be made of them.
  small image(2);
  image.builder.header(0, {.state = 0});
  image.builder.slot(1, 0, 30, {.entry_fileid = 2, .mode = 0x8700, .name = "file"});
  uint16_t number = 0;
  for (int sector = 0; sector < 7; ++sector) {
    image.builder.data_sector(0, sector, 2, number++, std::string(2048, 'x'));
  }
  for (int sector = 1; sector < 7; ++sector) {
    image.builder.data_sector(1, sector, 2, number++, std::string(2048, 'x'));
  }
  write("full.img", image);
  const json document = document_of({"rescue", "full.img", "-o", "new.img"}, 8);
  EXPECT_EQ(run({"rescue", "full.img", "--plan"}).status, 8);
  EXPECT_NE(document["findings"].back()["text"].get<std::string>().find("no room"),
            std::string::npos);
  EXPECT_EQ(names(), (std::vector<std::string>{"full.img"}));
  // What is only taken out needs no room.
  EXPECT_EQ(run({"rescue", "full.img", "--to-dir", "files"}).status, 1);
  EXPECT_TRUE(contents("files/file") == std::string(13 * 2048, 'x'));
}

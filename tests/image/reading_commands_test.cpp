// ls, tree, cat and get, as people run them.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::read_whole_file;
using test_support::write_whole_file;
using words = std::vector<std::string>;

class reading_commands : public test_support::image_command {
 protected:
  // A small image with a file of this name, good but for what the name holds.
  std::string image_with_name(const std::string& name) const {
    std::string bytes(4 * block_size, '\xFF');
    test_support::image_builder builder(reinterpret_cast<uint8_t*>(bytes.data()), 4, block_size);
    builder.headers(0);
    builder.slot(1, 0, 31, {.entry_fileid = 1, .mode = 0x4600, .name = ""});
    builder.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = name});
    builder.data_sector(1, 1, 2, 0, "contents");
    write_whole_file(file("small.img"), bytes);
    return "small.img";
  }

  static constexpr uint32_t block_size = 32768;
};

TEST_F(reading_commands, list_files) {
  store("basic");
  test_support::expect_golden("image_ls.txt", transcript({
                                                  {"ls", "basic.img"},
                                                  {"ls", "-l", "basic.img", "/config"},
                                                  {"ls", "-l", "basic.img", "/empty", "config"},
                                                  {"ls", "-lRa", "basic.img"},
                                                  {"ls", "basic.img", "/gone", "/readme.txt/x"},
                                                  {"tree", "basic.img"},
                                                  {"tree", "-L", "1", "basic.img"},
                                                  {"tree", "basic.img", "/config/"},
                                                  {"tree", "basic.img", "/gone"},
                                              }));
}

TEST_F(reading_commands, names_end_with_nul_when_asked) {
  store("basic");
  EXPECT_EQ(output_of({"ls", "-0", "basic.img", "/config"}),
            std::string("deep\0startup.cfg\0vlan.dat\0", 26));
}

TEST_F(reading_commands, names_that_begin_with_a_point_are_left_out_unless_asked_for) {
  const std::string small = image_with_name(".hidden");
  EXPECT_EQ(output_of({"ls", small}), "");
  EXPECT_EQ(output_of({"ls", "-a", small}), ".hidden\n");
  EXPECT_EQ(output_of({"ls", small, "/.hidden"}), "/.hidden\n");
}

TEST_F(reading_commands, a_listing_as_a_document) {
  store("basic");
  const json document = document_of({"ls", "basic.img", "/config"}, 0);
  EXPECT_EQ(document["command"], "ls");
  ASSERT_EQ(document["result"]["entries"].size(), 3U);
  const json first = {{"path", "/config/deep"}, {"id", 12},
                      {"type", "directory"},    {"size", 64},
                      {"mode", "0400"},         {"shown_mode", "drwx"},
                      {"seconds", 1700000000},  {"date", "2023-11-14 22:13:20"}};
  EXPECT_EQ(document["result"]["entries"][0], first);
  EXPECT_TRUE(document["findings"].empty());
}

TEST_F(reading_commands, a_tree_as_a_document) {
  store("basic");
  const json result = document_of({"tree", "basic.img", "/config"}, 0)["result"];
  EXPECT_EQ(result["directories"], 1);
  EXPECT_EQ(result["files"], 3);
  EXPECT_EQ(result["entries"][1]["path"], "/config/deep/leaf");
  EXPECT_EQ(result["entries"][1]["level"], 2);
}

TEST_F(reading_commands, names_that_are_no_text_break_no_document_and_are_raw_elsewhere) {
  const std::string name = "a\xFF\x1B[31m\n";
  const std::string small = image_with_name(name);
  EXPECT_EQ(output_of({"ls", small}), name + "\n");
  EXPECT_EQ(output_of({"ls", "-0", small}), name + std::string(1, '\0'));
  const json entry = document_of({"ls", small}, 0)["result"]["entries"][0];
  EXPECT_EQ(entry["path"], "/a\xEF\xBF\xBD\x1B[31m\n");
  EXPECT_EQ(entry["path_hex"], "2f61ff1b5b33316d0a");
  const test_support::program_result got = run({"cat", small, "/b\x1B\xFF"});
  EXPECT_EQ(got.status, 8);
  EXPECT_EQ(got.err, "flashfs-image: error: /b\\x1b\\xff: no such file or directory\n");
}

TEST_F(reading_commands, files_are_printed_byte_for_byte) {
  store("basic");
  EXPECT_EQ(output_of({"cat", "basic.img", "/readme.txt", "nul.bin", "/empty"}),
            "PowerPC boot flash\nsecond line\n" + output_of({"cat", "basic.img", "/nul.bin"}));
  EXPECT_NE(output_of({"cat", "basic.img", "/nul.bin"}).find('\0'), std::string::npos);
  EXPECT_EQ(output_of({"cat", "basic.img", "/over2049"}).size(), 2049U);
}

TEST_F(reading_commands, files_that_cannot_be_printed_are_told_and_the_others_printed) {
  store("basic");
  test_support::expect_golden(
      "image_cat.txt",
      transcript({{"cat", "basic.img", "/gone", "/config", "/", "/readme.txt"}, {"cat"}}));
  const json document = document_of({"cat", "basic.img", "/gone", "/readme.txt"}, 8);
  EXPECT_EQ(document["result"]["files"][0]["contents"], "PowerPC boot flash\nsecond line\n");
  EXPECT_EQ(document["findings"][0]["path"], "/gone");
}

TEST_F(reading_commands, a_damaged_file_keeps_no_other_from_being_read) {
  std::string bytes(4 * block_size, '\xFF');
  test_support::image_builder builder(reinterpret_cast<uint8_t*>(bytes.data()), 4, block_size);
  builder.headers(0);
  builder.slot(1, 0, 31, {.entry_fileid = 1, .mode = 0x4600, .name = ""});
  builder.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = "bad"});
  builder.slot(1, 0, 29, {.seq_no = 2, .entry_fileid = 3, .name = "good"});
  builder.data_sector(1, 1, 2, 0, "damaged");
  builder.data_sector(1, 2, 3, 0, "contents");
  bytes[bytes.find("damaged")] = 'D';
  write_whole_file(file("one.img"), bytes);
  std::filesystem::create_directory(file("out"));

  EXPECT_EQ(output_of({"cat", "one.img", "/bad", "/good", "/bad", "/good"}, 8), "contentscontents");
  EXPECT_EQ(output_of({"get", "one.img", "/bad", "/good", "out"}, 8), "");
  EXPECT_EQ(contents("out/good"), "contents");
  EXPECT_FALSE(std::filesystem::exists(file("out/bad")));
  const json findings = document_of({"cat", "one.img", "/bad", "/good"}, 8)["findings"];
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0]["path"], "/bad");
  EXPECT_EQ(output_of({"extract", "one.img", "-C", "most", "--keep-going"}, 2), "");
  EXPECT_EQ(contents("most/good"), "contents");
  EXPECT_FALSE(std::filesystem::exists(file("most/bad")));
}

TEST_F(reading_commands, files_are_copied_out) {
  store("basic");
  output_of({"get", "basic.img", "/readme.txt", "copy"});
  EXPECT_EQ(contents("copy"), "PowerPC boot flash\nsecond line\n");
  std::filesystem::create_directory(file("folder"));
  output_of({"get", "basic.img", "/config/vlan.dat", "/over2049", "folder"});
  EXPECT_EQ(contents("folder/vlan.dat").size(), 267U);
  EXPECT_EQ(contents("folder/over2049").size(), 2049U);
  EXPECT_EQ(output_of({"get", "basic.img", "/readme.txt", "-"}), contents("copy"));
}

TEST_F(reading_commands, folders_are_copied_out) {
  store("basic");
  output_of({"get", "-r", "basic.img", "/config", "new"});
  EXPECT_EQ(contents("new/startup.cfg").size(), 15600U);
  std::filesystem::create_directory(file("there"));
  output_of({"get", "-r", "basic.img", "/config", "/readme.txt", "there"});
  EXPECT_EQ(contents("there/config/deep/leaf").size(), 5U);
  EXPECT_EQ(contents("there/readme.txt").size(), 31U);
}

TEST_F(reading_commands, what_ends_with_a_slash_is_a_folder) {
  store("basic");
  write_whole_file(file("file"), "");
  std::filesystem::create_directory(file("there"));
  for (const char* host : {"none/", "file/", "none/below/"}) {
    for (const char* option : {"-v", "-n", "-r"}) {
      const json document = document_of({"get", "basic.img", "/readme.txt", host, option}, 8);
      EXPECT_EQ(document["findings"][0]["path"], host);
      EXPECT_NE(std::string(document["findings"][0]["text"]).find("there is no such folder"),
                std::string::npos)
          << document;
    }
  }
  EXPECT_NE(run({"get", "basic.img", "/readme.txt/", "copy"}).err.find("not a directory"),
            std::string::npos);
  EXPECT_EQ(names(), (words{"basic.img", "file", "there"}));
  output_of({"get", "basic.img", "/readme.txt", "there/"});
  EXPECT_EQ(contents("there/readme.txt").size(), 31U);
  output_of({"get", "-r", "basic.img", "/config/", "none/"});
  EXPECT_EQ(contents("none/deep/leaf").size(), 5U);
}

TEST_F(reading_commands, what_cannot_be_copied_out_is_told) {
  store("basic");
  write_whole_file(file("file"), "");
  test_support::expect_golden("image_get.txt",
                              transcript({
                                  {"get", "basic.img", "/readme.txt"},
                                  {"get", "basic.img", "/gone", "copy"},
                                  {"get", "basic.img", "/config", "copy"},
                                  {"get", "basic.img", "/readme.txt", "/empty", "file"},
                                  {"get", "basic.img", "/readme.txt", "no/such/folder"},
                                  {"get", "--json", "basic.img", "/readme.txt", "-"},
                              }));
  EXPECT_EQ(names(), (std::vector<std::string>{"basic.img", "file"}));
}

TEST_F(reading_commands, a_name_that_leads_elsewhere_is_not_copied_out) {
  const std::string small = image_with_name("..");
  std::filesystem::create_directory(file("folder"));
  EXPECT_EQ(run({"get", small, "/..", "folder"}).status, 8);
  EXPECT_EQ(run({"get", "-r", small, "/", "folder"}).status, 8);
  EXPECT_EQ(names(), (std::vector<std::string>{"folder", "small.img"}));
}

TEST_F(reading_commands, what_the_board_would_repair_is_told_and_repaired_in_the_view_alone) {
  for (const char* name : {"orphans", "gap_in_file", "interrupted_copy"}) {
    const std::string image = store(name);
    const std::string before = contents(image);
    const test_support::program_result shown = run({"ls", "-lR", image});
    EXPECT_EQ(shown.status, 0) << name;
    EXPECT_NE(shown.err.find("\"flashfs-image check\""), std::string::npos) << shown.err;
    EXPECT_EQ(run({"--strict", "ls", image}).status, 4) << name;
    const json document = document_of({"ls", image}, 0);
    EXPECT_EQ(document["findings"][0]["code"], "would-repair");
    EXPECT_EQ(contents(image), before);
  }
}

TEST_F(reading_commands, an_image_that_cannot_be_mounted_is_told_as_faulty) {
  const std::string image = store("no_spare");
  EXPECT_EQ(run({"ls", image}).status, 4);
  const json document = document_of({"cat", image, "/readme.txt"}, 4);
  EXPECT_EQ(document["findings"][0]["code"], "faults-left");
  const test_support::program_result shown = run({"-v", "ls", image});
  EXPECT_NE(shown.err.find("file system: unable to allocate available block."), std::string::npos);
}

TEST_F(reading_commands, an_image_comes_from_standard_input_as_well) {
  // The tests' standard input is empty.
  const test_support::program_result result = run({"ls", "-"});
  EXPECT_EQ(result.status, 8);
  EXPECT_NE(result.err.find("flashfs-image: error: -: "), std::string::npos) << result.err;
}

TEST_F(reading_commands, no_command_changes_a_stored_image_or_fails_on_it_unexpectedly) {
  for (const std::string& name : test_support::stored_images()) {
    const std::string image = store(name);
    const std::string before = contents(image);
    for (const std::vector<std::string>& call :
         std::vector<std::vector<std::string>>{{"ls", "-lRa", image},
                                               {"--full", "ls", "-R", image},
                                               {"tree", image},
                                               {"cat", image, "/config/startup.cfg"},
                                               {"-n", "rm", "-rf", "--force", image, "/config"}}) {
      const test_support::program_result result = run(call);
      EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 4 ||
                  result.status == 8)
          << name << ": " << testing::PrintToString(call) << ": " << result.status << "\n"
          << result.err;
      EXPECT_TRUE(contents(image) == before) << name << testing::PrintToString(call);
    }
    std::filesystem::remove(file(image));
  }
}

}  // namespace

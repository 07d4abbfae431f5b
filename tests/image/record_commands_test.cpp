// dump and info, as people run them.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::expect_golden;
using test_support::write_whole_file;

constexpr uint32_t blocks = 4;
constexpr uint32_t block_size = 32768;

class record_commands : public test_support::image_command {
 protected:
  record_commands()
      : bytes(blocks * block_size, '\xFF'),
        builder(reinterpret_cast<uint8_t*>(bytes.data()), blocks, block_size) {
    builder.headers(0);
    builder.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4600, .name = ""});
    builder.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = "file"});
    builder.data_sector(1, 1, 2, 0, "contents");
  }
  // As small.img.
  void save() const {
    write_whole_file(file("small.img"), bytes);
  }
  // One of nearly everything that can be wrong.
  void damage() {
    builder.header(2, {.erase_count = 12, .state = 7});
    builder.header(3, {.erase_count = 3, .state = 0, .good_checksum = false});
    builder.data_sector(3, 0, 2, 1, "lost with its block");
    builder.data_sector(1, 2, 2, 0, "a duplicate");
    builder.data_sector(1, 3, 9, 0, "an orphan");
    builder.data_sector(1, 4, 2, 1, "bad", -1, false);
    builder.data_sector(1, 5, 7, 0, "obsolete");
    builder.sector_at(1, 5)[1] = 0;
    builder.sector_at(1, 6)[100] = 0;
    builder.slot(1, 0, 29,
                 {.seq_no = 2, .entry_fileid = 3, .name = "bad\n", .good_checksum = false});
    builder.slot(1, 0, 28, {.seq_no = 3, .entry_fileid = 4, .name = "deleted"});
    std::memset(builder.slot_at(1, 0, 28) + 2, 0, 2);
    builder.slot(1, 0, 27, {.seq_no = 4, .entry_fileid = 2, .name = "second"});
  }

  std::string bytes;
  test_support::image_builder builder;
};

}  // namespace

TEST_F(record_commands, show_the_records_of_a_sound_image) {
  store("basic");
  expect_golden("image_dump.txt", transcript({
                                      {"dump", "basic.img"},
                                      {"dump", "--block", "1", "basic.img"},
                                      {"dump", "--sector", "1.0", "basic.img"},
                                      {"dump", "--sector", "1.1", "basic.img"},
                                      {"dump", "--slot", "1.0.30", "--hex", "basic.img"},
                                      {"dump", "--at", "0x207e8", "basic.img"},
                                      {"dump", "--at", "131084", "basic.img"},
                                      {"dump", "--at", "0x1b00005", "--hex", "basic.img"},
                                      {"dump", "--path", "/over2049", "basic.img"},
                                      {"dump", "--path", "/config", "basic.img"},
                                      {"dump", "--path", "/", "basic.img"},
                                  }));
}

TEST_F(record_commands, refuse_what_is_not_there) {
  store("basic");
  expect_golden("image_dump_refused.txt", transcript({
                                              {"dump", "--block", "216", "basic.img"},
                                              {"dump", "--sector", "1.63", "basic.img"},
                                              {"dump", "--sector", "1", "basic.img"},
                                              {"dump", "--slot", "1.0.32", "basic.img"},
                                              {"dump", "--slot", "1.1.0", "basic.img"},
                                              {"dump", "--slot", "1.0.x", "basic.img"},
                                              {"dump", "--path", "/gone", "basic.img"},
                                              {"dump", "--at", "33554432", "basic.img"},
                                              {"dump", "--at", "12q", "basic.img"},
                                              {"dump", "--block", "1", "--path", "/", "basic.img"},
                                              {"dump", "gone.img"},
                                          }));
}

TEST_F(record_commands, judge_damaged_records) {
  damage();
  save();
  expect_golden("image_dump_damaged.txt",
                transcript({
                    {"dump", "--geometry", "4x32768", "small.img"},
                    {"dump", "--geometry", "4x32768", "--block", "1", "small.img"},
                    {"dump", "--geometry", "4x32768", "--block", "3", "small.img"},
                    {"dump", "--geometry", "4x32768", "--sector", "1.0", "small.img"},
                    {"dump", "--geometry", "4x32768", "--sector", "1.4", "small.img"},
                    {"dump", "--geometry", "4x32768", "--sector", "1.5", "small.img"},
                    {"dump", "--geometry", "4x32768", "--sector", "1.6", "small.img"},
                    {"dump", "--geometry", "4x32768", "--slot", "1.0.28", "small.img"},
                    {"dump", "--geometry", "4x32768", "--slot", "1.0.29", "small.img"},
                    {"dump", "--geometry", "4x32768", "--path", "/file", "small.img"},
                    {"info", "--geometry", "4x32768", "small.img"},
                    {"info", "--geometry", "4x32768", "--full", "--strict", "small.img"},
                }));
}

TEST_F(record_commands, tell_of_images) {
  save();
  store("blank");
  store("no_spare");
  expect_golden("image_info.txt", transcript({
                                      {"info", "small.img"},
                                      {"info", "blank.img"},
                                      {"info", "gone.img"},
                                  }));
  const std::string without_spare = output_of({"info", "no_spare.img"});
  EXPECT_NE(without_spare.find("mounts         no: the quick check fails\n"), std::string::npos);
  EXPECT_NE(without_spare.find("  error no-spare: "), std::string::npos);
}

TEST_F(record_commands, change_no_image) {
  damage();
  save();
  for (const char* command : {"info", "dump"}) {
    output_of({command, "--geometry", "4x32768", "small.img"});
    EXPECT_EQ(contents("small.img"), bytes);
  }
  EXPECT_EQ(names(), std::vector<std::string>{"small.img"});
}

TEST_F(record_commands, give_documents) {
  store("basic");
  const json info = document_of({"info", "basic.img"}, 0)["result"];
  EXPECT_EQ(info["geometry"]["text"], "256x131072");
  EXPECT_EQ(info["geometry"]["usable_blocks"], 216);
  EXPECT_EQ(info["mounts"], true);
  EXPECT_EQ(info["repairs"], false);
  EXPECT_EQ(info["space"]["available"], 27701248);
  EXPECT_EQ(info["space"]["used"], 38912);
  EXPECT_EQ(info["files"]["files"], 10);
  EXPECT_EQ(info["erase_counts"]["total"], 216);
  ASSERT_EQ(info["blocks"].size(), 216U);
  EXPECT_EQ(info["blocks"][1]["state"], "in use");
  EXPECT_EQ(info["blocks"][1]["data"], 17);
  EXPECT_EQ(info["spare"], 0);

  const json slot = document_of({"dump", "--slot", "1.0.30", "basic.img"}, 0)["result"];
  EXPECT_EQ(slot["slot"]["name"], "readme.txt");
  EXPECT_EQ(slot["slot"]["counts"], true);
  ASSERT_EQ(slot["fields"].size(), 8U);
  EXPECT_EQ(slot["fields"][7]["value"], "de73");
  EXPECT_EQ(slot["fields"][7]["good"], true);

  const json path = document_of({"dump", "--path", "/over2049", "--hex", "basic.img"}, 0)["result"];
  EXPECT_EQ(path["size"], 2049);
  ASSERT_EQ(path["sectors"].size(), 2U);
  EXPECT_EQ(path["sectors"][1]["hex"].get<std::string>().size(), 2U * 2056);
  EXPECT_EQ(path["slot"]["hex"].get<std::string>().size(), 2U * 64);
}

TEST_F(record_commands, give_documents_of_damage) {
  damage();
  save();
  const json all = document_of({"dump", "--geometry", "4x32768", "small.img"}, 0);
  std::vector<std::string> codes;
  for (const json& each : all["findings"]) {
    codes.push_back(each["code"]);
  }
  EXPECT_EQ(codes, (std::vector<std::string>{
                       "slot-second-name", "slot-checksum", "sector-duplicate", "sector-checksum",
                       "sector-not-erased", "block-invalid1", "block-checksum", "orphan"}));
  const json one =
      document_of({"dump", "--geometry", "4x32768", "--sector", "1.4", "small.img"}, 0);
  ASSERT_EQ(one["findings"].size(), 1U);
  EXPECT_EQ(one["findings"][0]["block"], 1);
  EXPECT_EQ(one["findings"][0]["sector"], 4);
  EXPECT_EQ(one["findings"][0]["offset"], 32768 + 32 + 4 * 2056);
  EXPECT_EQ(one["findings"][0]["path"], "/file");
  document_of({"info", "--geometry", "4x32768", "--strict", "small.img"}, 4);
  document_of({"dump", "--geometry", "4x32768", "--strict", "--block", "0", "small.img"}, 0);
}

TEST_F(record_commands, bear_noise) {
  std::mt19937 random(3);
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  // Directory sectors with everything in them wrong.
  for (int block = 0; block < static_cast<int>(blocks); ++block) {
    builder.header(block, {.state = 0});
    builder.sector_at(block, 0)[0] = 0;
    builder.sector_at(block, 0)[1] = 1;
  }
  save();
  document_of({"info", "small.img"}, 0);
  document_of({"dump", "small.img"}, 0);
  document_of({"dump", "--block", "2", "--hex", "small.img"}, 0);
  document_of({"dump", "--sector", "2.0", "small.img"}, 0);
  document_of({"dump", "--slot", "2.0.3", "small.img"}, 0);
  document_of({"dump", "--at", "70000", "small.img"}, 0);
  document_of({"dump", "--path", "/", "small.img"}, 8);
}

// What every command says when all is well and when it is not: as people see it and as a document,
// held against the published schema.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "image/commands/all_commands.h"
#include "tests/image/image_command.h"
#include "tests/image/json_schema.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"

namespace {

using test_support::write_whole_file;
using words = std::vector<std::string>;

// A command line and how it ends. They run one after the other in one folder.
struct line {
  words given;
  int status;
};

// Those that know no image, only the flash of a complex, have tests of their own.
bool is_of_complexes(const std::string& command) {
  return command == "read" || command == "write";
}

const std::vector<line>& all_lines() {
  static const std::vector<line> lines = {
      {{"create", "boot.img", "--geometry", "6x16K", "--from", "source"}, 0},
      {{"create", "boot.img", "--from", "source"}, 8},
      {{"create", "other.img", "--geometry", "6x16K", "--from", "gone"}, 8},
      {{"info", "boot.img"}, 0},
      {{"info", "gone.img"}, 8},
      {{"wear", "boot.img"}, 0},
      {{"wear", "gone.img"}, 8},
      {{"explain", "nothing"}, 8},
      {{"explain", "sector-checksum"}, 0},
      {{"ls", "-l", "boot.img"}, 0},
      {{"ls", "boot.img", "/gone"}, 8},
      {{"tree", "boot.img"}, 0},
      {{"tree", "boot.img", "/gone"}, 8},
      {{"cat", "boot.img", "/folder/file"}, 0},
      {{"cat", "boot.img", "/folder"}, 8},
      {{"get", "boot.img", "/folder/file", "copy"}, 0},
      {{"get", "boot.img", "/folder", "copy"}, 8},
      {{"put", "boot.img", "source/folder/file", "/put"}, 0},
      {{"put", "boot.img", "source/folder/file", "/a b"}, 8},
      {{"mkdir", "boot.img", "/made"}, 0},
      {{"mkdir", "boot.img", "/gone/made"}, 8},
      {{"mv", "boot.img", "/put", "/made/moved"}, 0},
      {{"mv", "boot.img", "/put", "/made/again"}, 8},
      {{"chmod", "boot.img", "600", "/made/moved"}, 0},
      {{"chmod", "boot.img", "888", "/made/moved"}, 16},
      {{"truncate", "boot.img", "-s", "3", "/made/moved"}, 0},
      {{"truncate", "boot.img", "-s", "3", "/made"}, 8},
      {{"diff", "boot.img", "boot.img"}, 0},
      {{"rm", "-o", "less.img", "boot.img", "/made/moved"}, 0},
      {{"rm", "boot.img", "/made"}, 8},
      {{"diff", "boot.img", "less.img"}, 1},
      {{"diff", "boot.img", "less.img", "--records"}, 1},
      {{"diff", "boot.img", "gone.img"}, 8},
      {{"check", "boot.img"}, 0},
      {{"check", "damaged.img"}, 4},
      {{"check", "--repair", "damaged.img", "-o", "mended.img"}, 1},
      {{"rescue", "boot.img", "-o", "rescued.img"}, 0},
      {{"rescue", "--plan", "damaged.img"}, 4},
      {{"rescue", "damaged.img"}, 16},
      {{"verify", "less.img", "--against", "source"}, 1},
      {{"verify", "boot.img"}, 0},
      {{"extract", "boot.img", "-C", "out"}, 0},
      {{"extract", "boot.img", "-C", "source"}, 8},
      {{"dump", "boot.img", "--slot", "4.0.31"}, 0},
      {{"dump", "boot.img", "--slot", "1.0.32"}, 8},
      {{"import", "back.img", "--geometry", "6x16K", "log"}, 4},
      {{"import", "none.img", "source/folder/file"}, 8},
      {{"format", "less.img", "--force"}, 0},
      {{"format", "less.img"}, 16},
  };
  return lines;
}

class documents : public test_support::image_command {
 protected:
  // What the lines find when they begin. A file of today has the date that the dates are clamped
  // to.
  documents() {
    umask(022);
    std::filesystem::create_directories(file("source/folder"));
    write_whole_file(file("source/folder/file"), "contents\n");
    write_whole_file(file("log"),
                     "0x00004000    00020001 ffffffff ffffffff ffffffff "
                     "ffffffff ffffffff ffffffff ffffffff\n");
    constexpr uint32_t block_size = 16384;
    std::string bytes(4 * block_size, '\xFF');
    test_support::image_builder builder(reinterpret_cast<uint8_t*>(bytes.data()), 4, block_size);
    builder.headers(0);
    builder.slot(1, 0, 31, {.entry_fileid = 1, .mode = 0x4600, .name = ""});
    builder.data_sector(1, 1, 2, 0, "an orphan");
    write_whole_file(file("damaged.img"), bytes);
  }
};

TEST_F(documents, are_had_of_every_command) {
  std::set<std::string> good;
  std::set<std::string> bad;
  for (const line& one : all_lines()) {
    (one.status == 0 || (one.given[0] == "import" && one.status == 4) ? good : bad)
        .insert(one.given[0]);
  }
  for (const image::command& one : image::all_commands()) {
    if (is_of_complexes(one.name)) {
      continue;
    }
    EXPECT_TRUE(good.contains(one.name)) << one.name;
    EXPECT_TRUE(bad.contains(one.name)) << one.name;
  }
}

TEST_F(documents, have_results_that_the_schema_describes) {
  using test_support::schema_fault;
  const auto document = [](const std::string& command, int status, const char* result) {
    return nlohmann::ordered_json{{"schema", "flashfs-image/1"},
                                  {"command", command},
                                  {"status", status},
                                  {"result", nlohmann::ordered_json::parse(result)},
                                  {"findings", nlohmann::ordered_json::array()}};
  };
  const nlohmann::ordered_json& schema = test_support::published_schema();
  for (const image::command& one : image::all_commands()) {
    EXPECT_EQ(schema_fault(schema, document(one.name, 8, "{}")), "") << one.name;
    EXPECT_EQ(schema_fault(schema, document(one.name, 8, R"({"else": 1})")),
              "document.result: must not have else")
        << one.name;
  }
  EXPECT_EQ(schema_fault(schema, document("ls", 0, "{}")), "document.result: lacks entries");
  EXPECT_EQ(schema_fault(schema, document("ls", 0, R"({"entries": [{"id": 2, "type": "file"}]})")),
            "document.result.entries[0]: lacks path");
  EXPECT_EQ(schema_fault(schema, document("put", 0, R"({"written": 1})")),
            R"(document.result.written: is not of type ["string","null"])");
  EXPECT_EQ(schema_fault(schema, document("diff", 1,
                                          R"({"differences": [{"path": "/a", "sign": "?",
                                              "in": ""}], "equal": false})")),
            "document.result.differences[0]: fits none of what it may be");
  EXPECT_EQ(schema_fault(schema, document("dump", 0, R"({"hex": "00"})")),
            "document.result: fits none of what it may be");
}

TEST_F(documents, fit_the_schema_and_say_the_same) {
  std::string text;
  for (const line& one : all_lines()) {
    text += "$ flashfs-image --json";
    for (const std::string& word : one.given) {
      text += " " + word;
    }
    text += "\n" + document_of(one.given, one.status).dump(1) + "\n";
  }
  test_support::expect_golden("image_documents.txt", text);
}

TEST_F(documents, are_text_for_people) {
  std::vector<words> calls;
  for (const line& one : all_lines()) {
    calls.push_back(one.given);
  }
  test_support::expect_golden("image_commands.txt", transcript(calls));
}

}  // namespace

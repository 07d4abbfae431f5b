// rescue on the flash of a complex, in place, over a simulated chassis: the worst that a power cut
// leaves, made by a real one, and a rescue that has its own power cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/image/chassis_command.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::program_result;
using test_support::write_whole_file;
using words = std::vector<std::string>;

class complex_rescue : public test_support::chassis_command {
 protected:
  // Runs a command on complex 4, without a copy and without asking.
  program_result change(words command) const {
    command.insert(command.begin(), {"--ppc", "4", "--yes", "--no-backup"});
    return run(command);
  }
  // Has it end by a power cut at a mutation; the flash is as that leaves it.
  void cut(const words& command, const std::string& where) const {
    set_chassis("cut 4 " + where + "\n");
    EXPECT_EQ(change(command).status, power_cut) << where;
    set_chassis("");
  }
  // What the board's listing says; the flash is put back as it was.
  std::string listing_of_board() const {
    const std::string before = flash();
    const std::string said = zantrolume({"4", "dir"}).out;
    set_flash(before);
    return said;
  }
  // The flash holds the files of an image, but for what differs, and a mount has nothing to repair.
  void expect_files_of(const std::string& image, const std::string& differs = "") const {
    write_whole_file(file("left.img"), flash());
    EXPECT_EQ(
        output_of({"--strict", "diff", "--files", image, "left.img"}, differs.empty() ? 0 : 1),
        differs);
  }
};

}  // namespace

TEST_F(complex_rescue, a_flash_that_never_mounts_again_is_mended_and_saved_before) {
  store("basic");
  set_stored_flash("basic");
  write_whole_file(file("new"), "contents");
  cut({"put", "new", "/new"}, "during 1");
  const std::string left = flash();
  EXPECT_NE(listing_of_board().find("Inconsistency found in directory slot"), std::string::npos);
  const json check = document_of({"--ppc", "4", "check", "--quick"}, 4);
  EXPECT_EQ(check["result"]["checks"][0]["usable"], false);
  // A plan asks for nothing and changes nothing, and nobody changes anything without a yes.
  const json plan = document_of({"--ppc", "4", "rescue", "--plan"}, 1);
  EXPECT_EQ(plan["result"]["decisions"][0]["code"], "slot-dropped");
  EXPECT_EQ(run({"--ppc", "4", "rescue"}).status, 16);
  EXPECT_TRUE(flash() == left);
  const json done = document_of({"--ppc", "4", "--yes", "rescue"}, 1);
  EXPECT_EQ(done["result"]["written"], "PPC 4");
  ASSERT_EQ(backups().size(), 1U);
  EXPECT_EQ(done["result"]["complex"]["backup"], backups()[0]);
  EXPECT_TRUE(contents(backups()[0]) == left);
  EXPECT_NE(listing_of_board().find("readme.txt"), std::string::npos);
  expect_files_of("basic.img");
}

TEST_F(complex_rescue, a_file_that_the_next_listing_would_drop_is_kept) {
  store("basic");
  set_stored_flash("basic");
  cut({"truncate", "-s", "3000", "/config/startup.cfg"}, "during 100");
  const json check = document_of({"--ppc", "4", "check", "--quick"}, 4);
  const json& told = check["findings"];
  EXPECT_TRUE(std::any_of(told.begin(), told.end(), [](const json& one) {
    return one["code"] == "check-file-dropped" && one["path"] == "/config/startup.cfg";
  })) << told;
  // Its result can go into a file or a folder, too, and the flash stays.
  const std::string left = flash();
  EXPECT_EQ(run({"--ppc", "4", "rescue", "-o", "mended.img"}).status, 1);
  EXPECT_EQ(run({"--ppc", "4", "rescue", "--to-dir", "files"}).status, 1);
  EXPECT_EQ(contents("files/config/startup.cfg").size(), 15600U);
  EXPECT_TRUE(flash() == left);
  EXPECT_EQ(change({"rescue"}).status, 1);
  EXPECT_TRUE(flash() == contents("mended.img"));
  expect_files_of("basic.img");
}

// Longer than others: only a flash that is full loses its spare.
TEST_F(complex_rescue, a_flash_without_a_spare_is_mended_in_spite_of_cuts) {
  std::filesystem::create_directory(file("files"));
  constexpr size_t sectors = 215 * 63;
  constexpr size_t others = 60 + 4;  // those that go, names, one that stays free
  write_whole_file(file("files/big"), std::string((sectors - others) * 2048, 'b'));
  write_whole_file(file("files/small"), std::string(60 * 2048, 's'));
  write_whole_file(file("new"), std::string(5000, 'n'));
  output_of({"create", "full.img", "--from", "files"});
  output_of({"rm", "full.img", "/small"});
  set_flash(contents("full.img"));
  // When it goes into use, the block that was the spare stands beside the one that it replaces.
  cut({"put", "new", "/new"}, "after 1094");
  for (int run = 0; run < 2; ++run) {
    EXPECT_NE(zantrolume({"4", "dir"}).out.find("unable to allocate available block"),
              std::string::npos);
  }
  const std::string left = flash();
  for (const char* where : {"during-noise 1", "during 5"}) {
    set_flash(left);
    cut({"rescue"}, where);
    EXPECT_EQ(change({"rescue"}).status, 1) << where;
    expect_files_of("full.img", "+ /new\n");  // its name was written before
  }
}

TEST_F(complex_rescue, a_rescue_that_was_cut_is_taken_up_by_the_next) {
  store("gap_in_file");
  const std::string before = contents("gap_in_file.img");
  output_of({"rescue", "gap_in_file.img", "-o", "mended.img"}, 1);
  set_flash(before);
  set_chassis("report\n");
  EXPECT_EQ(change({"rescue"}).status, 1);
  EXPECT_TRUE(flash() == contents("mended.img"));
  EXPECT_EQ(reported("deviations"), 0U);
  const uint64_t mutations = reported("programs") + reported("erases");
  ASSERT_GT(mutations, 1000U);
  for (const std::string& where :
       {"during-noise " + std::to_string(mutations / 2), "before " + std::to_string(mutations)}) {
    set_flash(before);
    cut({"rescue"}, where);
    const int status = change({"rescue"}).status;
    EXPECT_TRUE(status == 0 || status == 1) << where << " " << status;
    expect_files_of("mended.img");
  }
}

TEST_F(complex_rescue, a_removed_file_comes_back_whole_in_spite_of_a_cut) {
  set_stored_flash("basic");
  const std::string contents_before = output_of({"--ppc", "4", "cat", "/config/startup.cfg"});
  EXPECT_EQ(change({"rm", "/config/startup.cfg"}).status, 0);
  const std::string removed = flash();
  for (const char* where : {"during 1000", "after 5000"}) {
    set_flash(removed);
    cut({"rescue", "--deleted"}, where);
    EXPECT_EQ(change({"rescue", "--deleted"}).status, 1) << where;
    EXPECT_TRUE(output_of({"--ppc", "4", "cat", "/config/startup.cfg"}) == contents_before)
        << where;
  }
}

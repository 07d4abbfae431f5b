// flashfs-image on the flash of a complex, over a simulated chassis: what it reads is what a file
// with the same bytes gives, what it changes is saved before, asked for and read back, and a power
// cut at any moment leaves what the next run mends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>

#include "tests/image/chassis_command.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/support/stored_image.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::program_result;
using test_support::read_stored_image;
using test_support::read_whole_file;
using test_support::write_whole_file;

constexpr size_t flash_size = 32U << 20;
constexpr size_t block_size = 128U << 10;

class complex : public test_support::chassis_command {};

// Blocks of noise at some places of an otherwise erased flash.
std::string noise(uint32_t seed, int blocks) {
  std::string bytes(flash_size, '\xFF');
  std::mt19937 random(seed);
  for (int i = 0; i < blocks; ++i) {
    const size_t block = random() % (flash_size / block_size);
    for (size_t at = 0; at < block_size; at += 64) {
      const auto word = static_cast<uint32_t>(random());
      bytes.replace(block * block_size + at, sizeof(word), reinterpret_cast<const char*>(&word),
                    sizeof(word));
    }
  }
  return bytes;
}

json without_name(json document) {
  document["result"].erase("image");
  for (json& one : document["findings"]) {
    one.erase("path");
  }
  return document;
}

}  // namespace

TEST_F(complex, is_read_as_a_file_with_the_same_bytes) {
  for (const std::string name : {"gap_in_file"}) {
    store(name);
    set_stored_flash(name);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"ls", "-lR"}, {"check"}, {"info"}, {"dump"}, {"wear"}, {"--full", "tree"}}) {
      std::vector<std::string> of_file = words;
      of_file.push_back(name + ".img");
      std::vector<std::string> of_complex = words;
      of_complex.insert(of_complex.begin(), {"--ppc", "4"});
      const int status = run(of_file).status;
      EXPECT_EQ(without_name(document_of(of_complex, status)),
                without_name(document_of(of_file, status)))
          << name << " " << words[0];
    }
    EXPECT_EQ(flash(), read_stored_image(name)) << name;
  }
  EXPECT_EQ(backups(), std::vector<std::string>());
}

TEST_F(complex, tells_before_it_happens_what_the_next_listing_drops) {
  set_stored_flash("gap_in_file");
  const json document = document_of({"check", "--quick", "--ppc", "4"}, 4);
  std::set<std::string> dropped;
  for (const json& one : document["findings"]) {
    if (one["code"] == "check-file-dropped" || one["code"] == "check-file-removed" ||
        one["code"] == "check-file-changed") {
      dropped.insert(one["path"]);
    }
  }
  EXPECT_FALSE(dropped.empty()) << document;
  // info tells the same, behind what is wrong.
  const json info = document_of({"info", "--ppc", "4"}, 0);
  for (const json& one : document["result"]["checks"][0]["findings"]) {
    EXPECT_NE(std::find(info["findings"].begin(), info["findings"].end(), one),
              info["findings"].end())
        << one;
  }
  const program_result before = run({"--ppc", "4", "ls"});
  zantrolume({"4", "dir"});
  EXPECT_EQ(run({"--ppc", "4", "ls"}).out, before.out);
  EXPECT_NE(flash(), read_stored_image("gap_in_file"));
}

TEST_F(complex, a_listing_reads_no_more_than_it_looks_at) {
  set_stored_flash("many");
  set_chassis("report\n");
  output_of({"--ppc", "4", "ls"});
  EXPECT_LT(reported("words_read"), flash_size / 2 / 4);
  EXPECT_EQ(reported("deviations"), 0U);
  output_of({"--ppc", "4", "wear"});
  EXPECT_LT(reported("words_read"), 216U * 20);
}

TEST_F(complex, is_read_into_a_file) {
  set_stored_flash("basic");
  const json document = document_of({"--ppc", "4", "read", "dump.flash"}, 0);
  EXPECT_EQ(document["result"]["size"], flash_size);
  EXPECT_EQ(contents("dump.flash"), flash());
  EXPECT_EQ(run({"--ppc", "4", "read", "dump.flash"}).status, 8);
  EXPECT_EQ(run({"--ppc", "4", "-n", "read", "other.flash"}).status, 0);
  EXPECT_EQ(run({"--ppc", "4", "read", "dump.flash", "--force"}).status, 0);
  EXPECT_EQ(output_of({"--ppc", "4", "read", "-"}), flash());
  EXPECT_EQ(run({"--ppc", "4", "--json", "read", "-"}).status, 16);
}

TEST_F(complex, only_blocks_that_differ_are_written) {
  const std::string before = noise(1, 6);
  std::string after = before;
  after[3 * block_size] = '\x7F';          // was erased: a bit is cleared
  after[255 * block_size + 100] = '\x00';  // in a block that is not the file system's
  const size_t noisy = before.find_first_not_of('\xFF');
  after[noisy] = static_cast<char>(~before[noisy]);  // some bit has to be set
  set_flash(before);
  write_whole_file(file("after"), after);
  set_chassis("report\n");
  const json document = document_of({"--ppc", "4", "--yes", "write", "after"}, 0);
  EXPECT_EQ(document["result"]["complex"]["blocks"], 3);
  EXPECT_EQ(document["result"]["complex"]["erased"], 1);
  EXPECT_EQ(document["result"]["complex"]["written"], true);
  EXPECT_EQ(reported("erases"), 1U);
  EXPECT_LE(reported("programs"), block_size / 64 * 2 + 2);
  EXPECT_EQ(reported("deviations"), 0U);
  EXPECT_TRUE(flash() == after);
  ASSERT_EQ(backups().size(), 1U);
  EXPECT_EQ(document["result"]["complex"]["backup"], backups()[0]);
  EXPECT_TRUE(contents(backups()[0]) == before);
  // Again there is nothing to do, nor to save.
  EXPECT_NE(run({"--ppc", "4", "--yes", "write", "after"}).err.find("holds that already"),
            std::string::npos);
  EXPECT_EQ(reported("programs"), 0U);
  EXPECT_EQ(backups().size(), 1U);
  // A second copy has a name of its own.
  output_of({"--ppc", "4", "--yes", "write", backups()[0]});
  EXPECT_EQ(backups().size(), 2U);
  EXPECT_TRUE(flash() == before);
}

TEST_F(complex, a_write_that_was_cut_goes_on_when_it_is_run_again) {
  const std::string before = noise(2, 2);
  const std::string after = noise(3, 2);
  write_whole_file(file("after"), after);
  const std::vector<std::string> words = {"--ppc", "4", "-y", "--no-backup", "write", "after"};
  for (const char* cut : {"before 1", "during 1", "during-noise 2", "during 700", "after 5000"}) {
    set_flash(before);
    set_chassis(std::string("cut 4 ") + cut + "\n");
    EXPECT_EQ(run(words).status, power_cut) << cut;
    set_chassis("");
    EXPECT_EQ(run(words).status, 0) << cut;
    EXPECT_TRUE(flash() == after) << cut;
  }
  EXPECT_EQ(backups(), std::vector<std::string>());
}

TEST_F(complex, a_write_needs_a_whole_flash) {
  set_stored_flash("basic");
  write_whole_file(file("short"), "short");
  EXPECT_EQ(run({"--ppc", "4", "-y", "write", "short"}).status, 8);
  EXPECT_EQ(run({"--ppc", "4", "-y", "write", "gone"}).status, 8);
  EXPECT_EQ(run({"--ppc", "4", "-y", "write", "chassis"}).status, 8);
}

TEST_F(complex, an_edit_comes_to_what_the_edit_of_a_file_comes_to) {
  const std::string image = store("many");
  set_stored_flash("many");
  write_whole_file(file("new"), std::string(5000, 'n'));
  const std::vector<std::vector<std::string>> edits = {{"put", "new", "/new"},
                                                       {"mkdir", "/made"},
                                                       {"mv", "/new", "/made/moved"},
                                                       {"rm", "-r", "/made"},
                                                       {"format", "--force"}};
  for (const std::vector<std::string>& edit : edits) {
    std::vector<std::string> of_file = edit;
    of_file.insert(of_file.begin() + 1, image);
    output_of(of_file);
    std::vector<std::string> of_complex = edit;
    of_complex.insert(of_complex.begin(), {"--ppc", "4", "--yes"});
    const std::string before = flash();
    const std::vector<std::string> saved = backups();
    const json document = document_of(of_complex, 0);
    EXPECT_TRUE(flash() == contents(image)) << edit[0];
    ASSERT_EQ(backups().size(), saved.size() + 1) << edit[0];
    const std::string backup = document["result"]["complex"]["backup"];
    EXPECT_TRUE(contents(backup) == before) << edit[0];
    EXPECT_EQ(document["result"]["written"], "PPC 4") << edit[0];
  }
}

TEST_F(complex, an_edit_can_go_into_a_file) {
  set_stored_flash("basic");
  store("basic");
  output_of({"-o", "one.img", "rm", "basic.img", "/readme.txt"});
  output_of({"--ppc", "4", "-o", "two.img", "rm", "/readme.txt"});
  EXPECT_EQ(contents("one.img"), contents("two.img"));
  EXPECT_EQ(flash(), read_stored_image("basic"));
  EXPECT_EQ(backups(), std::vector<std::string>());
}

TEST_F(complex, an_edit_that_is_tried_changes_nothing) {
  set_stored_flash("basic");
  output_of({"--ppc", "4", "-n", "rm", "/readme.txt"});
  EXPECT_EQ(run({"--ppc", "4", "-n", "rm", "/gone"}).status, 8);
  write_whole_file(file("other"), noise(1, 1));
  const json document = document_of({"--ppc", "4", "-n", "write", "other"}, 0);
  EXPECT_EQ(document["result"]["complex"]["written"], false);
  EXPECT_EQ(flash(), read_stored_image("basic"));
  EXPECT_EQ(backups(), std::vector<std::string>());
}

TEST_F(complex, an_edit_with_its_power_cut_leaves_what_the_board_would_leave) {
  // The file is there with its old contents, its new ones, or not yet: the order of writes is the
  // file system's own.
  const std::string before = read_stored_image("basic");
  const std::string kept = [&] {
    store("basic");
    return output_of({"cat", "basic.img", "/over2049"});
  }();
  write_whole_file(file("new"), "new contents of a file");
  set_flash(before);
  set_chassis("report\n");
  output_of({"--ppc", "4", "-y", "--no-backup", "put", "new", "/readme.txt"});
  const uint64_t mutations = reported("programs") + reported("erases");
  ASSERT_GT(mutations, 20U);
  const std::string after = flash();
  std::set<std::string> seen;
  for (uint64_t mutation = 1; mutation <= mutations; mutation += mutations / 5) {
    set_flash(before);
    set_chassis("cut 4 during " + std::to_string(mutation) + "\n");
    EXPECT_EQ(run({"--ppc", "4", "-y", "--no-backup", "put", "new", "/readme.txt"}).status,
              power_cut);
    set_chassis("");
    EXPECT_EQ(zantrolume({"4", "dir"}).out.find("failed"), std::string::npos) << mutation;
    EXPECT_EQ(output_of({"--ppc", "4", "cat", "/over2049"}), kept) << mutation;
    EXPECT_EQ(run({"--ppc", "4", "check", "--quick"}).status, 0) << mutation;
  }
}

TEST_F(complex, a_check_repairs_in_place) {
  for (const std::string name : {"orphans", "interrupted_copy"}) {
    const std::string image = store(name);
    set_stored_flash(name);
    const int status = run({"check", "--repair", "--force", image}).status;
    const json document =
        document_of({"check", "--repair", "--force", "--ppc", "4", "--yes"}, status);
    EXPECT_TRUE(flash() == contents(image)) << name;
    EXPECT_EQ(run({"check", "--ppc", "4"}).status, run({"check", image}).status) << name;
  }
}

TEST_F(complex, nothing_is_changed_that_nobody_has_said_yes_to) {
  set_stored_flash("basic");
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"rm", "/readme.txt"}, {"format", "--force"}, {"check", "--repair"}, {"write", "x"}}) {
    write_whole_file(file("x"), std::string(flash_size, '\xFF'));
    std::vector<std::string> line = words;
    line.insert(line.begin(), {"--ppc", "4"});
    const json document = document_of(line, 16);
    EXPECT_NE(document["findings"][0]["text"].get<std::string>().find("--yes"), std::string::npos);
  }
  EXPECT_EQ(flash(), read_stored_image("basic"));
  EXPECT_EQ(backups(), std::vector<std::string>());
}

TEST_F(complex, at_a_terminal_it_asks) {
  if (shell("command -v script").status != 0) {
    GTEST_SKIP() << "no program to play a terminal";
  }
  set_stored_flash("basic");
  const auto answer = [&](const char* text) {
    return shell(std::string("(sleep 1; echo ") + text +
                 "; sleep 1) | script -qec \"$tool --ppc 4 rm /readme.txt\" typescript");
  };
  const program_result no = answer("n");
  EXPECT_EQ(no.status, 8) << no.out;
  EXPECT_NE(no.out.find("1 block of PPC 4 to be changed, 0 of them erased. Go on? [y/N]"),
            std::string::npos)
      << no.out;
  EXPECT_EQ(flash(), read_stored_image("basic"));
  const program_result yes = answer("y");
  EXPECT_EQ(yes.status, 0) << yes.out;
  EXPECT_EQ(output_of({"--ppc", "4", "ls"}).find("readme.txt"), std::string::npos);
  EXPECT_EQ(backups().size(), 2U);
}

TEST_F(complex, what_cannot_be_reached_is_told_as_the_program_of_the_board_tells_it) {
  set_stored_flash("basic");
  const auto text_of = [&](const std::vector<std::string>& words, int status) {
    return document_of(words, status)["findings"][0]["text"].get<std::string>();
  };
  set_chassis("running 4\n");
  EXPECT_EQ(text_of({"--ppc", "4", "ls"}, 8), "PPC Flashfs access requires PPC 4 to be in reset.");
  EXPECT_NE(zantrolume({"4", "dir"}).out.find(text_of({"--ppc", "4", "ls"}, 8)), std::string::npos);
  EXPECT_EQ(run({"--ppc", "5", "wear"}).status, 0);
  set_chassis("fail open 13\n");
  EXPECT_EQ(text_of({"--ppc", "4", "ls"}, 8), "Failed to open file VEXMOR device driver, errno 13");
  set_chassis("fail map 12\n");
  EXPECT_EQ(text_of({"--ppc", "4", "ls"}, 8), "mmap failed, errno 12.");
  set_chassis("");
  for (const std::string number : {"2", "9", "-1"}) {
    EXPECT_EQ(text_of({"--ppc", number, "ls"}, 16),
              "Invalid ppc number : " + number + " (--help tells more)");
  }
  EXPECT_EQ(run({"--ppc", "x", "ls"}).status, 16);
  EXPECT_EQ(run({"--ppc", "4", "--geometry", "256x128K", "ls"}).status, 16);
  EXPECT_EQ(run({"--ppc", "4", "explain"}).status, 16);
  EXPECT_EQ(run({"read", "dump"}).status, 16);
  EXPECT_EQ(run({"write", "dump"}).status, 16);
}

TEST_F(complex, a_flash_that_does_not_become_ready_ends_a_change) {
  set_stored_flash("basic");
  set_chassis("ready 4 never 3\n");
  const program_result result = run({"--ppc", "4", "-y", "rm", "/readme.txt"});
  EXPECT_EQ(result.status, 8);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("did not become ready in time"), std::string::npos) << result.err;
  ASSERT_EQ(backups().size(), 1U);
  EXPECT_NE(result.err.find("write --ppc 4 " + backups()[0]), std::string::npos) << result.err;
  set_chassis("");
  output_of({"--ppc", "4", "-y", "write", backups()[0]});
  EXPECT_EQ(flash(), read_stored_image("basic"));
}

TEST_F(complex, runs_share_the_device_with_those_of_the_board) {
  set_stored_flash("basic");
  const int lock = open(file("chassis/.lock1").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  const program_result result = run({"--ppc", "4", "--lock-timeout", "0.2", "ls"});
  EXPECT_EQ(result.status, 8);
  EXPECT_EQ(result.err,
            "flashfs-image: another run has /dev/vexmor1, waiting for its end\n"
            "flashfs-image: error: PPC 4: is in use by another run\n");
  EXPECT_EQ(run({"--ppc", "7", "--lock-timeout", "0.2", "wear"}).status, 0);
  close(lock);
  EXPECT_EQ(run({"--ppc", "4", "--lock-timeout", "0.2", "ls"}).status, 0);
}

TEST_F(complex, a_signal_ends_a_write_between_two_blocks_and_the_next_goes_on) {
  const std::string before = noise(4, 1);
  std::string after(flash_size, '\xA5');
  set_flash(before);
  write_whole_file(file("after"), after);
  const program_result result = shell(
      "cp chassis/ppc4.flash before; $tool --ppc 4 -y --no-backup write after & "
      "while cmp -s before chassis/ppc4.flash; do sleep 0.1; done; kill -TERM $!; wait $!");
  EXPECT_EQ(result.status, 32) << result.err;
  EXPECT_NE(result.err.find("the same again goes on"), std::string::npos) << result.err;
  const std::string left = flash();
  for (size_t at = 0; at < flash_size; at += block_size) {
    const std::string block = left.substr(at, block_size);
    EXPECT_TRUE(block == before.substr(at, block_size) || block == after.substr(at, block_size));
  }
}

TEST_F(complex, a_change_is_finished_whatever_signals_come) {
  // Slow enough for two signals, where each cycle takes its time.
  set_chassis(std::string("ready 4 low ") + (emulator().empty() ? "2000\n" : "100\n"));
  set_stored_flash("basic");
  write_whole_file(file("new"), std::string(20000, 'n'));
  const program_result result = shell(
      "$tool --ppc 4 -y --no-backup put new /new 2>err & "
      "until grep -q 'to be changed' err; do sleep 0.1; done; sleep 0.3; "
      "kill -TERM $!; sleep 0.3; kill -HUP $!; wait $!");
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(
      contents("err").find("flashfs-image: interrupted, ends after the change of the flash\n"),
      std::string::npos)
      << contents("err");
  set_chassis("");
  EXPECT_EQ(output_of({"--ppc", "4", "cat", "/new"}), std::string(20000, 'n'));
  EXPECT_EQ(run({"--ppc", "4", "check"}).status, 0);
}

TEST_F(complex, a_chassis_that_is_not_there_is_told) {
  environment_["ZANTROLUME_CHASSIS"] = file("nowhere");
  const json document = document_of({"--ppc", "4", "ls"}, 8);
  EXPECT_EQ(document["findings"][0]["text"], "the device or the file system gave up");
}

TEST_F(complex, the_device_never_becomes_standard_output) {
  set_stored_flash("basic");
  // The answer is lost, which is a failure.
  EXPECT_EQ(shell("$tool --ppc 4 ls >&-").status, 8);
  EXPECT_EQ(shell("$tool --ppc 4 ls -v >&- 2>&-").status, 8);
  store("basic");
  EXPECT_EQ(shell("$tool ls -l basic.img >&- 2>&-").status, 8);
  EXPECT_EQ(contents("basic.img"), read_stored_image("basic"));
  EXPECT_EQ(flash(), read_stored_image("basic"));
}

TEST_F(complex, the_programs_name_their_device) {
  program_ = FLASHFS_IMAGE_PROGRAM;
  const json document = document_of({"--ppc", "4", "ls"}, 8);
  EXPECT_EQ(document["findings"][0]["text"], "Failed to open file VEXMOR device driver, errno 2");
}

TEST_F(complex, wear_is_told_in_rows) {
  std::string bytes(8 * block_size, '\xFF');
  test_support::image_builder builder(reinterpret_cast<uint8_t*>(bytes.data()), 8, block_size);
  builder.headers(0);
  builder.header(2, {.erase_count = 12, .state = 7});
  builder.header(3, {.erase_count = 3, .state = 0});
  builder.header(4, {.erase_count = 3, .state = 0, .good_checksum = false});
  builder.header(7, {.erase_count = 104, .state = 0});
  write_whole_file(file("worn.img"), bytes);
  std::fill_n(bytes.begin() + 5 * block_size, 100, '\xFF');
  write_whole_file(file("erased.img"), bytes);
  std::string rows(20 * block_size, '\xFF');
  test_support::image_builder many(reinterpret_cast<uint8_t*>(rows.data()), 20, block_size);
  many.headers(0);
  many.header(19, {.erase_count = 1234567, .state = 0});
  write_whole_file(file("rows.img"), rows);
  test_support::expect_golden(
      "image_wear.txt",
      transcript({{"wear", "--geometry", "8x128K", "worn.img"},
                  {"--color", "always", "wear", "--geometry", "8x128K", "erased.img"},
                  {"wear", "rows.img"},
                  {"wear", "--json", "--geometry", "8x128K", "worn.img"}}));
}

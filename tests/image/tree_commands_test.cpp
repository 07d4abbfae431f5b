// create, extract, verify and diff, as people run them: trees into images and back, with archives
// of others on either side.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "image/extraction.h"
#include "image/tree.h"
#include "tests/image/image_command.h"
#include "tests/image/tree_text.h"
#include "tests/support/stored_image.h"

namespace image_test {
namespace {

using json = nlohmann::ordered_json;
using test_support::shell_output;
using test_support::write_whole_file;

class tree_commands : public test_support::image_command {
 protected:
  tree_commands() {
    environment_.clear();
  }
  std::string sh(const std::string& command) const {
    return shell_output("cd '" + file("") + "' && " + command);
  }
  // The program's command line for a shell.
  static std::string program() {
    return emulator() + " '" FLASHFS_IMAGE_PROGRAM "'";
  }
  // The target's program is built without the library for it.
  static bool has_tar() {
    return emulator().empty();
  }
  // Makes a folder of a tree; returns what is in it.
  std::string lay_out(const image::tree& from, const std::string& folder) const {
    EXPECT_EQ(problems_text(image::extract_tree(from, file(folder), {}).errors), "");
    return tree_text(image::read_folder(file(folder), {}));
  }
  std::string text_of_folder(const std::string& folder) const {
    return tree_text(image::read_folder(file(folder), {}));
  }
  bool are_equal(const std::string& image, const std::string& other) const {
    return sh("cmp -s " + image + " " + other + " && echo yes || echo no") == "yes\n";
  }
  // What the simulated chassis prints with an image in it; the image as it is afterwards.
  std::string on_the_board(const std::string& image, const std::string& words) const {
    return sh("mkdir -p chassis && echo 'clock 1800000000' > chassis/chassis.txt && cp " + image +
              " chassis/ppc4.flash && ZANTROLUME_CHASSIS=chassis " + emulator() +
              " '" ZANTROLUME_SIM_PROGRAM "' 4 " + words);
  }
};

TEST_F(tree_commands, a_tree_comes_back_as_it_was) {
  const std::string before = lay_out(manifold_tree(), "in");
  EXPECT_EQ(output_of({"create", "boot.img", "--from", "in"}), "");
  EXPECT_EQ(output_of({"extract", "boot.img", "-C", "out"}), "");
  EXPECT_EQ(text_of_folder("out"), before);
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "--strict"}), "");
}

TEST_F(tree_commands, two_thousand_files_come_back) {
  std::vector<image::tree_entry> entries;
  for (int i = 0; i < 2000; ++i) {
    const std::string folder = "d" + std::to_string(i % 37);
    if (i < 37) {
      entries.push_back(folder_entry(folder));
    }
    entries.push_back(file_entry(folder + "/f" + std::to_string(i),
                                 std::string(static_cast<size_t>(i), 'x'), 0644,
                                 1500000000U + static_cast<uint32_t>(i)));
  }
  const std::string before = lay_out(tree_of(std::move(entries)), "in");
  output_of({"create", "boot.img", "--from", "in"});
  output_of({"extract", "boot.img", "-C", "out"});
  EXPECT_TRUE(text_of_folder("out") == before);
}

TEST_F(tree_commands, the_same_files_give_the_same_bytes) {
  lay_out(manifold_tree(), "in");
  sh("tar -cf in.tar -C in . && cp -a in other");
  output_of({"create", "1.img", "--from", "in"});
  output_of({"create", "2.img", "--from", "other"});
  output_of({"create", "3.img", "--from", has_tar() ? "in.tar" : "in"});
  EXPECT_TRUE(are_equal("1.img", "2.img"));
  EXPECT_TRUE(are_equal("1.img", "3.img"));
  EXPECT_EQ(sh("stat -c %s 1.img"), "33554432\n");
  environment_["SOURCE_DATE_EPOCH"] = "1234567000";
  output_of({"create", "4.img", "--from", "in"});
  sh("find in other -exec touch {} +");
  output_of({"create", "5.img", "--from", "in"});
  output_of({"create", "6.img", "--from", "other"});
  EXPECT_FALSE(are_equal("1.img", "4.img"));
  EXPECT_TRUE(are_equal("5.img", "6.img"));
}

TEST_F(tree_commands, an_image_is_the_same_on_every_machine) {
  // Made on a little-endian host, and of the same input by the target's program: big-endian.
  image::tree from = tree_of({folder_entry("d", 0755, 1600000000),
                              file_entry("d/a", std::string(5000, 'a'), 0644, 1600000001),
                              file_entry("b", "", 0600, 1600000002)});
  lay_out(from, "in");
  set_date(file("in"), 1600000003);
  output_of({"create", "boot.img", "--geometry", "4x8192", "--from", "in"});
  EXPECT_EQ(sh("sha256sum < boot.img").substr(0, 16), "b639d7005c4fcba9");
}

TEST_F(tree_commands, archives_of_others_come_in_and_go_out) {
  const std::string before = lay_out(manifold_tree(), "in");
  if (!has_tar()) {
    sh("tar -cf in.tar -C in .");
    const test_support::program_result refused = run({"create", "boot.img", "--from", "in.tar"});
    EXPECT_EQ(refused.status, 8);
    EXPECT_NE(refused.err.find("in.tar: this program was built without tar"), std::string::npos);
    return;
  }
  for (const std::string tar : {"tar", "bsdtar"}) {
    sh("rm -rf out out.tar boot.img && " + tar + " -cf in.tar -C in .");
    output_of({"create", "boot.img", "--from", "in.tar"});
    output_of({"extract", "boot.img", "--to-tar", "out.tar"});
    sh("mkdir out && " + tar + " -xpf out.tar -C out");
    EXPECT_EQ(text_of_folder("out"), before) << tar;
    EXPECT_EQ(output_of({"verify", "boot.img", "--against", "out.tar", "--strict"}), "");
  }
  sh("rm -rf out && tar -c -C in . | " + program() + " create pipe.img --from - && " + program() +
     " extract pipe.img --to-tar - | (mkdir out && tar -xp -C out)");
  EXPECT_EQ(text_of_folder("out"), before);
}

TEST_F(tree_commands, the_board_mounts_what_was_made_here_without_a_repair) {
  lay_out(tree_of({folder_entry("config"), file_entry("config/startup", "hostname x\n"),
                   file_entry("readme.txt", "hello\n", 0644, 1700000000)}),
          "in");
  output_of({"create", "boot.img", "--from", "in"});
  EXPECT_EQ(on_the_board("boot.img", "more bootflash:config/startup"),
            "flashfs[0]: flashfs fsck took 0 seconds.\nhostname x\n");
  EXPECT_NE(on_the_board("boot.img", "dir").find("readme.txt"), std::string::npos);
  sh("cmp boot.img chassis/ppc4.flash");
  // And what the board has changed is read here.
  on_the_board("boot.img", "rm bootflash:readme.txt");
  output_of({"extract", "chassis/ppc4.flash", "-C", "out"});
  EXPECT_EQ(sh("ls out out/config"), "out:\nconfig\n\nout/config:\nstartup\n");
  EXPECT_EQ(output_of({"diff", "boot.img", "chassis/ppc4.flash"}, 1), "- /readme.txt\n");
}

TEST_F(tree_commands, create_makes_an_empty_image_and_replaces_none_unasked) {
  output_of({"create", "boot.img"});
  EXPECT_EQ(output_of({"ls", "boot.img"}), "");
  const test_support::program_result again = run({"create", "boot.img"});
  EXPECT_EQ(again.status, 8);
  EXPECT_NE(again.err.find("boot.img: is there already; --force replaces it"), std::string::npos);
  output_of({"create", "boot.img", "--force", "--geometry", "8x64K"});
  EXPECT_EQ(sh("stat -c %s boot.img"), "524288\n");
  sh("rm boot.img");
  output_of({"create", "boot.img", "--dry-run"});
  output_of({"create", "boot.img", "--geometry", "no"}, 16);
  output_of({"create", "boot.img", "-o", "x"}, 16);
  EXPECT_TRUE(names().empty());
}

TEST_F(tree_commands, create_tells_at_once_what_cannot_fit) {
  sh("mkdir in && truncate -s 30000000 in/a && truncate -s 1T in/b");
  const test_support::program_result refused = run({"create", "boot.img", "--from", "in"});
  EXPECT_EQ(refused.status, 8);
  EXPECT_NE(refused.err.find("in: it does not fit: b has 1099511627776 bytes, more than a file"),
            std::string::npos);
  sh("rm in/b");
  EXPECT_NE(run({"create", "boot.img", "--from", "in"})
                .err.find("it takes 14651 sectors of 2048 bytes (14649 for data, 1 for names, 1 in "
                          "reserve), but there are 13545"),
            std::string::npos);
  EXPECT_EQ(names(), std::vector<std::string>{"in"});
}

TEST_F(tree_commands, create_tells_every_bad_name_and_makes_nothing) {
  sh("mkdir in && touch 'in/a b' in/good 'in/c:d' in/" + std::string(46, 'n'));
  const json document = document_of({"create", "boot.img", "--from", "in"}, 8);
  ASSERT_EQ(document["findings"].size(), 3U);
  EXPECT_EQ(document["findings"][0]["path"], "a b");
  EXPECT_EQ(document["findings"][1]["path"], "c:d");
  EXPECT_EQ(document["findings"][2]["path"], std::string(46, 'n'));
  EXPECT_EQ(names(), std::vector<std::string>{"in"});
}

TEST_F(tree_commands, create_warns_of_what_is_left_out_and_refuses_when_strict) {
  sh("mkdir in && touch in/file && ln -s file in/link && mkfifo in/pipe");
  const test_support::program_result lax = run({"create", "boot.img", "--from", "in"});
  EXPECT_EQ(lax.status, 0);
  EXPECT_NE(lax.err.find("link: a symbolic link, left out"), std::string::npos);
  EXPECT_EQ(output_of({"ls", "boot.img"}), "file\n");
  EXPECT_EQ(run({"create", "strict.img", "--from", "in", "--strict"}).status, 4);
  EXPECT_EQ(names(), (std::vector<std::string>{"boot.img", "in"}));
  EXPECT_EQ(run({"create", "x.img", "--from", "gone"}).status, 8);
}

TEST_F(tree_commands, an_image_can_be_filled_to_its_last_byte) {
  sh("mkdir in && echo x > in/small");
  // 13545 sectors but for one of names, one in reserve and that of the small file.
  sh("truncate -s " + std::to_string(13542 * 2048) + " in/large");
  output_of({"create", "boot.img", "--from", "in"});
  output_of({"verify", "boot.img", "--against", "in"});
  sh("echo x >> in/large");
  output_of({"create", "more.img", "--from", "in"}, 8);
  // Blocks that were reclaimed on the way count as never erased.
  const std::string bytes = contents("boot.img");
  for (size_t block = 0; block < 216; ++block) {
    EXPECT_EQ(bytes.compare(block << 17, 4, "\0\0\0\0", 4), 0) << block;
  }
}

TEST_F(tree_commands, extract_wants_a_place_and_an_empty_one) {
  store("basic");
  output_of({"extract", "basic.img"}, 16);
  output_of({"extract", "basic.img", "-C", "a", "--to-tar", "b"}, 16);
  sh("mkdir out && touch out/there archive.tar");
  output_of({"extract", "basic.img", "-C", "out"}, 8);
  EXPECT_EQ(sh("ls out"), "there\n");
  output_of({"extract", "basic.img", "-C", "out", "--force"});
  EXPECT_EQ(sh("cat out/readme.txt"), "PowerPC boot flash\nsecond line\n");
  output_of({"extract", "basic.img", "--to-tar", "archive.tar"}, 8);
  EXPECT_EQ(contents("archive.tar"), "");
  output_of({"extract", "basic.img", "--to-tar", "archive.tar", "--force"}, has_tar() ? 0 : 8);
  if (has_tar()) {
    EXPECT_EQ(sh("tar -xOf archive.tar readme.txt"), "PowerPC boot flash\nsecond line\n");
  } else {
    sh("touch archive.tar");
  }
  output_of({"extract", "basic.img", "-C", "dry", "--dry-run"});
  output_of({"extract", "basic.img", "--to-tar", "dry", "--dry-run"});
  EXPECT_EQ(names(), (std::vector<std::string>{"archive.tar", "basic.img", "out"}));
}

TEST_F(tree_commands, extract_takes_no_damaged_file_for_a_good_one) {
  store("basic");
  std::string bytes = contents("basic.img");
  bytes[0x20840] ^= 1;  // in readme.txt
  write_whole_file(file("basic.img"), bytes);
  EXPECT_EQ(run({"extract", "basic.img", "-C", "out"}).status, 4);
  EXPECT_EQ(names(), std::vector<std::string>{"basic.img"});
  const test_support::program_result partly =
      run({"extract", "basic.img", "-C", "out", "--keep-going"});
  EXPECT_EQ(partly.status, 2);
  EXPECT_NE(partly.err.find("/readme.txt: cannot be read: the image is damaged here"),
            std::string::npos);
  EXPECT_EQ(sh("ls out/readme.txt out/config/startup.cfg 2>/dev/null || true"),
            "out/config/startup.cfg\n");

  const test_support::program_result verified = run({"verify", "basic.img"});
  EXPECT_EQ(verified.status, 4);
  EXPECT_NE(verified.err.find("readme.txt"), std::string::npos);
  output_of({"verify", "basic.img", "/config"});
  output_of({"verify", "basic.img", "readme.txt"}, 4);
  output_of({"verify", "basic.img", "gone"}, 8);
}

TEST_F(tree_commands, verify_tells_what_differs_from_a_folder) {
  lay_out(tree_of({folder_entry("d"), file_entry("d/same", "1"), file_entry("d/other", "2"),
                   file_entry("mode", "3"), file_entry("more", "4")}),
          "in");
  output_of({"create", "boot.img", "--from", "in"});
  sh("echo changed > in/d/other && rm in/more && touch in/less && chmod 600 in/mode");
  set_date(file("in/mode"), 1);
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in"}, 1),
            "/d/other: differs in contents\n"
            "/less: missing in the image\n"
            "/more: only in the image\n");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "/d"}, 1),
            "/d/other: differs in contents\n");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "/d/same", "mode"}), "");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "--strict", "mode"}, 1),
            "/mode: differs in mode\n");
  const json document = document_of({"verify", "boot.img", "--against", "in"}, 1);
  EXPECT_EQ(document["result"]["differences"].size(), 3U);
}

TEST_F(tree_commands, diff_tells_files_and_records) {
  lay_out(tree_of({file_entry("a", "1"), file_entry("b", "2")}), "in");
  output_of({"create", "1.img", "--from", "in"});
  sh("cp 1.img 2.img");
  EXPECT_EQ(output_of({"diff", "1.img", "2.img"}), "");
  EXPECT_EQ(output_of({"diff", "1.img", "2.img", "--records", "--brief"}), "");
  output_of({"diff", "1.img", "2.img", "--records", "--files"}, 16);

  // The same files, elsewhere on flash: one was removed and written again, with its date.
  set_date(file("in"), 1);
  output_of({"rm", "2.img", "/b"});
  output_of({"put", "-p", "2.img", "in/b", "/"});
  const std::string records = output_of({"diff", "1.img", "2.img", "--records"}, 1);
  EXPECT_NE(records.find(" (owner 1)\n"), std::string::npos) << records;
  EXPECT_EQ(output_of({"diff", "1.img", "2.img", "--files"}), "");

  output_of({"rm", "2.img", "/a"});
  EXPECT_EQ(output_of({"diff", "1.img", "2.img"}, 1), "- /a\n");
  EXPECT_EQ(output_of({"diff", "2.img", "1.img"}, 1), "+ /a\n");
  EXPECT_EQ(output_of({"diff", "2.img", "1.img", "--brief"}, 1), "2.img and 1.img differ\n");
  const json document = document_of({"diff", "1.img", "2.img"}, 1);
  EXPECT_EQ(document["result"]["differences"][0]["path"], "/a");
  EXPECT_EQ(document["result"]["equal"], false);
  output_of({"create", "3.img", "--geometry", "4x8192"});
  EXPECT_NE(output_of({"diff", "1.img", "3.img", "--records"}, 1).find("geometries differ"),
            std::string::npos);
  EXPECT_EQ(document_of({"diff", "1.img", "3.img", "--records"}, 1)["result"]["differences"].size(),
            1U);
  EXPECT_EQ(output_of({"diff", "1.img", "gone.img"}, 8), "");
}

}  // namespace
}  // namespace image_test

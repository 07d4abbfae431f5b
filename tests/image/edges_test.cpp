// What commands must not do at the edges: names and bytes that cannot come out again, repairs and
// geometries that nobody is told of, sources that are links, or larger than any flash.
#include <gtest/gtest.h>


#include "tests/image/image_command.h"
#include "tests/support/stored_image.h"

namespace image_test {
namespace {

using json = nlohmann::ordered_json;
using test_support::program_result;
using test_support::shell_output;
using test_support::write_whole_file;

class edges : public test_support::image_command {
 protected:
  std::string sh(const std::string& command) const {
    return shell_output("cd '" + file("") + "' && " + command);
  }
  // A small image of the files of the folder "in".
  void make_image(const std::string& name = "boot.img") const {
    output_of({"create", name, "--from", "in", "--geometry", "6x16K"});
  }
  // The codes of a document's findings, each once, in their order.
  static std::string codes_of(const json& document) {
    std::string codes;
    for (const json& one : document["findings"]) {
      const std::string code = one["code"];
      if (codes.find(code) == std::string::npos) {
        codes += (codes.empty() ? "" : " ") + code;
      }
    }
    return codes;
  }
  static bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
};

TEST_F(edges, no_command_makes_names_that_cannot_be_taken_out) {
  sh("mkdir in && echo x > in/a");
  make_image();
  const std::string before = contents("boot.img");
  for (const std::string name : {".", ".."}) {
    for (const std::string& path : {"/" + name, "/" + name + "/b"}) {
      EXPECT_EQ(run({"put", "boot.img", "in/a", path}).status, 8) << path;
      EXPECT_EQ(run({"mkdir", "-p", "boot.img", path}).status, 8) << path;
      EXPECT_EQ(run({"mv", "boot.img", "/a", path}).status, 8) << path;
    }
    EXPECT_TRUE(holds(run({"mkdir", "boot.img", "/" + name}).err, "stands for a folder"));
  }
  EXPECT_TRUE(contents("boot.img") == before);
}

TEST_F(edges, a_file_that_becomes_longer_gets_zeros) {
  sh("mkdir in && printf abc > in/a && printf %2048s x > in/full && touch in/none");
  make_image();
  for (const std::string name : {"a", "full", "none"}) {
    for (const uint32_t size : {2500U, 20000U}) {
      const std::string old = contents("in/" + name);
      output_of({"truncate", "boot.img", "-s", std::to_string(size), "/" + name});
      EXPECT_EQ(output_of({"cat", "boot.img", "/" + name}),
                old + std::string(size - old.size(), '\0'))
          << name << " " << size;
    }
    output_of({"rm", "boot.img", "/" + name});
    make_image("again.img");
    sh("mv again.img boot.img");
  }
  const program_result full = run({"truncate", "boot.img", "-s", "1M", "/a"});
  EXPECT_EQ(full.status, 8);
  EXPECT_TRUE(holds(full.err, "/a: no space left in the image")) << full.err;
}

TEST_F(edges, sizes_have_units) {
  sh("mkdir in && echo x > in/a");
  make_image();
  for (const auto& [text, size] : {std::pair<std::string, size_t>{"1k", 1024}, {"0x10", 16}}) {
    output_of({"truncate", "boot.img", "-s", text, "/a"});
    EXPECT_EQ(output_of({"cat", "boot.img", "/a"}).size(), size);
  }
  EXPECT_EQ(output_of({"dump", "boot.img", "--at", "16K"}),
            output_of({"dump", "boot.img", "--at", "0x4000"}));
  EXPECT_EQ(output_of({"dump", "boot.img", "--block", "0x1"}),
            output_of({"dump", "boot.img", "--block", "1"}));
  const program_result wrong = run({"truncate", "boot.img", "-s", "ten", "/a"});
  EXPECT_EQ(wrong.status, 16);
  EXPECT_TRUE(holds(wrong.err, "-s: \"ten\" is no number; 4096, 0x1000 and 4K are")) << wrong.err;
  EXPECT_EQ(run({"truncate", "boot.img", "-s", "4G", "/a"}).status, 16);
  EXPECT_EQ(run({"truncate", "boot.img", "-s", "4096M", "/a"}).status, 16);
}

TEST_F(edges, an_edit_by_force_tells_what_its_repair_does) {
  store("gap_in_file");
  const program_result refused = run({"rm", "gap_in_file.img", "/empty"});
  EXPECT_EQ(refused.status, 4);
  EXPECT_TRUE(holds(refused.err, "would drop what still is good")) << refused.err;
  const program_result forced =
      run({"rm", "--force", "-o", "new.img", "gap_in_file.img", "/empty"});
  EXPECT_EQ(forced.status, 1);
  EXPECT_TRUE(holds(forced.err, "/config/startup.cfg: it loses its contents, 7 good sectors"))
      << forced.err;
  EXPECT_TRUE(holds(forced.err, "what still was good is lost")) << forced.err;
  const json document = document_of({"-n", "rm", "--force", "gap_in_file.img", "/empty"}, 1);
  EXPECT_TRUE(holds(codes_of(document), "check-file-dropped")) << document;
  EXPECT_TRUE(holds(codes_of(document), "repaired")) << document;
}

TEST_F(edges, a_geometry_that_the_headers_contradict_is_told) {
  sh("mkdir in && echo x > in/a");
  make_image();
  const std::string before = contents("boot.img");
  const program_result listed = run({"--geometry", "3x32K", "info", "boot.img"});
  EXPECT_TRUE(holds(listed.err, "its block headers tell 6x16384, not what --geometry says"))
      << listed.err;
  EXPECT_TRUE(holds(codes_of(document_of({"--geometry", "3x32K", "dump", "boot.img"}, 0)),
                    "geometry-differs"));
  EXPECT_EQ(run({"--strict", "--geometry", "3x32K", "dump", "boot.img"}).status, 4);
  EXPECT_EQ(run({"--geometry", "3x32K", "put", "boot.img", "in/a", "/b"}).status, 4);
  EXPECT_EQ(run({"--geometry", "3x32K", "-o", "x.img", "put", "boot.img", "in/a", "/b"}).status, 4);
  EXPECT_EQ(run({"--geometry", "3x32K", "check", "--repair", "boot.img"}).status, 4);
  EXPECT_TRUE(contents("boot.img") == before);
  EXPECT_EQ(run({"--geometry", "3x32K", "put", "--force", "boot.img", "in/a", "/b"}).status, 1);
  // One that says what the headers say is not doubted, nor is one where there are none.
  EXPECT_EQ(run({"--strict", "--geometry", "6x16K", "create", "--force", "boot.img"}).status, 0);
  EXPECT_EQ(run({"--strict", "--geometry", "6x16K", "ls", "boot.img"}).err, "");
  write_whole_file(file("blank.img"), std::string(6 * 16384, '\xFF'));
  EXPECT_FALSE(holds(run({"--geometry", "6x16K", "dump", "blank.img"}).err, "headers tell"));
}

TEST_F(edges, an_image_of_a_wrong_size_is_told_the_right_one) {
  sh("mkdir in && echo x > in/a");
  make_image();
  for (const int more : {-2, -1, 1, 2, 100}) {
    write_whole_file(file("cut.img"), contents("boot.img"));
    sh("truncate -s " + std::to_string(6 * 16384 + more) + " cut.img");
    const json document = document_of({"ls", "cut.img"}, 8);
    EXPECT_EQ(codes_of(document), "image-size") << more;
    EXPECT_TRUE(holds(document["findings"][0]["text"],
                      "blocks of 16384 bytes, with which it should have 98304"))
        << document;
  }
  EXPECT_EQ(codes_of(document_of({"--geometry", "5x16K", "ls", "boot.img"}, 8)), "image-size");
  store("basic");
  sh("truncate -s 33554433 basic.img");
  EXPECT_TRUE(holds(run({"ls", "basic.img"}).err,
                    "has 33554433 bytes, but its block headers tell blocks of 131072 bytes, with "
                    "which it should have 33554432"));
  write_whole_file(file("text"), "no image");
  EXPECT_EQ(codes_of(document_of({"ls", "text"}, 8)), "geometry-unknown");
}

TEST_F(edges, permissions_come_back_as_they_were_stored) {
  sh("mkdir -p in/d && for m in 400 444 600 755; do echo x > in/f$m && chmod $m in/f$m; done && "
     "chmod 700 in/d && touch -d @1600000000 in/* in");
  make_image();
  output_of({"extract", "boot.img", "-C", "out"});
  EXPECT_EQ(sh("cd out && stat -c '%n %a' *"), "d 700\nf400 400\nf444 444\nf600 600\nf755 755\n");
  EXPECT_EQ(output_of({"--strict", "verify", "boot.img", "--against", "out"}), "");
  // Files of the board have 0400, and their folders, too, which nobody could go into.
  store("basic");
  output_of({"extract", "basic.img", "-C", "board"});
  EXPECT_EQ(sh("cd board && stat -c %a config readme.txt"), "700\n400\n");
  EXPECT_EQ(output_of({"--strict", "verify", "basic.img", "--against", "board"}), "");
}

TEST_F(edges, what_is_made_of_what_was_taken_out_is_the_same) {
  sh("mkdir -p in/d && echo x > in/d/a && chmod 755 in/d && touch -d @1500000000 in/d/a in/d && "
     "touch -d @1400000000 in");
  make_image();
  output_of({"extract", "boot.img", "-C", "out"});
  EXPECT_EQ(sh("stat -c %Y out"), "1400000000\n");
  output_of({"create", "again.img", "--from", "out", "--geometry", "6x16K"});
  EXPECT_TRUE(contents("again.img") == contents("boot.img"));
  if (!emulator().empty()) {
    return;  // the target's program has no tar
  }
  output_of({"extract", "boot.img", "--to-tar", "out.tar"});
  output_of({"create", "tar.img", "--from", "out.tar", "--geometry", "6x16K"});
  EXPECT_TRUE(contents("tar.img") == contents("boot.img"));
  EXPECT_EQ(sh("tar -tf out.tar"), "./\nd/\nd/a\n");
}

TEST_F(edges, hard_links_are_files_of_their_own) {
  if (!emulator().empty()) {
    return;
  }
  sh("mkdir in && echo x > in/a && ln in/a in/b && touch -d @1500000000 in/a in && "
     "tar -cf in.tar -C in .");
  make_image();
  output_of({"--strict", "create", "tar.img", "--from", "in.tar", "--geometry", "6x16K"});
  EXPECT_TRUE(contents("tar.img") == contents("boot.img"));
}

TEST_F(edges, dates_are_no_nonsense) {
  sh("mkdir in && echo x > in/a && touch -d @1500000000 in/a in");
  for (const char* wrong : {"abc", "12x", "-1", " ", "99999999999999999999"}) {
    environment_["SOURCE_DATE_EPOCH"] = wrong;
    EXPECT_EQ(run({"create", "boot.img", "--from", "in", "--geometry", "6x16K"}).status, 16)
        << wrong;
  }
  EXPECT_EQ(names(), std::vector<std::string>{"in"});
  environment_["SOURCE_DATE_EPOCH"] = "0";
  make_image();
  EXPECT_TRUE(holds(output_of({"ls", "-l", "boot.img"}), "1970-01-01 00:00:01 a"));
  environment_["SOURCE_DATE_EPOCH"] = "";
  make_image("other.img");
  EXPECT_TRUE(holds(output_of({"ls", "-l", "other.img"}), "2017-07-14 02:40:00 a"));
}

TEST_F(edges, a_source_may_be_larger_than_any_memory) {
  sh("mkdir in && echo x > in/a && echo y > in/b");
  make_image();
  sh("truncate -s 3T in/b && truncate -s 3T in/c");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in"}, 1),
            "/b: differs in contents\n/c: missing in the image\n");
  if (emulator().empty()) {
    sh("tar -cf in.tar --sparse -C in .");
    EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in.tar"}, 1),
              "/b: differs in contents\n/c: missing in the image\n");
  }
}

TEST_F(edges, verify_judges_paths_that_are_in_one_of_the_two) {
  sh("mkdir in && echo x > in/a && echo y > in/b");
  make_image();
  sh("rm in/b && echo z > in/c");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "/c"}, 1),
            "/c: missing in the image\n");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "/b"}, 1),
            "/b: only in the image\n");
  EXPECT_EQ(output_of({"verify", "boot.img", "--against", "in", "/d"}, 8), "");
  EXPECT_EQ(output_of({"verify", "boot.img", "/c"}, 8), "");
}

TEST_F(edges, equal_files_are_equal_whatever_else_is_wrong) {
  store("interrupted_copy");
  const json document =
      document_of({"--strict", "diff", "interrupted_copy.img", "interrupted_copy.img"}, 4);
  EXPECT_EQ(document["result"]["equal"], true);
  EXPECT_EQ(document_of({"diff", "interrupted_copy.img", "interrupted_copy.img", "--records"},
                        0)["result"]["equal"],
            true);
}

TEST_F(edges, a_link_as_a_source_is_told_and_refused_when_strict) {
  sh("mkdir in && echo x > in/a && ln -s a in/link && ln -s in folder");
  make_image();
  const std::string before = contents("boot.img");
  EXPECT_EQ(run({"--strict", "put", "boot.img", "in/link", "/b"}).status, 4);
  EXPECT_EQ(run({"--strict", "put", "-r", "boot.img", "folder", "/d"}).status, 4);
  EXPECT_TRUE(contents("boot.img") == before);
  const program_result followed = run({"put", "boot.img", "in/link", "/b"});
  EXPECT_EQ(followed.status, 0);
  EXPECT_TRUE(holds(followed.err, "in/link: is a symbolic link: what it leads to is copied"))
      << followed.err;
  EXPECT_EQ(output_of({"cat", "boot.img", "/b"}), "x\n");
}

TEST_F(edges, a_path_that_ends_with_a_slash_is_a_directory) {
  sh("mkdir -p in/d && echo x > in/a");
  make_image();
  const std::string before = contents("boot.img");
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"cat", "boot.img", "/a/"},
                                             {"ls", "boot.img", "/a/"},
                                             {"rm", "boot.img", "/a/"},
                                             {"chmod", "boot.img", "600", "/a/"},
                                             {"truncate", "boot.img", "-s", "1", "/a/"},
                                             {"mv", "boot.img", "/a/", "/b"},
                                             {"mv", "boot.img", "/a", "/b/"},
                                             {"put", "boot.img", "in/a", "/a/"},
                                             {"put", "boot.img", "in/a", "/new/"},
                                             {"verify", "boot.img", "/a/"}}) {
    EXPECT_EQ(run(words).status, 8) << testing::PrintToString(words);
  }
  EXPECT_TRUE(contents("boot.img") == before);
  output_of({"ls", "boot.img", "/d/"});
  output_of({"put", "boot.img", "in/a", "/d/"});
  output_of({"mv", "boot.img", "/d/", "/e/"});
  EXPECT_EQ(output_of({"cat", "boot.img", "/e/a"}), "x\n");
}

TEST_F(edges, wear_of_damaged_headers_is_a_fault_when_strict) {
  sh("mkdir in");
  make_image();
  EXPECT_EQ(run({"--strict", "wear", "boot.img"}).status, 0);
  std::string bytes = contents("boot.img");
  bytes[16384 + 4] ^= 1;
  write_whole_file(file("boot.img"), bytes);
  EXPECT_EQ(run({"wear", "boot.img"}).status, 0);
  const program_result strict = run({"--strict", "wear", "boot.img"});
  EXPECT_EQ(strict.status, 4);
  EXPECT_TRUE(holds(strict.err, "1 of its block headers is damaged")) << strict.err;
}

TEST_F(edges, findings_have_places_and_nothing_that_varies) {
  write_whole_file(file("log"),
                   "0x00004000    00020001 ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff "
                   "ffffffff\n");
  const json document = document_of({"import", "x.img", "--geometry", "6x16K", "log"}, 4);
  ASSERT_FALSE(document["findings"].empty());
  const json& last = document["findings"].back();
  EXPECT_EQ(last["offset"], 16384 + 32) << last;
  EXPECT_EQ(last["length"], 5 * 16384 - 32) << last;
  EXPECT_EQ(last["block"], 1) << last;

  store("committed_erased");
  const program_result checked = run({"--json", "check", "committed_erased.img"});
  EXPECT_TRUE(holds(checked.out, "check-message"));
  EXPECT_FALSE(holds(checked.out, "fsck took")) << checked.out;
}

}  // namespace
}  // namespace image_test

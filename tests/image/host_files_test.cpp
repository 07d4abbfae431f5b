// What the commands do to files of the host: never to the image that they read, never beside their
// target, nothing in a dry run, and whole or not at all, whatever comes in between.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::program_result;
using test_support::write_whole_file;
using words = std::vector<std::string>;

class host_files : public test_support::image_command {
 protected:
  host_files() {
    std::filesystem::create_directories(file("source/config"));
    write_whole_file(file("source/readme.txt"), "read me\n");
    write_whole_file(file("source/large"), std::string(20000, 'x'));
    write_whole_file(file("source/config/startup.cfg"), "hostname board\n");
    EXPECT_EQ(chmod(file("source/readme.txt").c_str(), 0640), 0);
    output_of({"create", "s.img", "--geometry", "4x32768", "--from", "source"});
    before_ = contents("s.img");
  }

  // Runs a line of a shell in the folder; "image" is the program.
  program_result shell(const std::string& line) const {
    return test_support::run_program(
        {.path = "/bin/sh",
         .arguments = {"-c", "image() { " + emulator() + " '" + program_ + "' \"$@\"; }\n" + line},
         .environment = environment_,
         .folder = file(""),
         .is_of_the_host = true});
  }
  // "run", which a line of a shell puts in place of itself.
  std::string exec() const {
    return "exec " + emulator() + " '" + program_ + "' ";
  }

  // The call ends so, and no file has come, gone or changed its size.
  void expect_nothing_done(const words& call, int status) const {
    const std::vector<std::string> files = all_files();
    const program_result result = run(call);
    EXPECT_EQ(result.status, status) << testing::PrintToString(call) << "\n" << result.err;
    EXPECT_EQ(all_files(), files) << testing::PrintToString(call);
    EXPECT_TRUE(contents("s.img") == before_) << testing::PrintToString(call);
  }

  std::vector<std::string> all_files() const {
    std::vector<std::string> found;
    for (const auto& one : std::filesystem::recursive_directory_iterator(file(""))) {
      found.push_back(one.path().string() + " " +
                      (one.is_regular_file() && !one.is_symlink() ? std::to_string(one.file_size())
                                                                  : std::string()));
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  std::string before_;
};

// --- the image that is read ---

TEST_F(host_files, an_image_is_not_replaced_by_what_is_taken_out_of_it) {
  ASSERT_EQ(link(file("s.img").c_str(), file("hard").c_str()), 0);
  std::filesystem::create_directory(file("d"));
  ASSERT_EQ(link(file("s.img").c_str(), file("d/readme.txt").c_str()), 0);
  expect_nothing_done({"get", "s.img", "/readme.txt", "s.img"}, 8);
  expect_nothing_done({"get", "s.img", "/readme.txt", "hard"}, 8);
  expect_nothing_done({"get", "s.img", "/readme.txt", "d"}, 8);
  expect_nothing_done({"extract", "s.img", "--to-tar", "s.img", "--force"}, 8);
  const program_result all = run({"get", "-r", "d/readme.txt", "/", "d"});
  EXPECT_EQ(all.status, 8);
  EXPECT_NE(all.err.find("the image itself"), std::string::npos) << all.err;
  EXPECT_TRUE(contents("d/readme.txt") == before_);
  EXPECT_EQ(run({"extract", "d/readme.txt", "-C", "d", "--force"}).status, 8);
  EXPECT_TRUE(contents("d/readme.txt") == before_);
}

TEST_F(host_files, an_archive_takes_the_place_of_files_alone) {
  std::filesystem::create_symlink("/dev/null", file("null"));
  expect_nothing_done({"extract", "s.img", "--to-tar", "null", "--force"}, 8);
  expect_nothing_done({"extract", "s.img", "--to-tar", "source", "--force"}, 8);
  EXPECT_TRUE(std::filesystem::is_symlink(file("null")));
}

TEST_F(host_files, what_cannot_be_written_whole_is_not_there) {
  write_whole_file(file("old.tar"), "old");
  const std::vector<std::string> files = all_files();
  for (const std::string call :
       {"extract s.img --to-tar old.tar --force", "extract s.img --to-tar new.tar",
        "get s.img /large new", "create new.img --geometry 4x32768", "-o new.img rm s.img /large",
        "rm s.img /large"}) {
    const program_result result = shell("ulimit -f 8; " + exec() + call);
    EXPECT_EQ(result.status, 8) << call << result.err;
    EXPECT_EQ(all_files(), files) << call;
  }
  EXPECT_EQ(contents("old.tar"), "old");
  EXPECT_TRUE(contents("s.img") == before_);
}

// --- the target ---

TEST_F(host_files, no_link_below_the_target_of_get_is_followed) {
  std::filesystem::create_directory(file("target"));
  std::filesystem::create_directory(file("outside"));
  std::filesystem::create_directory_symlink("../outside", file("target/config"));
  const program_result result = run({"get", "-r", "s.img", "/config", "target"});
  EXPECT_EQ(result.status, 8);
  EXPECT_NE(result.err.find("a link is in the way"), std::string::npos) << result.err;
  EXPECT_TRUE(std::filesystem::is_empty(file("outside")));
}

TEST_F(host_files, get_keeps_dates_and_permissions_of_one_file_and_of_many) {
  const auto stat_of = [&](const std::string& name) {
    struct stat status = {};
    EXPECT_EQ(stat(file(name).c_str(), &status), 0) << name;
    return status;
  };
  std::filesystem::create_directory(file("d"));
  write_whole_file(file("d/readme.txt"), "old");
  output_of({"get", "s.img", "/readme.txt", "one"});
  output_of({"get", "s.img", "/readme.txt", "d"});
  output_of({"get", "-r", "s.img", "/", "all"});
  output_of({"get", "-r", "s.img", "/config", "d"});
  for (const char* name : {"one", "d/readme.txt", "all/readme.txt"}) {
    EXPECT_EQ(stat_of(name).st_mode & 07777, 0640U) << name;
    EXPECT_EQ(stat_of(name).st_mtime, 1700000000) << name;
    EXPECT_EQ(contents(name), "read me\n");
  }
  EXPECT_EQ(stat_of("d/config").st_mtime, 1700000000);
  EXPECT_EQ(contents("d/config/startup.cfg"), "hostname board\n");
}

TEST_F(host_files, get_tells_what_it_wrote) {
  EXPECT_EQ(document_of({"get", "s.img", "/readme.txt", "one"}, 0)["result"],
            json({{"files", 1}, {"directories", 0}, {"bytes", 8}}));
  EXPECT_EQ(document_of({"get", "-r", "s.img", "/config", "/readme.txt", "source"}, 0)["result"],
            json({{"files", 2}, {"directories", 1}, {"bytes", 23}}));
  EXPECT_EQ(document_of({"get", "-r", "s.img", "/", "all"}, 0)["result"],
            json({{"files", 3}, {"directories", 1}, {"bytes", 20023}}));
}

TEST_F(host_files, standard_output_takes_one_file_and_has_the_name_of_a_dash) {
  EXPECT_EQ(output_of({"get", "s.img", "/readme.txt", "-"}), "read me\n");
  EXPECT_NE(run({"get", "-r", "s.img", "/config", "-"}).err.find("one file"), std::string::npos);
  expect_nothing_done({"get", "-r", "s.img", "/config", "-"}, 8);
  const program_result device = run({"get", "s.img", "/readme.txt", "/dev/stdout"});
  EXPECT_EQ(device.status, 8);
  EXPECT_NE(device.err.find("'-' is standard output"), std::string::npos) << device.err;
}

TEST_F(host_files, nothing_but_text_goes_to_a_terminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_GE(terminal, 0);
  ASSERT_EQ(grantpt(terminal), 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  const std::string to = std::string(" >") + ptsname(terminal);
  for (const std::string call :
       {"create - --geometry 4x32768", "extract s.img --to-tar -", "-o - rm s.img /readme.txt"}) {
    const program_result result = shell(exec() + call + to);
    EXPECT_EQ(result.status, 16) << call;
    EXPECT_NE(result.err.find("terminal"), std::string::npos) << result.err;
  }
  EXPECT_EQ(shell(exec() + "get s.img /readme.txt -" + to).status, 0);
  close(terminal);
}

// --- a dry run ---

TEST_F(host_files, a_dry_run_writes_nothing_and_ends_as_the_real_run) {
  write_whole_file(file("there"), "there");
  std::filesystem::create_directory(file("full"));
  write_whole_file(file("full/config"), "no folder");
  std::filesystem::create_directories(file("folders/readme.txt"));
  const std::vector<words> calls = {
      {"create", "--geometry", "4x32768", "no/dir/x.img"},
      {"create", "--geometry", "4x32768", "there"},
      {"create", "--geometry", "4x32768", "there", "--force"},
      {"create", "--geometry", "4x32768", "full", "--force"},
      {"-o", "there", "rm", "s.img", "/readme.txt"},
      {"-o", "no/dir/x", "rm", "s.img", "/readme.txt"},
      {"extract", "s.img", "-C", "full"},
      {"extract", "s.img", "-C", "full", "--force"},
      {"extract", "s.img", "-C", "folders", "--force"},
      {"extract", "s.img", "-C", "there"},
      {"extract", "s.img", "-C", "no/dir/out"},
      {"extract", "s.img", "-C", "out"},
      {"extract", "s.img", "--to-tar", "there"},
      {"extract", "s.img", "--to-tar", "no/dir/out.tar"},
      {"get", "s.img", "/readme.txt", "no/dir/one"},
      {"get", "s.img", "/readme.txt", "folders"},
      {"get", "s.img", "/readme.txt", "one"},
      {"get", "-r", "s.img", "/config", "full"},
      {"get", "-r", "s.img", "/", "folders"},
      {"get", "-r", "s.img", "/config", "two"},
  };
  for (const words& call : calls) {
    words dry = call;
    dry.insert(dry.begin(), "-n");
    const std::vector<std::string> files = all_files();
    const program_result tried = run(dry);
    EXPECT_EQ(all_files(), files) << testing::PrintToString(call);
    EXPECT_EQ(tried.out, "");
    const program_result real = run(call);
    EXPECT_EQ(tried.status, real.status) << testing::PrintToString(call) << real.err << tried.err;
    EXPECT_EQ(tried.err, real.err) << testing::PrintToString(call);
  }
}

TEST_F(host_files, a_dry_run_tells_that_a_folder_cannot_be_written) {
  // Nothing is forbidden to root, who becomes somebody else for this.
  const std::string other =
      geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
  ASSERT_EQ(chmod(file("").c_str(), 0755), 0);
  if (shell(other + "test -x '" + program_ + "'").status != 0) {
    GTEST_SKIP() << "nobody else gets to the program";
  }
  std::filesystem::create_directory(file("closed"));
  std::filesystem::rename(file("s.img"), file("closed/s.img"));
  ASSERT_EQ(chmod(file("closed/s.img").c_str(), 0666), 0);
  ASSERT_EQ(chmod(file("closed").c_str(), 0555), 0);
  for (const std::string call :
       {"rm closed/s.img /readme.txt", "get closed/s.img /readme.txt closed/one",
        "extract closed/s.img -C closed --force", "extract closed/s.img -C closed/new"}) {
    const std::string line = "exec " + other + emulator() + " '" + program_ + "' ";
    const program_result dry = shell(line + "-n " + call);
    const program_result real = shell(line + call);
    EXPECT_EQ(dry.status, 8) << call << dry.err;
    EXPECT_EQ(real.status, 8) << call << real.err;
    EXPECT_EQ(dry.err, real.err);
  }
  ASSERT_EQ(chmod(file("closed").c_str(), 0755), 0);
}

// --- --output ---

TEST_F(host_files, an_output_that_no_command_would_write_is_refused) {
  for (const words& call :
       {words{"ls", "s.img"}, words{"check", "s.img"}, words{"get", "s.img", "/readme.txt", "one"},
        words{"create", "--geometry", "4x32768", "new.img"}, words{"import", "new.img", "s.img"}}) {
    words with_output = call;
    with_output.insert(with_output.begin(), {"-o", "x"});
    expect_nothing_done(with_output, 16);
  }
}

TEST_F(host_files, a_repair_that_finds_nothing_gives_the_new_image_all_the_same) {
  output_of({"-o", "new.img", "check", "--repair", "s.img"});
  EXPECT_TRUE(contents("new.img") == before_);
  expect_nothing_done({"-o", "new.img", "check", "--repair", "s.img"}, 8);
  EXPECT_EQ(document_of({"-o", "other.img", "check", "--repair", "s.img"}, 0)["result"]["written"],
            "other.img");
}

// --- ends that nobody wants ---

TEST_F(host_files, an_answer_without_a_place_is_a_failure) {
  EXPECT_EQ(shell(exec() + "cat s.img /readme.txt >&-").status, 8);
  EXPECT_EQ(shell(exec() + "cat s.img /readme.txt >&- 2>&-").status, 8);
  EXPECT_EQ(shell(exec() + "get s.img /readme.txt - >&-").status, 8);
  // Who has nothing to say has lost nothing.
  EXPECT_EQ(shell(exec() + "get s.img /readme.txt one >&-").status, 0);
  EXPECT_EQ(contents("one"), "read me\n");
}

TEST_F(host_files, an_image_that_is_cut_short_while_it_is_read_is_told) {
  // It is open when the other one, of which the pipe holds but half, is read: then nothing is left.
  const program_result result = shell(
      "mkfifo pipe; cat s.img >copy; image --json diff --records s.img - <pipe >answer & exec "
      "3>pipe; "
      "cat copy >&3; : >s.img; exec 3>&-; wait $!");
  EXPECT_EQ(result.status, 8) << result.err;
  const json document = json::parse(contents("answer"), nullptr, false);
  ASSERT_FALSE(document.is_discarded()) << contents("answer");
  EXPECT_EQ(document["status"], 8);
}

TEST_F(host_files, a_signal_ends_the_reading_of_a_source) {
  if (!emulator().empty()) {
    GTEST_SKIP() << "when the program minds signals shows in a process of its own alone";
  }
  const std::string until_it_minds_signals =
      "until grep -q '^SigCgt:.*[4-7c-f]...$' /proc/$!/status; do :; done; ";
  for (const std::string call : {"create new.img --from pipe", "create new.img --from - <pipe",
                                 "verify s.img --against pipe", "put s.img - /new <pipe",
                                 "import new.img pipe", "ls - <pipe"}) {
    const std::vector<std::string> files = all_files();
    const program_result result =
        shell("mkfifo pipe; (" + exec() + "--json " + call + ") & exec 3>pipe; printf x >&3; " +
              until_it_minds_signals + "kill -TERM $!; wait $!; status=$?; rm pipe; exit $status");
    EXPECT_EQ(result.status, 32) << call << result.err;
    const json document = json::parse(result.out, nullptr, false);
    ASSERT_FALSE(document.is_discarded()) << call << result.out;
    ASSERT_EQ(document["findings"].size(), 1U) << result.out;
    EXPECT_EQ(document["findings"][0]["code"], "interrupted");
    EXPECT_EQ(all_files(), files) << call;
  }
}

}  // namespace

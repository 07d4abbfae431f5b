// Fuzzes flashfs-image with hostile images: the input is the recipe for a small flash
// (hostile_flash.h; so the inputs of the file system's fuzzer serve here, too), and behind it what
// is looked at and how. Each input is listed, taken out, checked, repaired, rescued, compared and
// dumped. Besides the crashes that the sanitizers find it looks for documents that are none,
// statuses that are not in the table, images that reading has changed, files outside the folder
// they belong into, and repairs and rescues that do not last.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fuzz/hostile_flash.h"
#include "fuzz/image_runs.h"
#include "fuzz/input_bytes.h"
#include "tests/support/run_program.h"

namespace {

namespace fs = std::filesystem;

void require(bool holds, const std::string& what) {
  if (!holds) {
    fprintf(stderr, "broken: %s\n", what.c_str());
    abort();
  }
}

// The folder of this process, in which everything happens. Never destroyed before the last input.
const test_support::temporary_folder& work_folder() {
  static const test_support::temporary_folder folder;
  return folder;
}

std::string text_of(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += " " + word;
  }
  return text;
}

class image_under_attack {
 public:
  explicit image_under_attack(input_bytes& input)
      : input_(input), made_(make_hostile_image(input)) {
    test_support::write_whole_file(path("damaged"), made_.bytes);
  }
  ~image_under_attack() {
    for (const char* name : {"damaged", "other", "repaired", "rescued", "archive"}) {
      fs::remove(path(name));
    }
  }
  image_under_attack(const image_under_attack&) = delete;
  image_under_attack& operator=(const image_under_attack&) = delete;

  void look() {
    std::vector<std::string> listing = {"ls", "-R"};
    if (input_.below(2) == 0) {
      listing.emplace_back("-la0");
    }
    run(listing, {path("damaged")});
    take_out();
    run({"check", input_.below(2) == 0 ? "--full" : "--quick"}, {path("damaged")});
    dump();
    repair();
    compare();
    rescue();
    require(test_support::read_whole_file(path("damaged")) == made_.bytes, "reading wrote");
  }

 private:
  static std::string path(const std::string& name) {
    return work_folder().file(name);
  }

  // One run, with what goes for all of them. Its status.
  int run(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.begin(), {"--geometry", made_.geometry});
    const bool json = input_.below(2) == 0;
    if (json) {
      words.insert(words.begin(), "--json");
    }
    words.insert(words.end(), more.begin(), more.end());
    const image_run done = run_image_command(words);
    require(is_status_of_work(done.status),
            "status " + std::to_string(done.status) + " of" + text_of(words));
    require(!json || nlohmann::json::accept(done.out), "the document of" + text_of(words));
    return done.status;
  }

  void take_out() {
    if (input_.below(4) == 0) {
      run({"extract", "--keep-going", "--force", "--to-tar", path("archive")}, {path("damaged")});
      return;
    }
    // Two folders down, so that something would be seen that climbs out of it.
    const std::string above = path("above");
    fs::create_directories(above + "/between");
    std::vector<std::string> words = {"extract", "-C", above + "/between/target"};
    if (input_.below(4) != 0) {
      words.emplace_back("--keep-going");
    }
    run(words, {path("damaged")});
    require(is_alone(above, "between") && is_alone(above + "/between", "target"),
            "something was written outside the target");
    fs::remove_all(above);
  }

  // Whether the folder has nothing in it, or just this.
  static bool is_alone(const std::string& folder, const std::string& name) {
    for (const fs::directory_entry& one : fs::directory_iterator(folder)) {
      if (one.path().filename() != name) {
        return false;
      }
    }
    return true;
  }

  void dump() {
    std::vector<std::string> words = {"dump"};
    const std::string block = std::to_string(input_.below(8));
    const std::string sector = block + "." + std::to_string(input_.below(9));
    switch (input_.below(6)) {
      case 0:
        words.insert(words.end(), {"--block", block});
        break;
      case 1:
        words.insert(words.end(), {"--sector", sector});
        break;
      case 2:
        words.insert(words.end(), {"--slot", sector + "." + std::to_string(input_.below(33))});
        break;
      case 3:
        words.push_back("--path=/" + without_zeros(interesting_name(input_)));
        break;
      case 4:
        words.insert(words.end(), {"--at", std::to_string(input_.word() * 2U)});
        break;
      default:
        break;
    }
    if (input_.below(4) == 0) {
      words.emplace_back("--hex");
    }
    run(words, {path("damaged")});
  }

  // A word of a command line ends at its first zero.
  static std::string without_zeros(const std::string& name) {
    return name.substr(0, name.find('\0'));
  }

  void repair() {
    const int status =
        run({"check", "--repair", "--force", "-o", path("repaired")}, {path("damaged")});
    if (status != 1) {
      return;
    }
    require(run({"check"}, {path("repaired")}) == 0, "a repair does not last");
    require(run({"--strict", "ls", "-R"}, {path("repaired")}) == 0,
            "a repaired image is not whole");
  }

  // There may be no room for it, but that is all. What comes of it has nothing left to mend.
  void rescue() {
    std::vector<std::string> words = {"--json", "--geometry",    made_.geometry, "rescue",
                                      "-o",     path("rescued"), path("damaged")};
    if (input_.below(2) == 0) {
      words.emplace_back("--deleted");
    }
    const image_run done = run_image_command(words);
    require(is_status_of_work(done.status) && nlohmann::json::accept(done.out),
            "the document of" + text_of(words));
    if (done.status == 8) {
      require(done.out.find("there is no room") != std::string::npos,
              "a rescue refuses:" + text_of(words) + "\n" + done.out);
      return;
    }
    require(run({"rescue", "--plan"}, {path("rescued")}) == 0, "a rescue does not last");
    require(run({"check"}, {path("rescued")}) == 0, "a rescued image is not whole");
  }

  // With itself, and with the same after further damage.
  void compare() {
    const bool records = input_.below(2) == 0;
    const std::string kind = records ? "--records" : "--files";
    const int same = run({"diff", kind}, {path("damaged"), path("damaged")});
    require(records ? same == 0 : same != 1, "an image differs from itself");
    std::string other = made_.bytes;
    for (uint32_t i = input_.below(32); i > 0; i--) {
      other[(size_t{input_.word()} << 1 | input_.below(2)) % other.size()] &=
          static_cast<char>(input_.byte());
    }
    test_support::write_whole_file(path("other"), other);
    const int status = run({"diff", kind, "--brief"}, {path("damaged"), path("other")});
    require(!records || (status == 0) == (other == made_.bytes), "records that differ are told");
  }

  input_bytes& input_;
  const hostile_image made_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  input_bytes input(data, size);
  image_under_attack(input).look();
  return 0;
}

// Fuzzes the command line: the input's lines are the words of a command line, carried out whole
// over a simulated chassis that holds a few files.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "volume/files.h"
#include "zantrolume/zantrolume_main.h"

namespace {

constexpr int64_t standing_clock = 1800000000;
// Longer dumps are only more of the same.
constexpr int32_t max_dump = 4096;

// The file system that the commands have registered.
const volume::files bootflash("bootflash");

// Earlier inputs may have left anything on the flash, so any answer will do here and below.
void make_file(const char* path, const char* content) {
  // There already, more often than not.
  static_cast<void>(
      bootflash.write_file(path, content, ifs_open_write | ifs_open_create | ifs_open_exclusive));
}

// The chassis lives as long as the program, its file system mounted: a real device is large. What
// an input has deleted or erased is made again before the next one.
void prepare() {
  static sim::chassis* chassis = nullptr;
  if (chassis == nullptr) {
    if (freopen("/dev/null", "w", stdout) == nullptr) {
      perror("/dev/null");
    }
    opterr = 0;  // the C library's line about each unknown option is of no use here
    chassis = new sim::chassis;
    chassis->clock_hold(standing_clock);
    sim::install_chassis(chassis);
  }
  ppc_statfs space;
  if (bootflash.statfs(&space) != 0) {
    static_cast<void>(bootflash.check(flashfs_check_quick));
  }
  make_file("file", "some text\n");
  static_cast<void>(bootflash.mkdir("dir"));
  make_file("dir/inner", "more text\n");
}

std::vector<std::string> words_of(const uint8_t* data, size_t size) {
  std::vector<std::string> words = {"zantrolume"};
  std::string word;
  for (size_t i = 0; i < size; i++) {
    if (data[i] == '\n') {
      words.push_back(word);
      word.clear();
    } else if (data[i] != '\0') {
      word.push_back(static_cast<char>(data[i]));
    }
  }
  if (!word.empty()) {
    words.push_back(word);
  }
  return words;
}

std::vector<char*> vector_of(std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  return argv;
}

// Whether the program would carry the words out in little time.
bool is_short_work(const std::vector<std::string>& words, int* argc) {
  std::vector<std::string> copies = words;
  std::vector<char*> argv = vector_of(copies);
  *argc = static_cast<int>(copies.size());
  zantrolume_request request;
  optind = 0;  // begins anew
  return zantrolume_parse(*argc, argv.data(), &request) != 0 || request.length <= max_dump;
}

// A command that registers the file system again leaves the old state behind; a run of the program
// ends soon after, but this one goes on.
void free_abandoned(flashfs* old) {
  if (old == nullptr || old == flashfs_get_fsp("bootflash:")) {
    return;
  }
  flashfs_clear_maps(old);
  chunk_destroy(old->sctr_buf_chunk);
  delete_watched_semaphore(&old->lock);
  delete[] old->flashfs_blocks;
  delete old;
}

void use_path(const std::string& path) {
  ppc_stat status;
  ppc_statfs space;
  (void)ifs_stat(path.c_str(), &status);
  (void)ifs_statfs(path.c_str(), &space);
  (void)ifs_rename("bootflash:file", path.c_str());
  (void)ifs_rename(path.c_str(), "bootflash:file");
  (void)ifs_mkdir(path.c_str(), 0);
  (void)ifs_rmdir(path.c_str());
  (void)ifs_chmod(path.c_str(), 0);
  const int32_t fd = ifs_open(path.c_str(), ifs_open_write | ifs_open_create, 0);
  if (fd >= 0) {
    ifs_close(fd);
    (void)ifs_remove(path.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  prepare();
  const std::vector<std::string> words = words_of(data, size);
  int argc = 0;
  if (is_short_work(words, &argc)) {
    std::vector<std::string> copies = words;
    std::vector<char*> argv = vector_of(copies);
    flashfs* old = flashfs_get_fsp("bootflash:");
    optind = 0;
    zantrolume_run(argc, argv.data());
    free_abandoned(old);
  }
  for (const std::string& word : words) {
    if (word.find("...") == std::string::npos) {
      use_path(word.find(':') == std::string::npos ? "bootflash:" + word : word);
    }
  }
  return 0;
}

// Reads and checks a chassis folder, and keeps the chassis that is made of it.
#include "sim/folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <sstream>  // IWYU pragma: keep
#include <system_error>
#include <vector>

#include "sim/counts.h"
#include "sim/cpld.h"
#include "sim/flash.h"

namespace sim {

namespace {

constexpr const char* folder_variable = "ZANTROLUME_CHASSIS";
constexpr const char* default_folder = "./chassis";
constexpr const char* settings_name = "chassis.txt";
constexpr const char* report_name = "report.txt";
constexpr const char* program_name = "zantrolume-sim";
constexpr const char* unfinished_suffix = ".new";

std::string flash_path(const std::string& folder, int ppc) {
  return folder + "/ppc" + std::to_string(ppc) + ".flash";
}

std::string system_error(const std::string& path, const char* doing) {
  return path + ": cannot " + doing + ": " + std::strerror(errno);
}

std::optional<int64_t> parse_number(const std::string& word, int64_t lowest, int64_t highest) {
  if (word.empty() || word.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  int64_t value = 0;
  const auto parsed = std::from_chars(word.data(), word.data() + word.size(), value);
  if (parsed.ec != std::errc() || value < lowest || value > highest) {
    return std::nullopt;
  }
  return value;
}

// A word for a message: whatever a file holds, the message stays one line of plain text.
std::string in_quotes(const std::string& word) {
  static const char digits[] = "0123456789abcdef";
  std::string text = "'";
  for (const char each : word) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte < ' ' || byte > '~' || byte == '\\') {
      text += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
    } else {
      text += each;
    }
  }
  return text + "'";
}

// One line's words, taken from the front. The first error stays.
class line_parser {
 public:
  explicit line_parser(const std::string& line) {
    std::istringstream stream(line.substr(0, line.find('#')));
    words_.assign(std::istream_iterator<std::string>(stream), {});
  }
  bool at_end() const {
    return next_ >= words_.size();
  }
  // The next word; empty at the end.
  std::string word() {
    return at_end() ? std::string() : words_[next_++];
  }
  int64_t number(const char* what, int64_t lowest, int64_t highest) {
    const std::string text = word();
    const auto value = parse_number(text, lowest, highest);
    if (!value) {
      fail(in_quotes(text) + " is not " + what + " (" + std::to_string(lowest) + " to " +
           std::to_string(highest) + ")");
    }
    return value.value_or(lowest);
  }
  folder_settings::complex_settings& complex(folder_settings* settings) {
    return settings->complexes[number("a PPC number", first_ppc, last_ppc) - first_ppc];
  }
  void fail(const std::string& error) {
    if (error_.empty()) {
      error_ = error;
    }
  }
  std::string finish() {
    if (!at_end()) {
      fail(in_quotes(words_[next_]) + " is too much on this line; remove it");
    }
    return error_;
  }

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
  std::string error_;
};

void parse_running(line_parser& line, folder_settings* settings) {
  do {
    line.complex(settings).running = true;
  } while (!line.at_end());
}

void parse_ready(line_parser& line, folder_settings* settings) {
  auto& complex = line.complex(settings);
  const std::string kind = line.word();
  if (kind == "never") {
    complex.ready_never = true;
    if (!line.at_end()) {
      complex.cycles_until_never =
          static_cast<uint64_t>(line.number("a number of cycles", 1, INT64_MAX));
    }
  } else if (kind == "low") {
    complex.ready_low = static_cast<uint32_t>(line.number("a number of reads", 0, UINT32_MAX));
  } else {
    line.fail("unknown word " + in_quotes(kind) + "; use never [<cycles>] or low <reads>");
  }
}

void parse_cut(line_parser& line, folder_settings* settings) {
  auto& complex = line.complex(settings);
  const std::string kind = line.word();
  if (kind == "before") {
    complex.kind = cut_kind::before;
  } else if (kind == "during") {
    complex.kind = cut_kind::during;
  } else if (kind == "during-noise") {
    complex.kind = cut_kind::during_noise;
  } else if (kind == "after") {
    complex.kind = cut_kind::after;
  } else {
    line.fail("unknown word " + in_quotes(kind) + "; use before, during, during-noise or after");
  }
  complex.cut_mutation =
      static_cast<uint64_t>(line.number("the number of a program or erase", 1, INT64_MAX));
  if (!line.at_end()) {
    complex.seed = static_cast<uint64_t>(line.number("a seed", 0, INT64_MAX));
  }
}

void parse_fail(line_parser& line, folder_settings* settings) {
  const std::string call = line.word();
  if (call != "open" && call != "map") {
    line.fail("unknown word " + in_quotes(call) + "; use open <errno> or map <errno>");
  }
  const auto error = static_cast<int>(line.number("an errno value", 1, 4095));
  (call == "open" ? settings->open_error : settings->map_error) = error;
}

std::string parse_line(const std::string& text, folder_settings* settings) {
  line_parser line(text);
  if (line.at_end()) {
    return {};
  }
  const std::string word = line.word();
  if (word == "running") {
    parse_running(line, settings);
  } else if (word == "clock") {
    settings->clock_held = true;
    settings->clock_seconds = line.number("a number of seconds", 0, INT32_MAX);
  } else if (word == "ready") {
    parse_ready(line, settings);
  } else if (word == "cut") {
    parse_cut(line, settings);
  } else if (word == "fail") {
    parse_fail(line, settings);
  } else if (word == "report") {
    settings->report = true;
  } else {
    return "unknown word " + in_quotes(word) + "; use running, clock, ready, cut, fail or report";
  }
  return line.finish();
}

// An existing flash file must be whole and writable; a missing one is made when it is needed.
std::string check_flash_file(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return errno == ENOENT ? std::string() : system_error(path, "look at the flash file");
  }
  if (!S_ISREG(status.st_mode)) {
    return path + ": is not a file; remove it, and an erased flash is made";
  }
  if (status.st_size != off_t{chassis_flash_size}) {
    return path + ": has " + std::to_string(status.st_size) + " bytes instead of " +
           std::to_string(chassis_flash_size) +
           "; put a whole image there or remove it, and an erased flash is made";
  }
  if (access(path.c_str(), R_OK | W_OK) != 0) {
    return system_error(path, "read and write the flash file") + "; change its permissions";
  }
  return {};
}

void print_error(const std::string& error) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s: %s\n", program_name, error.c_str());
}

[[noreturn]] void end_with_error(const std::string& error) {
  print_error(error);
  std::exit(folder_error_status);
}

// False with errno.
bool write_all(int fd, const char* bytes, size_t size) {
  for (size_t written = 0; written < size;) {
    const ssize_t part = write(fd, bytes + written, size - written);
    if (part < 0 && errno != EINTR) {
      return false;
    }
    written += part < 0 ? 0 : static_cast<size_t>(part);
  }
  return true;
}

bool write_erased(int fd, size_t size) {
  const std::string ones(chassis_sector_size, '\xFF');
  for (size_t written = 0; written < size; written += ones.size()) {
    if (!write_all(fd, ones.data(), std::min(ones.size(), size - written))) {
      return false;
    }
  }
  return true;
}

// Whether a file is an image that a run was making. The number of its process follows.
bool is_unfinished(const std::string& name, int ppc) {
  const std::string path = flash_path("", ppc) + unfinished_suffix;
  return ("/" + name).compare(0, path.size(), path) == 0;
}

// Reads the whole text file, which must be one: opening does not wait for anybody, and what is not
// a file or has no end is refused. Returns an empty string, or the error.
std::string read_text(const std::string& name, std::string* text) {
  const int fd = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat status;
  const bool looked = fd >= 0 && fstat(fd, &status) == 0;
  // A size that 32 bits cannot tell is no reason to look into the file.
  bool too_long = !looked && errno == EOVERFLOW;
  const bool is_file = looked && S_ISREG(status.st_mode);
  // One more than there may be, since a file can grow.
  text->resize(is_file ? longest_settings + 1 : 0);
  size_t length = 0;
  ssize_t part = -1;
  while (is_file && length < text->size() &&
         ((part = read(fd, text->data() + length, text->size() - length)) > 0 ||
          (part < 0 && errno == EINTR))) {
    length += part < 0 ? 0 : static_cast<size_t>(part);
  }
  if (fd >= 0) {
    close(fd);
  }
  text->resize(length);
  too_long = too_long || length > longest_settings;
  if (too_long) {
    return name + ": has more than " + std::to_string(longest_settings) +
           " bytes; it is no text for a chassis";
  }
  return part < 0 ? name + ": cannot read the chassis's text file; make it (it may be empty)"
                  : std::string();
}

// Makes an erased flash file under its name only when it is whole, so that a killed run leaves no
// short one.
void create_flash_file(const std::string& path, size_t size) {
  const std::string unfinished = path + unfinished_suffix + "." + std::to_string(getpid());
  const int fd = open(unfinished.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    end_with_error(system_error(unfinished, "make the erased flash") +
                   "; make the folder writable");
  }
  const bool written = write_erased(fd, size);
  const int write_errno = errno;
  close(fd);
  if (written && rename(unfinished.c_str(), path.c_str()) == 0) {
    return;
  }
  if (!written) {
    errno = write_errno;
  }
  const std::string error = system_error(path, "make the erased flash");
  unlink(unfinished.c_str());
  end_with_error(error + "; make room or make the folder writable");
}

}  // namespace

std::string parse_settings(const std::string& text, const std::string& name,
                           folder_settings* settings) {
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    const std::string error = parse_line(line, settings);
    if (!error.empty()) {
      return name + ":" + std::to_string(number) + ": " + error;
    }
  }
  return {};
}

std::string read_folder(const std::string& folder, folder_settings* settings) {
  struct stat status;
  if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return folder + ": there is no such chassis folder; make it with a file " + settings_name +
           " in it (it may be empty), or name another one in " + folder_variable;
  }
  const std::string name = folder + "/" + settings_name;
  std::string text;
  std::string error = read_text(name, &text);
  if (error.empty()) {
    error = parse_settings(text, name, settings);
  }
  for (int ppc = first_ppc; ppc <= last_ppc && error.empty(); ++ppc) {
    error = check_flash_file(flash_path(folder, ppc));
  }
  if (error.empty() && access(folder.c_str(), W_OK | X_OK) != 0) {
    error = system_error(folder, "write to the chassis folder") + "; change its permissions";
  }
  return error;
}

folder_chassis::folder_chassis(const std::string& folder, const folder_settings& settings)
    : folder_(folder), report_(settings.report), locks_{-1, -1} {
  chassis_.set_lock([this](int node, bool wait) { return lock_node(node, wait); });
  for (int ppc = first_ppc; ppc <= last_ppc; ++ppc) {
    const auto& complex = settings.complexes[ppc - first_ppc];
    power& supply = supplies_[ppc - first_ppc];
    chassis_.flash(ppc).set_supply(supply);
    chassis_.flash(ppc).set_source([this, ppc](size_t size) { return map_flash(ppc, size); });
    chassis_.set_running(ppc, complex.running);
    chassis_.set_ready_low(ppc, complex.ready_low);
    if (complex.ready_never) {
      chassis_.set_ready_never(ppc, complex.cycles_until_never);
    }
    supply.cut_at(complex.cut_mutation, complex.kind, complex.seed);
    // At once, as power goes: no destructors, nothing that is still buffered is written.
    supply.on_cut = [] { _exit(power_cut_status); };
  }
  if (settings.clock_held) {
    chassis_.clock_hold(settings.clock_seconds);
  }
  chassis_.fail_open(settings.open_error);
  chassis_.fail_map(settings.map_error);
}

folder_chassis::~folder_chassis() {
  for (void* mapping : mappings_) {
    if (mapping != nullptr) {
      munmap(mapping, chassis_flash_size);
    }
  }
  for (const int lock : locks_) {
    if (lock >= 0) {
      close(lock);
    }
  }
}

int folder_chassis::lock_node(int node, bool wait) {
  if (locks_[node] < 0) {
    const std::string path = folder_ + "/.lock" + std::to_string(node + 1);
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    locks_[node] = open(path.c_str(), flags, 0666);
    if (locks_[node] < 0) {
      end_with_error(system_error(path, "open the lock file") + "; remove it");
    }
  }
  int result = 0;
  do {
    result = flock(locks_[node], wait ? LOCK_EX : LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) {
    remove_unfinished(node);
    return 0;
  }
  return errno == EWOULDBLOCK ? 1 : 0;
}

// Removes the images that killed runs have left unfinished. Nobody is making one: the lock is held.
void folder_chassis::remove_unfinished(int node) const {
  std::error_code ignored;
  for (const auto& file : std::filesystem::directory_iterator(folder_, ignored)) {
    for (int index = 0; index < flashes_per_node; ++index) {
      if (is_unfinished(file.path().filename(), first_ppc + node * flashes_per_node + index)) {
        std::filesystem::remove(file.path(), ignored);
      }
    }
  }
}

uint8_t* folder_chassis::map_flash(int ppc, size_t size) {
  const std::string path = flash_path(folder_, ppc);
  if (access(path.c_str(), F_OK) != 0) {
    create_flash_file(path, size);
  }
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    end_with_error(system_error(path, "open the flash file") + "; change its permissions");
  }
  // Looked at again: a file that has become short since the check would end the process with
  // SIGBUS.
  struct stat status;
  if (fstat(fd, &status) != 0 || status.st_size != static_cast<off_t>(size)) {
    end_with_error(path + ": has changed its size; put a whole image there");
  }
  // A hole in the file for which the disk has no room would end the process with SIGBUS as well.
  do {
    errno = posix_fallocate(fd, 0, static_cast<off_t>(size));
  } while (errno == EINTR);
  if (errno != 0) {
    end_with_error(system_error(path, "fill the flash file") + "; make room");
  }
  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED) {
    end_with_error(system_error(path, "map the flash file") + "; free some memory");
  }
  close(fd);
  mappings_[ppc - first_ppc] = mapping;
  return static_cast<uint8_t*>(mapping);
}

std::string folder_chassis::report() const {
  if (!report_) {
    return {};
  }
  std::ostringstream text;
  const access_counts counts = chassis_.counts();
  const deviation_counts deviations = chassis_.deviations();
  text << "deviations " << deviations.total() << "\n"
       << deviations << "words_read " << counts.words_read << "\nprograms " << counts.programs
       << "\nerases " << counts.erases << "\ncommand_cycles " << counts.command_cycles
       << "\npage_writes " << counts.page_writes << "\nstatus_reads " << counts.status_reads
       << "\nrun_state_reads " << counts.run_state_reads << "\n";
  const std::string path = folder_ + "/" + report_name;
  // Opened without waiting for a reader, and never through a link to another file.
  constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int fd = open(path.c_str(), flags, 0666);
  struct stat status;
  const bool is_file = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  const bool written = is_file && write_all(fd, text.str().data(), text.str().size());
  std::string error;
  if (!written) {
    error = fd >= 0 && !is_file ? path + ": is not a file" : system_error(path, "write the report");
    error += "; remove it, or make room";
  }
  if (fd >= 0) {
    close(fd);
  }
  return error;
}

chassis* environment_chassis() {
  // Lives until the process ends: flashes stay mapped for whoever still holds the window.
  static folder_chassis* kept = nullptr;
  if (kept != nullptr) {
    return &kept->get();
  }
  const char* named = std::getenv(folder_variable);
  const std::string folder = named != nullptr && *named != '\0' ? named : default_folder;
  folder_settings settings;
  const std::string error = read_folder(folder, &settings);
  if (!error.empty()) {
    end_with_error(error);
  }
  kept = new folder_chassis(folder, settings);
  std::atexit([] {
    const std::string report_error = kept->report();
    if (!report_error.empty()) {
      // It is too late for exit.
      print_error(report_error);
      std::fflush(nullptr);
      _exit(folder_error_status);
    }
  });
  return &kept->get();
}

chassis& chassis_in_use() {
  if (installed_chassis() == nullptr) {
    install_chassis(environment_chassis());
  }
  return *installed_chassis();
}

}  // namespace sim

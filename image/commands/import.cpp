// import: makes an image of what a terminal has kept of the board's raw dumps.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/geometry.h"
#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/new_image.h"
#include "image/transcript.h"

namespace image {

namespace {

struct import_options {
  new_image made;
  std::vector<std::string> transcripts;
};

constexpr size_t piece_size = 1U << 16;  // bytes

// False after a message.
bool read_transcript(const std::string& name, transcript_merge* merged, report& out) {
  const descriptor file(name == "-" ? -1 : open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file && name != "-") {
    if (!interrupted()) {
      out.fail(exit_status::failed, strerror(errno), name);
    }
    return false;
  }
  merged->begin(name);
  std::string piece(piece_size, '\0');
  ssize_t got = 0;
  do {
    got = read_some(file ? file.get() : STDIN_FILENO, piece.data(), piece.size());
    if (got > 0) {
      merged->feed({piece.data(), static_cast<size_t>(got)});
      out.progress("reading", merged->known_bytes(), merged->bytes().size());
    }
  } while (got > 0);
  const int error = errno;
  merged->end();
  if (got < 0 && !interrupted()) {
    out.fail(exit_status::failed, strerror(error), name);
  }
  return got == 0;
}

// Behind the last of the file system's blocks.
uint64_t end_of_file_system(const geometry& layout) {
  uint64_t end = 0;
  for (const flash_block_info& block : block_table(layout)) {
    end = block.skip == 0 ? uint64_t{block.offset} + block.size : end;
  }
  return end;
}

std::optional<uint32_t> block_at(const geometry& layout, uint32_t offset) {
  uint32_t number = 0;
  for (const flash_block_info& block : block_table(layout)) {
    if (offset - block.offset < block.size) {
      return number;
    }
    number++;
  }
  return std::nullopt;
}

void tell(const transcript_problem& one, const geometry& layout, report& out) {
  using kind = transcript_problem::kind;
  const char* code = one.what == kind::contradiction ? "transcript-contradiction"
                     : one.what == kind::unreadable  ? "transcript-unreadable"
                                                     : "transcript-hole";
  const bool outside = one.offset >= end_of_file_system(layout);
  finding told = make_finding(outside && one.what == kind::hole ? "transcript-hole-outside" : code,
                              std::to_string(one.length) + " bytes: " + one.text);
  told.offset = one.offset;
  told.length = one.length;
  told.block = block_at(layout, one.offset);
  out.add(told);
  if (told.severity != severity::info) {
    out.raise(exit_status::faults);
  }
}

void run(const import_options& options, const globals& all, report& out) {
  const std::optional<geometry> layout = plan_new_image(options.made, all, out);
  if (!layout) {
    return;
  }
  transcript_merge merged(static_cast<uint32_t>(size_bytes(*layout)));
  for (const std::string& name : options.transcripts) {
    if (!read_transcript(name, &merged, out)) {
      return;
    }
  }
  out.result()["lines"] = merged.lines();
  out.result()["bytes"] = merged.known_bytes();
  if (merged.lines() == 0) {
    out.fail(exit_status::failed, "there is no line of a dump in it", options.transcripts.front());
    return;
  }
  for (const transcript_problem& one : merged.problems()) {
    tell(one, *layout, out);
  }
  out.detail(std::to_string(merged.lines()) + " lines of dumps tell " +
             std::to_string(merged.known_bytes()) + " bytes");
  // What keeps it from being written is told.
  static_cast<void>(write_new_image(options.made, merged.bytes(), all, out));
}

}  // namespace

command import_command() {
  auto options = std::make_shared<import_options>();
  return {"import", "Makes an image of dumps that a terminal has kept",
          "flashfs-image import boot.img session.log",
          [options](arguments& take) {
            take.word("OUT", &options->made.name, "The new image, '-' for standard output");
            take.words("TRANSCRIPT", &options->transcripts,
                       "What the board printed for \"aread\" and \"sread\", '-' for standard "
                       "input");
            take.flag("--force", &options->made.force, "Replace an image that is there");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image

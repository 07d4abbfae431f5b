// Opening images, and the checks at both ends of a session.
#include "image/session.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "flashfs/check_flags.h"
#include "image/check_report.h"
#include "image/complex_edit.h"
#include "image/console.h"
#include "image/interrupt.h"

namespace image {

namespace {

// A failure with a code of its own.
void fail_as(const char* code, const std::string& text, const std::string& name, report& out) {
  finding told = make_finding(code, text);
  told.path = name;
  out.add(told);
  out.raise(exit_status::failed);
}

// Nothing tells how it is divided: is it too short or too long, or can that only be said?
void tell_unknown_geometry(const std::string& name, std::span<const uint8_t> bytes, report& out) {
  const std::string has = "has " + std::to_string(bytes.size()) + " bytes, ";
  if (const std::optional<expected_size> told = size_by_headers(bytes)) {
    fail_as("image-size",
            has + "but its block headers tell blocks of " + std::to_string(told->block_bytes) +
                " bytes, with which it should have " + std::to_string(told->bytes),
            name, out);
    return;
  }
  fail_as("geometry-unknown",
          has +
              "and neither that nor its block headers tell how it is divided: the flash of a "
              "complex has " +
              std::to_string(size_bytes(default_geometry())) + "; --geometry tells another",
          name, out);
}

std::optional<geometry> geometry_said(const std::string& text, const std::string& name,
                                      std::span<const uint8_t> bytes, report& out) {
  std::string why;
  std::optional<geometry> given = parse_geometry(text, &why);
  if (!given) {
    out.fail(exit_status::usage, "--geometry: " + why);
  } else if (size_bytes(*given) != bytes.size()) {
    fail_as("image-size",
            "has " + std::to_string(bytes.size()) + " bytes, its geometry " +
                std::to_string(size_bytes(*given)),
            name, out);
    return std::nullopt;
  }
  return given;
}

// The geometry, and what the headers have against one that was said.
std::optional<geometry> geometry_of(const globals& options, const std::string& name,
                                    std::span<const uint8_t> bytes, bool* doubted, report& out) {
  std::optional<geometry> layout = options.geometry.empty()
                                       ? detect_geometry(bytes)
                                       : geometry_said(options.geometry, name, bytes, out);
  if (options.geometry.empty()) {
    if (!layout) {
      tell_unknown_geometry(name, bytes, out);
    }
    return layout;
  }
  const std::optional<geometry> told =
      layout ? contradicting_geometry(bytes, *layout) : std::nullopt;
  if (told) {
    *doubted = true;
    out.warn(codes::geometry_differs,
             "its block headers tell " + geometry_text(*told) + ", not what --geometry says", name);
  }
  return layout;
}

// The flash of the complex that --ppc names: its geometry is known.
std::optional<opened_image> open_complex(const globals& options, flash_file::access wanted,
                                         report& out) {
  if (!options.geometry.empty()) {
    out.fail(exit_status::usage, "--geometry: that of a complex is known");
    return std::nullopt;
  }
  if (wanted == flash_file::access::edit && !may_change_complex(options, out)) {
    return std::nullopt;
  }
  std::shared_ptr<complex_flash> complex = complex_flash::open(options, out);
  if (!complex) {
    return std::nullopt;
  }
  const std::string name = complex->name();
  return opened_image{name, std::nullopt, std::move(complex), default_geometry()};
}

bool refuse(const std::string& name, const std::string& why, report& out) {
  out.fail(exit_status::failed, why, name);
  return false;
}

}  // namespace

bool opened_image::read(uint32_t offset, std::span<uint8_t> to) const {
  if (uint64_t{offset} + to.size() > (complex ? size_bytes(layout) : file->contents().size())) {
    return false;
  }
  if (complex) {
    complex->read(offset, to);
  } else {
    const std::span<const uint8_t> found = file->contents().subspan(offset, to.size());
    std::copy(found.begin(), found.end(), to.begin());
  }
  return true;
}

std::optional<opened_image> open_image(const globals& options, const std::string& name,
                                       flash_file::access wanted, report& out) {
  console_show(options.verbose);
  if (options.ppc && name.empty()) {
    return open_complex(options, wanted, out);
  }
  std::string why;
  std::optional<flash_file> file =
      flash_file::open(name, wanted, options.lock_timeout_seconds, &why);
  if (!file) {
    if (!interrupted()) {
      refuse(name, why, out);
    }
    return std::nullopt;
  }
  bool doubted = false;
  std::optional<geometry> layout = geometry_of(options, name, file->contents(), &doubted, out);
  if (!layout) {
    return std::nullopt;
  }
  return opened_image{name, std::move(file), nullptr, std::move(*layout), doubted};
}

std::optional<opened_image> open_image_to_edit(const globals& options, const std::string& name,
                                               report& out) {
  using access = flash_file::access;
  return open_image(options, name, options.output.empty() ? access::edit : access::read, out);
}

session::session(const globals& options, opened_image opened)
    : options_(options), image_(std::move(opened)) {}

std::unique_ptr<session> session::to_read(const globals& options, const std::string& name,
                                          report& out) {
  std::optional<opened_image> opened = open_image(options, name, flash_file::access::read, out);
  if (!opened) {
    return nullptr;
  }
  std::unique_ptr<session> made(new session(options, std::move(*opened)));
  if (made->image_.complex) {
    made->mount_complex();
    return made->check_for_reading(out) ? std::move(made) : nullptr;
  }
  std::string why;
  const std::optional<std::span<uint8_t>> view = made->image_.private_view(&why);
  if (!view) {
    refuse(name, why, out);
    return nullptr;
  }
  made->mounted_ = std::make_unique<class mounted>(*view, made->layout());
  return made->check_for_reading(out) ? std::move(made) : nullptr;
}

// A device is slow: what nobody asks for is not read.
void session::mount_complex() {
  looked_at_.resize(static_cast<size_t>(size_bytes(layout())));
  mounted_ = std::make_unique<class mounted>(looked_at_, layout());
  mounted_->flash().fill_from([complex = image_.complex](uint32_t offset, std::span<uint8_t> to) {
    complex->read(offset, to);
  });
}

uint32_t session::check_flags() const {
  return options_.full ? flashfs_check_full : flashfs_check_quick;
}

void session::keep_ready() {
  if (!mounted_->is_ready()) {
    static_cast<void>(files().check(check_flags()));
  }
}

bool session::check_for_reading(report& out) {
  const bool passed = mounted_->check(check_flags());
  if (interrupted()) {
    return false;
  }
  const std::string which = options_.full ? "the full check" : "the quick check";
  if (!passed) {
    out.fail(exit_status::faults,
             which + " cannot mount it; \"flashfs-image check\" tells what is wrong", image_.name);
    return false;
  }
  if (mounted_->flash().changed()) {
    out.warn(codes::would_repair,
             "this is how " + which +
                 " leaves it, which would repair it; \"flashfs-image check\" "
                 "tells what that changes",
             image_.name);
  }
  return true;
}

std::unique_ptr<session> session::to_edit(const globals& options, const std::string& name,
                                          bool force, report& out) {
  std::optional<opened_image> opened = open_image_to_edit(options, name, out);
  if (!opened) {
    return nullptr;
  }
  std::unique_ptr<session> made(new session(options, std::move(*opened)));
  std::string why;
  const std::optional<std::span<uint8_t>> view = made->image_.private_view(&why);
  if (!view) {
    refuse(name, why, out);
    return nullptr;
  }
  made->edited_ = *view;
  made->mounted_ = std::make_unique<class mounted>(made->edited_, made->layout());
  if (made->image_.complex) {
    made->mounted_->flash().keep_changes(&made->changes_);
  }
  return made->check_for_editing(force, out) ? std::move(made) : nullptr;
}

bool session::check_for_editing(bool force, report& out) {
  if (image_.geometry_is_doubted && !force) {
    out.fail(exit_status::faults,
             "not edited as what --geometry says, which its headers contradict; --force does it",
             image_.name);
    return false;
  }
  const bool passed = mounted_->check(flashfs_check_full);
  if (interrupted()) {
    return false;
  }
  if (!passed) {
    out.fail(exit_status::faults,
             "the full check cannot mount it; \"flashfs-image check\" tells what is wrong",
             image_.name);
    return false;
  }
  if (!mounted_->flash().changed()) {
    return true;
  }
  const std::vector<finding> repairs = repairs_made();
  if (!force) {
    out.fail(exit_status::faults,
             std::string("it has faults, which \"flashfs-image check\" tells; --force repairs them "
                         "first") +
                 (check_loses(repairs) ? ", which would drop what still is good" : ""),
             image_.name);
    return false;
  }
  for (const finding& one : repairs) {
    out.add(one);
  }
  out.warn(codes::repaired,
           check_loses(repairs) ? "it had faults, which were repaired; what still was good is lost"
                                : "it had faults, which were repaired",
           image_.name);
  out.raise(exit_status::changed);
  return true;
}

// What the check has done to the private copy, as "check" would tell it. It is not asked what it
// shows: reading a damaged file would mark it down.
std::vector<finding> session::repairs_made() {
  const records before = read_records(contents(), layout());
  const records after = read_records(edited_, layout());
  return report_check({.before = before,
                       .after = after,
                       .passed = true,
                       .lines = mounted_->said(),
                       .mounted = nullptr});
}

bool session::commit(report& out) {
  return static_cast<int>(out.status()) <= static_cast<int>(exit_status::partial) &&
         write_result(options_, image_, edited_, out, &changes_);
}

bool write_result(const globals& options, const opened_image& image, std::span<uint8_t> contents,
                  report& out, const change_list* in_order) {
  return result_is_sound(contents, image.layout, out) &&
         write_checked(options, image, contents, out, in_order);
}

bool write_checked(const globals& options, const opened_image& image,
                   std::span<const uint8_t> contents, report& out, const change_list* in_order) {
  const bool in_place = options.output.empty();
  out.result()["written"] = nullptr;
  const std::span<const uint8_t> before = image.contents();
  const bool same = std::equal(contents.begin(), contents.end(), before.begin(), before.end());
  if (in_place && same) {
    return true;
  }
  if (in_place && image.complex) {
    if (options.dry_run) {
      return true;
    }
    if (!change_complex(options, *image.complex, contents, in_order, out)) {
      return false;
    }
    put_text(&out.result(), "written", image.name);
    return true;
  }
  std::string why;
  const bool done = in_place
                        ? image.file->replace(contents, options.dry_run, &why)
                        : write_file(options.output, contents, {.dry_run = options.dry_run}, &why);
  if (!done) {
    return !interrupted() && refuse(in_place ? image.name : options.output, why, out);
  }
  if (!options.dry_run) {
    put_text(&out.result(), "written", in_place ? image.name : options.output);
    out.set_written();
  }
  return true;
}

bool result_is_sound(std::span<uint8_t> contents, const geometry& layout, report& out) {
  mounted again(contents, layout);
  const bool passed = again.check(flashfs_check_full);
  if (interrupted()) {
    return false;
  }
  if (passed && !again.flash().changed()) {
    return true;
  }
  std::string first = again.said().empty() ? std::string() : ": " + again.said().front();
  out.fail(exit_status::failed,
           "the result does not pass the full check, so nothing is written" + first);
  return false;
}

}  // namespace image

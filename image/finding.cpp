// The table of codes and the document that is made of it.
#include "image/finding.h"

#include <cassert>

namespace image {

namespace {

constexpr finding_code codes[] = {
    // The image as a whole.
    {"image-size", severity::error, "the image is shorter or longer than its blocks"},
    {"geometry-unknown", severity::error, "neither headers nor the size tell how it is divided"},
    {"no-spare", severity::error, "no erased block of the largest size is left to reclaim into"},
    {"root-missing", severity::warning, "no slot of the root stands: the root's date is not known"},
    // Block headers.
    {"block-blank", severity::warning, "a block is erased and has no header"},
    {"block-header-erased", severity::error, "a block holds something but its header is erased"},
    {"block-number", severity::error, "a header has the number of another block"},
    {"block-checksum", severity::error, "a header's checksum does not fit its timestamp"},
    {"block-state", severity::error, "a header's state is none that the file system writes"},
    {"block-invalid1", severity::warning, "a reclamation was cut while it copied into this block"},
    {"block-committed", severity::warning,
     "a reclamation was cut after it had copied into this block"},
    {"block-invalid2", severity::warning, "a block was given up and not erased yet"},
    {"block-header-unused", severity::info, "unused bytes of a header are not erased"},
    {"block-not-erased", severity::warning, "a block whose state is available holds something"},
    {"block-tail", severity::info, "bytes behind the last sector are not erased"},
    // Sectors.
    {"sector-checksum", severity::error, "a sector's checksum does not fit"},
    {"sector-unfinished", severity::error, "a sector was claimed for a file and not written whole"},
    {"sector-not-erased", severity::error, "a sector without owner holds something"},
    {"sector-count", severity::warning, "a sector says it holds more bytes than it can"},
    {"sector-short", severity::warning, "a sector that is not its file's last one is not full"},
    {"sector-duplicate", severity::warning, "another sector of this file has the same number"},
    {"file-gap", severity::error,
     "the numbers of a file's sectors have a gap: none of them counts"},
    {"slots-in-file", severity::error, "slots stand in a directory that is named as a file"},
    {"file-in-directory", severity::error, "a directory owns sectors of data as well"},
    // Slots.
    {"slot-checksum", severity::error, "a slot's checksum does not fit"},
    {"slot-unfinished", severity::error, "a slot was begun and not written whole"},
    {"slot-not-erased", severity::error, "a slot without directory holds something"},
    {"slot-type", severity::error, "a slot names neither a file nor a directory"},
    {"slot-name", severity::error, "a name has a character that must not stand in one"},
    {"slot-name-length", severity::warning, "a name fills its field and has no end"},
    {"slot-name-empty", severity::warning, "a name is empty"},
    {"slot-duplicate", severity::warning, "another slot of this directory has the same number"},
    {"slot-second-name", severity::warning, "what the slot names has its name elsewhere"},
    {"slot-same-name", severity::warning, "another slot of this directory has the same name"},
    {"slot-entry", severity::error, "a slot names an id that nothing can have"},
    // The tree.
    {"orphan", severity::warning, "no directory names what owns sectors or slots"},
    // What a check would do, or has done.
    {"check-fails", severity::error, "the check cannot make the file system usable"},
    {"check-block-header", severity::info, "a blank block gets a header"},
    {"check-block-erased", severity::warning, "a block is erased, and nothing is lost with it"},
    {"check-block-lost", severity::error,
     "a block is erased with good records that stand nowhere else"},
    {"check-block-state", severity::info, "a block's state is changed"},
    {"check-file-dropped", severity::error, "a file loses its contents"},
    {"check-file-changed", severity::error, "a file's contents are changed"},
    {"check-file-removed", severity::error, "a name goes"},
    {"check-file-added", severity::warning, "a name appears that was not there"},
    {"check-file-dated", severity::info, "mode or date of a file or directory are changed"},
    {"check-file-unreadable", severity::error, "a file would be there but cannot be read"},
    {"check-file-hidden", severity::warning, "a file would not be shown, though it stands"},
    {"check-relinked", severity::warning, "an orphan gets a name under /lost+found"},
    {"check-sector-obsolete", severity::warning,
     "a sector that does not count, or is not good, is made obsolete"},
    {"check-sector-lost", severity::error,
     "a good sector that stands nowhere else is made obsolete"},
    {"check-slot-deleted", severity::warning,
     "a slot that does not count, or is not good, is deleted"},
    {"check-slot-lost", severity::error, "a good slot that stands nowhere else is deleted"},
    {"check-slot-added", severity::info, "a slot is written"},
    {"check-message", severity::info, "what the check says"},
    // What the transcripts of an import do not tell, or tell twice.
    {"transcript-hole", severity::warning, "no transcript tells these bytes, they are left erased"},
    {"transcript-hole-outside", severity::info,
     "as transcript-hole, behind the file system's blocks"},
    {"transcript-contradiction", severity::error,
     "transcripts tell different bytes, the later one counts"},
    {"transcript-unreadable", severity::warning, "a line of a dump has suffered on its way"},
    // A run, not a record: report.h has names for these.
    {"usage", severity::error, "the command line is wrong"},
    {"not-done", severity::error, "something could not be done"},
    {"faults-left", severity::error, "there are faults, and they were left"},
    {"left-out", severity::error, "something was left out"},
    {"interrupted", severity::error, "a signal ended the run"},
    {"would-repair", severity::warning, "a check would change the image"},
    {"repaired", severity::warning, "the image was repaired"},
    {"advice", severity::warning, "something that may not be meant"},
};

}  // namespace

const char* severity_text(severity value) {
  switch (value) {
    case severity::info:
      return "info";
    case severity::warning:
      return "warning";
    case severity::error:
      break;
  }
  return "error";
}

std::span<const finding_code> finding_codes() {
  return codes;
}

const finding_code* find_code(std::string_view code) {
  for (const finding_code& row : codes) {
    if (code == row.code) {
      return &row;
    }
  }
  return nullptr;
}

std::string finding_codes_document() {
  std::string text =
      "# Codes of the findings\n"
      "\n"
      "What `flashfs-image` finds in an image has one of these codes. They stay the same from\n"
      "version to version; texts may change. The words are those of [glossary.md](glossary.md),\n"
      "the records those of [format.md](format.md). This page is made of the table in\n"
      "`image/finding.cpp`, and `tests/image/finding_test.cpp` compares the two.\n"
      "\n"
      "| code | severity | meaning |\n"
      "|---|---|---|\n";
  for (const finding_code& row : codes) {
    text += std::string("| `") + row.code + "` | " + severity_text(row.severity) + " | " +
            row.meaning + " |\n";
  }
  return text;
}

finding make_finding(std::string_view code, std::string text) {
  const finding_code* row = find_code(code);
  assert(row != nullptr);
  finding made;
  made.code = row->code;
  made.severity = row->severity;
  made.text = std::move(text);
  return made;
}

}  // namespace image

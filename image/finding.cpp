// The table of codes and the document that is made of it.
#include "image/finding.h"

#include <cassert>

namespace image {

namespace {

// What to do, where it is the same for several.
constexpr const char* nothing = "nothing";
constexpr const char* rescue_first = "\"rescue\" first: it keeps what the check would lose";
constexpr const char* remake_header = "\"rescue\" makes the header new; a check erases the block";
constexpr const char* dump_again = "dump these bytes again, and import that, too";

constexpr finding_code codes[] = {
    // The image as a whole.
    {"image-size", severity::error, "the image is shorter or longer than its blocks",
     "get the whole dump again, or tell its blocks with --geometry"},
    {"geometry-unknown", severity::error, "neither headers nor the size tell how it is divided",
     "tell it with --geometry"},
    {"geometry-differs", severity::warning,
     "the block headers tell another division than --geometry", "leave --geometry out"},
    {"no-spare", severity::error, "no erased block of the largest size is left to reclaim into",
     "\"rescue\" frees a block; no check can"},
    {"root-missing", severity::warning, "no slot of the root stands: the root's date is not known",
     "\"rescue\" brings the slot back; a check makes a new one"},
    // Block headers.
    {"block-blank", severity::warning, "a block is erased and has no header",
     "nothing: the next mount writes a header"},
    {"block-header-erased", severity::error, "a block holds something but its header is erased",
     remake_header},
    {"block-number", severity::error, "a header has the number of another block", remake_header},
    {"block-checksum", severity::error, "a header's checksum does not fit its timestamp",
     remake_header},
    {"block-state", severity::error, "a header's state is none that the file system writes",
     "\"rescue\" takes it into use if it has the only copy; a check erases it"},
    {"block-invalid1", severity::warning, "a reclamation was cut while it copied into this block",
     "nothing: a check erases it, all in it stands elsewhere"},
    {"block-committed", severity::warning,
     "a reclamation was cut after it had copied into this block",
     "nothing: a check takes it into use; where there is no spare, \"rescue\" mends that"},
    {"block-invalid2", severity::warning, "a block was given up and not erased yet",
     "\"rescue\" looks whether it has the only copy of something; a check erases it"},
    {"block-header-unused", severity::info, "unused bytes of a header are not erased", nothing},
    {"block-not-erased", severity::warning, "a block whose state is available holds something",
     "\"rescue\" keeps what stands nowhere else; a check erases it"},
    {"block-tail", severity::info, "bytes behind the last sector are not erased", nothing},
    // Sectors.
    {"sector-checksum", severity::error, "a sector's checksum does not fit",
     "\"rescue\" puts back what stood there, where that can be told; a check drops it"},
    {"sector-unfinished", severity::error, "a sector was claimed for a file and not written whole",
     "\"rescue\" undoes the write that was cut; the quick check drops the file"},
    {"sector-not-erased", severity::error, "a sector without owner holds something",
     "nothing: the full check and \"rescue\" make it obsolete"},
    {"sector-count", severity::warning, "a sector says it holds more bytes than it can",
     "\"rescue\" judges the file anew"},
    {"sector-short", severity::warning, "a sector that is not its file's last one is not full",
     "\"rescue\" finishes or undoes the truncation"},
    {"sector-duplicate", severity::warning, "another sector of this file has the same number",
     "\"rescue\" tells which of the two counts; a check keeps the one that it meets last"},
    {"file-gap", severity::error, "the numbers of a file's sectors have a gap: none of them counts",
     "\"rescue\" fills the gap from what was made obsolete; a check drops the file"},
    {"slots-in-file", severity::error, "slots stand in a directory that is named as a file",
     "\"rescue\" or the full check moves them to /lost+found"},
    {"file-in-directory", severity::error, "a directory owns sectors of data as well",
     "\"rescue\" or the full check drops the data"},
    // Slots.
    {"slot-checksum", severity::error, "a slot's checksum does not fit",
     "\"rescue\" mends one wrong bit; a check deletes the slot"},
    {"slot-unfinished", severity::error, "a slot was begun and not written whole",
     "\"rescue\" or the full check deletes it; the quick check may not mount"},
    {"slot-not-erased", severity::error, "a slot without directory holds something",
     "nothing: the full check and \"rescue\" delete it"},
    {"slot-type", severity::error, "a slot names neither a file nor a directory",
     "\"rescue\" mends one wrong bit; a check deletes the slot"},
    {"slot-name", severity::error, "a name has a character that must not stand in one",
     "\"rescue\" or the full check deletes it, and names the file in /lost+found"},
    {"slot-name-length", severity::warning, "a name fills its field and has no end",
     "rename the file"},
    {"slot-name-empty", severity::warning, "a name is empty",
     "\"rescue\" or the full check names it in /lost+found"},
    {"slot-duplicate", severity::warning, "another slot of this directory has the same number",
     "\"rescue\" gives one of the two another number; a check deletes one"},
    {"slot-second-name", severity::warning, "what the slot names has its name elsewhere",
     "\"rescue\" keeps the newer name; a check hides one of the two"},
    {"slot-same-name", severity::warning, "another slot of this directory has the same name",
     "rename the file that is seen to see the other, or \"rescue\""},
    {"slot-entry", severity::error, "a slot names an id that nothing can have",
     "\"rescue\" or the full check deletes the slot"},
    // The tree.
    {"orphan", severity::warning, "no directory names what owns sectors or slots",
     "\"rescue\" gives it its last name back; a check names it in /lost+found"},
    // What a check would do, or has done.
    {"check-fails", severity::error, "the check cannot make the file system usable",
     "\"rescue\" first, which has no state that it refuses"},
    {"check-block-header", severity::info, "a blank block gets a header", nothing},
    {"check-block-erased", severity::warning, "a block is erased, and nothing is lost with it",
     nothing},
    {"check-block-lost", severity::error,
     "a block is erased with good records that stand nowhere else", rescue_first},
    {"check-block-state", severity::info, "a block's state is changed", nothing},
    {"check-file-dropped", severity::error, "a file loses its contents", rescue_first},
    {"check-file-changed", severity::error, "a file's contents are changed", rescue_first},
    {"check-file-removed", severity::error, "a name goes", rescue_first},
    {"check-file-added", severity::warning, "a name appears that was not there",
     "\"rescue\" first, if the file had a name"},
    {"check-file-dated", severity::info, "mode or date of a file or directory are changed",
     nothing},
    {"check-file-unreadable", severity::error, "a file would be there but cannot be read",
     rescue_first},
    {"check-file-hidden", severity::warning, "a file would not be shown, though it stands",
     "rename the file that is seen"},
    {"check-relinked", severity::warning, "an orphan gets a name under /lost+found",
     "\"rescue\" first: it finds the last name where one is left"},
    {"check-sector-obsolete", severity::warning,
     "a sector that does not count, or is not good, is made obsolete", nothing},
    {"check-sector-lost", severity::error,
     "a good sector that stands nowhere else is made obsolete", rescue_first},
    {"check-slot-deleted", severity::warning,
     "a slot that does not count, or is not good, is deleted", nothing},
    {"check-slot-lost", severity::error, "a good slot that stands nowhere else is deleted",
     rescue_first},
    {"check-slot-added", severity::info, "a slot is written", nothing},
    {"check-message", severity::info, "what the check says", nothing},
    // What the rescue decides.
    {"block-kept", severity::warning,
     "a block with a bad header or state has the only copy of something: it is taken into use",
     nothing},
    {"block-erased", severity::info,
     "a block with a bad header or state has nothing that counts: it is erased", nothing},
    {"spare-made", severity::info, "no erased block was left: one is emptied", nothing},
    {"sector-dropped", severity::info,
     "a sector that was never whole, or stands twice, is made obsolete", nothing},
    {"sector-lost", severity::error,
     "a sector whose checksum does not hold is made obsolete, nothing stands for it",
     "compare the file with a copy of it"},
    {"extension-undone", severity::warning, "a write at the end that was cut is undone",
     "write it again"},
    {"overwrite-undone", severity::warning, "an overwrite that was cut is undone",
     "write it again"},
    {"double-resolved", severity::warning, "of two sectors of one number one is kept",
     "look into the file"},
    {"truncation-undone", severity::warning, "a truncation that had hardly begun is undone",
     "truncate it again"},
    {"truncation-finished", severity::warning, "a truncation that was cut is finished", nothing},
    {"invalidation-undone", severity::warning, "a sector that was being made obsolete is put back",
     "look into the file"},
    {"gap-filled", severity::warning, "a gap in a file is filled with what was made obsolete",
     "look into the file"},
    {"sector-mended", severity::warning, "a sector becomes good by one changed bit",
     "compare the file with a copy of it"},
    {"gap-zeroed", severity::error, "a gap in a file is filled with zeros",
     "compare the file with a copy of it"},
    {"list-cut", severity::error, "what stands behind a gap in a file is given up",
     "compare the file with a copy of it"},
    {"list-dropped", severity::warning, "the sectors of a file are given up", "look into the file"},
    {"slot-dropped", severity::info, "a slot that was never whole, or stands twice, is deleted",
     nothing},
    {"slot-lost", severity::error, "a slot whose checksum does not hold is deleted",
     "look into /lost+found for what it named"},
    {"slot-mended", severity::warning, "a slot becomes good by one change",
     "look whether name and date are right"},
    {"slot-renumbered", severity::info, "of two slots of one number one gets another", nothing},
    {"second-name", severity::warning, "of two names of one entry the older one is deleted",
     nothing},
    {"name-taken", severity::warning, "of two entries of one name one moves to /lost+found",
     "rename it there"},
    {"name-in-file", severity::warning,
     "what stands in a file as if it were a directory moves to /lost+found", "rename it there"},
    {"deletion-finished", severity::info, "a deletion that was cut is finished", nothing},
    {"deletion-undone", severity::warning, "a deletion that was cut is undone",
     "remove the file again, if it was meant"},
    {"root-restored", severity::warning, "the root gets its last slot back", nothing},
    {"root-made", severity::warning, "the root gets a new slot", nothing},
    {"orphan-named", severity::warning, "what has no name gets its last one back",
     "remove it, if it was meant to go"},
    {"orphan-relinked", severity::error, "what nothing names gets a name in /lost+found",
     "look into it and rename it"},
    {"file-returned", severity::warning, "a removed file comes back",
     "look into it: sectors of more than one time may fit"},
    {"directory-returned", severity::warning,
     "a removed directory comes back, for a file that was in it", "look what was in it"},
    {"contents-returned", severity::warning, "what an empty file may have held stands beside it",
     "look which of the two is wanted"},
    {"no-room-to-return", severity::warning, "a removed file does not come back: there is no room",
     "rescue to a folder; or remove something and try again"},
    // What the transcripts of an import do not tell, or tell twice.
    {"transcript-hole", severity::warning, "no transcript tells these bytes, they are left erased",
     dump_again},
    {"transcript-hole-outside", severity::info,
     "as transcript-hole, behind the file system's blocks", nothing},
    {"transcript-contradiction", severity::error,
     "transcripts tell different bytes, the later one counts", dump_again},
    {"transcript-unreadable", severity::warning, "a line of a dump has suffered on its way",
     dump_again},
    // A run, not a record: report.h has names for these.
    {"usage", severity::error, "the command line is wrong", "--help tells how"},
    {"not-done", severity::error, "something could not be done",
     "the text tells why; the image is as it was"},
    {"faults-left", severity::error, "there are faults, and they were left",
     "\"check\" tells them, \"rescue\" mends them"},
    {"left-out", severity::error, "something was left out", "the text tells what and why"},
    {"interrupted", severity::error, "a signal ended the run", "run it again"},
    {"would-repair", severity::warning, "a check would change the image",
     "\"check\" tells what; if it would lose something, \"rescue\" first"},
    {"repaired", severity::warning, "the image was repaired", nothing},
    {"advice", severity::warning, "something that may not be meant", "look whether it is meant"},
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
      "\"Nothing\" is to be done where a check may mend it and loses nothing by that. `check` "
      "changes\n"
      "nothing without `--repair`, but what the board runs does; so `rescue` comes before any of\n"
      "that, [power-cuts.md](power-cuts.md) tells why.\n"
      "\n"
      "| code | severity | meaning | what to do |\n"
      "|---|---|---|---|\n";
  for (const finding_code& row : codes) {
    text += std::string("| `") + row.code + "` | " + severity_text(row.severity) + " | " +
            row.meaning + " | " + row.what_to_do + " |\n";
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

// Records as people read them: a title, each field named, explained and judged, what it holds in
// rows, the findings about it and, if asked for, the bytes. The same goes into the document.
#pragma once

#include <cstdint>
#include <optional>

#include "image/records.h"
#include "image/report.h"

namespace image {

struct print_options {
  bool hex = false;            // the bytes, too
  std::optional<uint64_t> at;  // the field here was asked for, and is marked
};

// Prints every block in a line.
// Like those below it tells whether none of the findings that it has told is an error.
bool print_records(const records& all, const print_options& options, report& out);

// Prints one record; of a file or directory all records of it.
bool print_record(const records& all, const block_record& block, const print_options& options,
                  report& out);
bool print_record(const records& all, const sector_record& sector, const print_options& options,
                  report& out);
bool print_record(const records& all, const slot_record& slot, const print_options& options,
                  report& out);
bool print_record(const records& all, const entry_record& entry, const print_options& options,
                  report& out);

// Says that no record stands at an offset of the image.
void print_no_record(const records& all, uint64_t offset, const print_options& options,
                     report& out);

}  // namespace image

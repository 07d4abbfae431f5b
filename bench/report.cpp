// Tables of times, accesses, time over floor and growth.
#include "bench/report.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

#include "bench/checksums.h"
#include "flashfs/format.h"
#include "sim/counts.h"
#include "sim/flash.h"
#include "zantrolume/zantrolume_cpld.h"

namespace bench {

namespace {

// A sum of everything that goes over the bus.
double accesses(const sim::access_counts& counts) {
  return static_cast<double>(counts.words_read + counts.page_writes + counts.command_cycles +
                             counts.programs + counts.status_reads);
}

std::string number(const char* format, double value) {
  char text[64];
  snprintf(text, sizeof(text), format, value);
  return text;
}

// Exponent e of "measured grows as involved^e".
double exponent(double measured, double measured_before, double involved, double involved_before) {
  return std::log(measured / measured_before) / std::log(involved / involved_before);
}

// The fastest of a few runs, in seconds.
template <typename Work>
double seconds_of(Work&& work) {
  constexpr int runs = 20;
  double best = 0;
  for (int i = 0; i < runs; ++i) {
    const double start = rig::processor_seconds();
    work();
    const double taken = rig::processor_seconds() - start;
    best = i == 0 ? taken : std::min(best, taken);
  }
  return best;
}

void read_records(rig& on, int count) {
  on.flash().bytes();
  flashfs_sector record;
  for (int i = 0; i < count; ++i) {
    zantrolume_cpld_read(nullptr, sizeof(flashfs_blkheader), sizeof(record), &record);
  }
}

void write_row(std::ostream& out, const case_result& result, const case_result* before) {
  const sim::access_counts& counts = result.best.counts;
  const double ratio = result.best.seconds / result.best.floor_seconds;
  out << "| " << result.what.operation << " | " << result.what.size << " | " << counts.words_read
      << " | " << counts.programs << " | " << counts.erases << " | " << counts.status_reads << " | "
      << number("%.3f", result.best.seconds * 1e3) << " | "
      << number("%.3f", result.best.floor_seconds * 1e3) << " | " << number("%.2f", ratio) << " | "
      << number("%.1f", result.what.target) << " | ";
  if (before == nullptr) {
    out << "| |\n";
    return;
  }
  const double involved = result.what.involved;
  const double involved_before = before->what.involved;
  out << number("%.2f",
                exponent(result.best.seconds, before->best.seconds, involved, involved_before))
      << " | "
      << number("%.2f", exponent(accesses(counts), accesses(before->best.counts), involved,
                                 involved_before))
      << " |\n";
}

}  // namespace

void write_results(std::ostream& out, const std::vector<case_result>& results) {
  out << "| operation | size | words read | words programmed | erases | status reads | ms | "
         "floor ms | over floor | target | growth of time | growth of accesses |\n"
         "|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  const case_result* before = nullptr;
  for (const case_result& result : results) {
    if (before != nullptr && before->what.operation != result.what.operation) {
      before = nullptr;
    }
    write_row(out, result, before);
    before = &result;
  }
}

void write_checksums(std::ostream& out, rig& on) {
  constexpr int records = 2000;
  const double read = seconds_of([&] { read_records(on, records); }) / records;
  out << "| way | tables, bytes | ns for a sector | share of a sector read |\n"
         "|---|--:|--:|--:|\n";
  const std::vector<uint8_t> record(sizeof(flashfs_sector), 0x5A);
  for (const checksum_way& way : checksum_ways()) {
    const double sum = seconds_of([&] {
                         for (int i = 0; i < records; ++i) {
                           const uint32_t crc =
                               way.compute(0, static_cast<uint32_t>(record.size()), record.data());
                           asm volatile("" : : "r"(crc));
                         }
                       }) /
                       records;
    out << "| " << way.name << " | " << way.table_bytes << " | " << number("%.0f", sum * 1e9)
        << " | " << number("%.0f", 100 * sum / (sum + read)) << " % |\n";
  }
}

}  // namespace bench

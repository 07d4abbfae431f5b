// Work for counting instructions on the target: a sector read through the driver over a window in
// memory, or one way to compute a sector's checksum, so many times. The counts with 1 and with 0
// times differ by the work alone.
//
//   bench_target read|<index of a way> <times>
//   bench_target ways                            lists the ways
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/checksums.h"
#include "flashfs/format.h"
#include "zantrolume/zantrolume_cpld.h"

namespace {

alignas(4096) uint8_t window[cpld_window_size];
uint8_t record[sizeof(flashfs_sector)];
volatile uint32_t result;

// The record in `record`, with its checksum behind it.
constexpr uint32_t first_sector = 32;

int list_ways() {
  for (const bench::checksum_way& way : bench::checksum_ways()) {
    printf("%s;%u\n", way.name, static_cast<unsigned>(way.table_bytes));
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc == 2 && strcmp(argv[1], "ways") == 0) {
    return list_ways();
  }
  if (argc != 3) {
    return 2;
  }
  vexmor_mapped_ptr = window;
  cpld_flash_access_selection = cpld_data_window;
  const auto way = strtoul(argv[1], nullptr, 10);
  const auto& ways = bench::checksum_ways();
  const bool read = strcmp(argv[1], "read") == 0;
  if (!read && way >= ways.size()) {
    return 2;
  }
  for (long left = strtol(argv[2], nullptr, 10); left > 0; --left) {
    if (read) {
      zantrolume_cpld_read(nullptr, first_sector, sizeof(record), record);
    } else {
      result = ways[way].compute(0, sizeof(record), record);
    }
  }
  return 0;
}

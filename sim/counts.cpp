// Sums of the counters, and how counters and traces are printed.
#include "sim/counts.h"

#include <ostream>

namespace sim {

access_counts& access_counts::operator+=(const access_counts& other) {
  run_state_reads += other.run_state_reads;
  status_reads += other.status_reads;
  page_writes += other.page_writes;
  words_read += other.words_read;
  command_cycles += other.command_cycles;
  programs += other.programs;
  erases += other.erases;
  return *this;
}

deviation_counts& deviation_counts::operator+=(const deviation_counts& other) {
  wrong_width += other.wrong_width;
  unaligned += other.unaligned;
  unknown_register += other.unknown_register;
  wrong_direction += other.wrong_direction;
  bad_page += other.bad_page;
  mid_sequence_read += other.mid_sequence_read;
  out_of_order += other.out_of_order;
  while_busy += other.while_busy;
  bit_set += other.bit_set;
  return *this;
}

uint64_t deviation_counts::total() const {
  return wrong_width + unaligned + unknown_register + wrong_direction + bad_page +
         mid_sequence_read + out_of_order + while_busy + bit_set;
}

std::ostream& operator<<(std::ostream& out, const deviation_counts& counts) {
  return out << "wrong_width " << counts.wrong_width << "\nunaligned " << counts.unaligned
             << "\nunknown_register " << counts.unknown_register << "\nwrong_direction "
             << counts.wrong_direction << "\nbad_page " << counts.bad_page << "\nmid_sequence_read "
             << counts.mid_sequence_read << "\nout_of_order " << counts.out_of_order
             << "\nwhile_busy " << counts.while_busy << "\nbit_set " << counts.bit_set << "\n";
}

std::ostream& operator<<(std::ostream& out, const traced_access& access) {
  return out << (access.is_write ? "write" : "read") << int{access.width} << "(0x" << std::hex
             << access.offset << ", 0x" << access.value << std::dec << ")";
}

}  // namespace sim

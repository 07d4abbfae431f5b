// The device of a complex: where its node is, how the driver is pointed at it, and what every
// program that opens it tells and sees to first. For the program itself and for the tool that works
// on whole flashes.
#pragma once

#include <sys/types.h>

#include <cstdint>

constexpr int32_t zantrolume_first_ppc = 3;
constexpr uint32_t zantrolume_ppc_count = 6;

// One CPLD with the complexes that it guards.
struct cpld_node {
  const char* path;
  uint32_t window_offset;  // bytes into the device
  int32_t first_ppc;
};

// What is said when a complex cannot be reached, for printf: with the number that was given, errno,
// errno, the number of the complex, and the node's path.
constexpr char zantrolume_invalid_ppc_text[] = "Invalid ppc number : %d";
constexpr char zantrolume_open_failed_text[] = "Failed to open file VEXMOR device driver, errno %d";
constexpr char zantrolume_map_failed_text[] = "mmap failed, errno %d.";
constexpr char zantrolume_needs_reset_text[] = "PPC Flashfs access requires PPC %d to be in reset.";
constexpr char zantrolume_waiting_text[] = "another run has %s, waiting for its end";

// Whether there is a complex of this number, 3 to 8.
bool zantrolume_is_ppc(int32_t number);
// The node of a complex.
const cpld_node& zantrolume_node_of(int32_t ppc_number);
// Points the driver at a complex; its window is still to be mapped. Returns the number of its
// run-state bit.
uint32_t zantrolume_select_ppc(int32_t ppc_number);

// Puts /dev/null where standard output or standard error was closed, so that nothing that is opened
// later gets their numbers and is printed into. False when it cannot be had.
[[nodiscard]] bool zantrolume_occupy_output_descriptors();

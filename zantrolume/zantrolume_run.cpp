// One run of the program: selects the complex, maps its window, makes sure that it is held in
// reset, carries out one command and unmaps. What the command line means is decided elsewhere.
#include "zantrolume/zantrolume_run.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "window/window.h"
#include "zantrolume/zantrolume_command_line.h"
#include "zantrolume/zantrolume_commands.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_device.h"
#include "zantrolume/zantrolume_display.h"
#include "zantrolume/zantrolume_signals.h"

namespace {

void print_verbose(const char* text) {
  if (verbose_mode != 0) {
    printf("%s", text);
  }
}

// Waits until no other run has the device. Signals end the waiting: they are not held yet.
void take_device(int fd, const char* path) {
  if (window_lock(fd, false) == 0) {
    return;
  }
  fflush(stdout);
  char told[80];
  snprintf(told, sizeof(told), zantrolume_waiting_text, path);
  fprintf(stderr, "zantrolume: %s\n", told);
  // It waits until it has it.
  (void)window_lock(fd, true);
}

// Opens and maps the window into vexmor_mapped_ptr. False after a message.
bool map_window(const cpld_node& node) {
  const int fd = zantrolume_open_vexmor_device(node.path);
  if (fd < 0) {
    const int error = errno;
    printf("\nZANTROLUME : ");
    printf(zantrolume_open_failed_text, error);
    return false;
  }
  if (fd != 0) {
    print_verbose("\nZANTROLUME : vexmor device driver opened");
  }
  take_device(fd, node.path);
  vexmor_mapped_ptr = window_map(fd, cpld_window_size, node.window_offset);
  const auto base = reinterpret_cast<uintptr_t>(vexmor_mapped_ptr);
  if (base == 0 || base == UINTPTR_MAX) {
    const int error = errno;
    printf("\nZANTROLUME: ");
    printf(zantrolume_map_failed_text, error);
    printf("\n");
    return false;
  }
  print_verbose("\nZANTROLUME : vexmor device driver memory mapped");
  return true;
}

void run_file_command(int (*command)(int argc, char* argv[]), const char* name,
                      const char* argument) {
  char* argv[] = {const_cast<char*>(name), const_cast<char*>(argument), nullptr};
  command(2, argv);
}

void run_command(const zantrolume_request& request) {
  const auto position = static_cast<uint32_t>(request.position);
  switch (request.command) {
    case command_dir:
      run_file_command(dir_cmd, "dir_cmd", "bootflash:");
      break;
    case command_erase:
      zantrolume_next_step("the erase of the sector");
      zantrolume_cpld_erase(nullptr, position << flash_sector_shift);
      break;
    case command_fsck:
      run_file_command(fsck_cmd, "fsck_cmd", "-f");
      break;
    case command_more:
      run_file_command(cat_cmd, "cat_cmd", request.file_name);
      break;
    case command_rm:
      run_file_command(delete_cmd, "delete_cmd", request.file_name);
      break;
    case command_sread:
      zantrolume_display_flash(position << flash_sector_shift, request.length);
      break;
    case command_aread:
      zantrolume_display_flash(position, request.length);
      break;
    case command_sizes:
      zantrolume_display_sizes();
      break;
    default:
      puts("Sorry, not supported");
  }
}

}  // namespace

int zantrolume_run(int argc, char* argv[]) {
  if (!zantrolume_occupy_output_descriptors()) {
    return EXIT_FAILURE;
  }
  zantrolume_request request;
  const int status = zantrolume_parse(argc, argv, &request);
  if (status != 0) {
    return status;
  }
  const uint32_t run_state_bit = zantrolume_select_ppc(request.ppc_number);
  if (!map_window(zantrolume_node_of(request.ppc_number))) {
    return 0;
  }
  zantrolume_hold_signals();
  if (zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, run_state_bit) != 0) {
    run_command(request);
  } else {
    printf("\nZANTROLUME : ");
    printf(zantrolume_needs_reset_text, request.ppc_number);
    printf("\n");
  }
  // The run is over, and its end unmaps the window anyway.
  (void)window_unmap(vexmor_mapped_ptr, cpld_window_size);
  print_verbose("\nZANTROLUME : unmapped vexmor device driver");
  zantrolume_release_signals();
  return 0;
}

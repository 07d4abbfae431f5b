// One run of the program: selects the complex, maps its window, makes sure that it is held in
// reset, carries out one command and unmaps. What the command line means is decided elsewhere.
#include "zantrolume/zantrolume_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include "window/window.h"
#include "zantrolume/zantrolume_command_line.h"
#include "zantrolume/zantrolume_commands.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_display.h"
#include "zantrolume/zantrolume_signals.h"

namespace {

// One CPLD with the complexes that it guards.
struct cpld_node {
  const char* path;
  off_t window_offset;
  int32_t first_ppc;
};
constexpr cpld_node first_node = {"/dev/vexmor1", 0x10150000, 3};
constexpr cpld_node second_node = {"/dev/vexmor2", 0x10170000, 6};

const cpld_node& node_of(int32_t ppc_number) {
  return ppc_number < second_node.first_ppc ? first_node : second_node;
}

void print_verbose(const char* text) {
  if (verbose_mode != 0) {
    printf("%s", text);
  }
}

// Puts /dev/null where standard output or standard error was closed, so that nothing that is opened
// later gets their numbers and is printed into. False when it cannot be had.
bool occupy_output_descriptors() {
  for (const int wanted : {STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(wanted, F_GETFD) >= 0) {
      continue;
    }
    // Gives descriptor 0 when that is closed too, which stays as it was.
    const int opened = open("/dev/null", O_RDWR);
    if (opened < 0) {
      return false;
    }
    if (opened != wanted) {
      const bool placed = dup2(opened, wanted) == wanted;
      close(opened);
      if (!placed) {
        return false;
      }
    }
  }
  return true;
}

// Waits until no other run has the device. Signals end the waiting: they are not held yet.
void take_device(int fd, const char* path) {
  if (window_lock(fd, false) == 0) {
    return;
  }
  fflush(stdout);
  fprintf(stderr, "zantrolume: another run has %s, waiting for its end\n", path);
  // It waits until it has it.
  (void)window_lock(fd, true);
}

// Opens and maps the window into vexmor_mapped_ptr. False after a message.
bool map_window(const cpld_node& node) {
  const int fd = zantrolume_open_vexmor_device(node.path);
  if (fd < 0) {
    printf("\nZANTROLUME : Failed to open file VEXMOR device driver, errno %d", errno);
    return false;
  }
  if (fd != 0) {
    print_verbose("\nZANTROLUME : vexmor device driver opened");
  }
  take_device(fd, node.path);
  vexmor_mapped_ptr = window_map(fd, cpld_window_size, node.window_offset);
  const auto base = reinterpret_cast<uintptr_t>(vexmor_mapped_ptr);
  if (base == 0 || base == UINTPTR_MAX) {
    printf("\nZANTROLUME: mmap failed, errno %d.\n", errno);
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
  if (!occupy_output_descriptors()) {
    return EXIT_FAILURE;
  }
  zantrolume_request request;
  const int status = zantrolume_parse(argc, argv, &request);
  if (status != 0) {
    return status;
  }
  const cpld_node& node = node_of(request.ppc_number);
  const auto index = static_cast<uint32_t>(request.ppc_number - node.first_ppc);
  cpld_flash_access_selection = cpld_data_window + (index << flash_page_shift);
  flash_status_bit = uint32_t{2} << index;
  if (!map_window(node)) {
    return 0;
  }
  zantrolume_hold_signals();
  if (zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, index + 1) != 0) {
    run_command(request);
  } else {
    printf("\nZANTROLUME : PPC Flashfs access requires PPC %d to be in reset.\n",
           request.ppc_number);
  }
  // The run is over, and its end unmaps the window anyway.
  (void)window_unmap(vexmor_mapped_ptr, cpld_window_size);
  print_verbose("\nZANTROLUME : unmapped vexmor device driver");
  zantrolume_release_signals();
  return 0;
}

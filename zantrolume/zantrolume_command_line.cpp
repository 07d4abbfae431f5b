// Reads the command line. Nothing here touches the device.
#include "zantrolume/zantrolume_command_line.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_device.h"
#include "zantrolume/zantrolume_number.h"

namespace {

constexpr const char* command_words[] = {"copy", "dir",   "erase", "fsck", "more",
                                         "rm",   "sread", "aread", "sizes"};

constexpr char missing_parameters[] = "\nMissing required parameters.";

char no_file_name[] = "";

// Prints why the command line is refused, and the usage text. Returns the exit status.
int refuse(const char* reason) {
  printf("%s", reason);
  zantrolume_display_usage();
  return EXIT_FAILURE;
}

// Returns 0, or the exit status after a message. What getopt does by itself stays as it is: its
// line on standard error about an unknown option, and options behind operands unless
// POSIXLY_CORRECT is in the environment.
int parse_options(int argc, char* argv[]) {
  for (;;) {
    switch (getopt(argc, argv, "hv")) {
      case -1:
        return 0;
      case 'h':
        return refuse("\nDisplay help message.");
      case 'v':
        verbose_mode = 1;
        break;
      default:
        return refuse("\nzantrolume: Unknown parameter.");
    }
  }
}

int number_operand_count(int command) {
  switch (command) {
    case command_erase:
      return 1;
    case command_sread:
    case command_aread:
      return 2;
    default:
      return 0;
  }
}

// Takes the numbers of the raw commands. Returns 0, or the exit status after a message.
int parse_operands(int argc, char* argv[], int index, zantrolume_request* request) {
  const int count = number_operand_count(request->command);
  if (argc - index < count) {
    return refuse(missing_parameters);
  }
  if (count > 0) {
    request->position = parse_number(argv[index], request->command == command_aread ? 16 : 10);
  }
  if (count > 1) {
    request->length = parse_number(argv[index + 1], 10);
  }
  return 0;
}

}  // namespace

int get_cmd_enum(const char* word) {
  int code = 0;
  for (const char* command_word : command_words) {
    if (strcmp(word, command_word) == 0) {
      return code;
    }
    ++code;
  }
  return command_unknown;
}

int cmd_requires_filename(int code) {
  return code == command_copy || code == command_more || code == command_rm ? 1 : 0;
}

void zantrolume_display_usage() {
  puts(
      "\nUsage - zantrolume [-vh] <ppc#> <cmd> [filename]\n"
      "   -h : Display this help file\n"
      "   -v : verbose mode\n"
      "<ppc#> - which PPC (3-8)\n"
      "<cmd>  - what operation to perform\n"
      "   aread - read flashfs offset address and length\n"
      "   dir - directory listing\n"
      "   erase- erase file system sector\n"
      "   fsck - file system check\n"
      "   more - more a file\n"
      "   rm - delete a file\n"
      "   sread - read flashfs sector and length");
}

int zantrolume_parse(int argc, char* argv[], zantrolume_request* request) {
  verbose_mode = 0;
  *request = {};
  request->file_name = no_file_name;
  if (argc < 2) {
    return refuse(missing_parameters);
  }
  const int status = parse_options(argc, argv);
  if (status != 0) {
    return status;
  }
  int index = optind;
  if (index >= argc) {
    return refuse(missing_parameters);
  }
  request->ppc_number = parse_number(argv[index++], 10);
  if (!zantrolume_is_ppc(request->ppc_number)) {
    printf("\n");
    printf(zantrolume_invalid_ppc_text, request->ppc_number);
    zantrolume_display_usage();
    return EXIT_FAILURE;
  }
  if (index >= argc) {
    return refuse(missing_parameters);
  }
  request->command = get_cmd_enum(argv[index++]);
  if (index < argc) {
    request->file_name = argv[index];
  }
  // Never so, since the index cannot pass the end: a command without its file name gets the empty
  // one.
  if (cmd_requires_filename(request->command) != 0 && argc < index) {
    zantrolume_display_usage();
    return EXIT_FAILURE;
  }
  return parse_operands(argc, argv, index, request);
}

// What the command line asks for: command words and codes, the usage text, and the parse that makes
// a request of the words.
#pragma once

#include <cstdint>

// Command codes, in the order in which the words are tried.
enum zantrolume_command : int {
  command_copy = 0,
  command_dir = 1,
  command_erase = 2,
  command_fsck = 3,
  command_more = 4,
  command_rm = 5,
  command_sread = 6,
  command_aread = 7,
  command_sizes = 8,
  command_unknown = 9,
};

// One run as the command line asks for it.
struct zantrolume_request {
  int32_t ppc_number;  // 3 to 8
  int command;         // zantrolume_command
  char* file_name;     // empty when there is none
  // Of the raw commands: a sector number or byte address, and a length in bytes.
  int32_t position;
  int32_t length;
};

// The code of a command word; 9 for any unknown one.
int get_cmd_enum(const char* word);
// 1 for the codes whose commands take a file name.
int cmd_requires_filename(int code);
// Prints the usage text.
void zantrolume_display_usage();
// Reads the command line and sets verbose_mode. Returns 0, or the exit status 1 after a message.
int zantrolume_parse(int argc, char* argv[], zantrolume_request* request);

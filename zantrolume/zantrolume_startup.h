// Start-up of the file system, the maintenance commands beside it, and what the other commands need
// of both. In a command argv[0] is the command word; it returns 0, 1 after a message, or -1 for bad
// usage.
#pragma once

// Registers the file system unless that has been done. Returns 1; ends the program with status 1
// when it cannot be.
int register_flashfs();
// Registers and checks the file system once per run. Returns 1, or 0 after a message.
[[nodiscard]] int start_flashfs();
// Starts the file system for a command. False, after a message, when it cannot be.
[[nodiscard]] bool start_or_abort();

// Prints the text of a system error on standard error, behind "prefix: " unless that is empty.
// Flushes standard output first, so that a terminal shows both in order.
void report_error(const char* prefix, int error);

int format_cmd(int argc, char* argv[]);
int fsck_cmd(int argc, char* argv[]);
int flashfs_init_cmd(int argc);
int set_bs_cmd();

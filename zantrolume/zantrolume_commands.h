// The commands. argv[0] is the command word. They return 0, 1 after a message, or -1 for bad usage.
#pragma once

// Registers the file system unless that has been done. Returns 1.
int register_flashfs();
// Registers and checks the file system once per run. Returns 1, or 0 after a message.
int start_flashfs();

int format_cmd(int argc, char* argv[]);
int fsck_cmd(int argc, char* argv[]);
int flashfs_init_cmd(int argc);
int set_bs_cmd();

int copy_cmd(int argc, char* argv[]);
int rename_cmd(int argc, char* argv[]);
int dir_cmd(int argc, char* argv[]);
int cat_cmd(int argc, char* argv[]);
int more_cmd(int argc, char* argv[]);
int delete_cmd(int argc, char* argv[]);
int verify_cmd(int argc, char* argv[]);
int mkdir_cmd(int argc, char* argv[]);
int rmdir_cmd(int argc, char* argv[]);

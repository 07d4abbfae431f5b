// The flash file system: its mounted state and the steps from which its operations are made. The
// public part comes first; the rest is shared by the sources of this folder (and their tests).
//
// Internal steps return 0 for success and 1 for failure unless they say otherwise.
#pragma once

#include <cstdint>

#include "flashfs/flash_driver.h"
#include "flashfs/format.h"
#include "ifs/ifs.h"

constexpr int flashfs_max_devices = 2;

// The address of one sector.
struct flashfs_sctr_ptr {
  int16_t block_num;
  uint16_t sctr_num;

  bool operator==(const flashfs_sctr_ptr&) const = default;
};

constexpr int16_t no_block = -1;  // the block half of an address that could not be allocated

// Slot indexes in lists other than 0..31.
constexpr uint8_t slot_of_reserved_sector = 254;  // claimed for a file, not yet written
constexpr uint8_t slot_of_sector = 255;           // a whole sector

// One erase block that the file system uses.
struct flashfs_block {
  uint32_t offset;  // bytes from the start of the device
  uint16_t num_sectors;
  uint16_t invalid_sectors;
  uint16_t invalid_slots;  // deleted slots in live directory sectors
  uint16_t spare_bytes;    // behind the last sector, unused
  uint8_t device;
};

// Entry of a file's list, in ascending seq_no: for a file its data sectors, for a directory the
// slots of its entries.
struct flashfs_sctr_list_ordered {
  flashfs_sctr_list_ordered* next;
  uint16_t seq_no;
  uint8_t slot_no;
  flashfs_sctr_ptr sctr_ptr;
};

// Entry of the lists of available sectors and slots.
struct flashfs_sctr_list_unordered {
  flashfs_sctr_list_unordered* next;
  uint8_t slot_no;
  flashfs_sctr_ptr sctr_ptr;
};

// What the pool of list entries hands out.
union flashfs_sctr_list_either {
  flashfs_sctr_list_ordered ordered;
  flashfs_sctr_list_unordered unordered;
};
static_assert(sizeof(void*) != 4 || sizeof(flashfs_sctr_list_ordered) == 12);
static_assert(sizeof(void*) != 4 || sizeof(flashfs_sctr_list_unordered) == 12);
static_assert(sizeof(void*) != 4 || sizeof(flashfs_sctr_list_either) == 12);

// File-map entry: one file or directory. The map is in ascending file-id order.
struct flashfs_sctr_map {
  flashfs_sctr_map* next;
  uint32_t readers;
  uint32_t writer;  // 1 while a writer has the file open
  uint16_t fileid;
  uint16_t parent_fileid;  // 0 until known
  ppc_mode_t mode;
  flashfs_sctr_list_ordered* sctr_list;
};

// File ids are found through a table of two levels, whose pages are made as they are needed.
constexpr uint32_t filemap_page_bits = 8;
constexpr uint32_t filemap_page_size = 1U << filemap_page_bits;
constexpr uint32_t filemap_pages = 65536U >> filemap_page_bits;
struct filemap_page {
  flashfs_sctr_map* entries[filemap_page_size];
};

// Entry of the check's list of orphans.
struct flashfs_file_list {
  flashfs_file_list* next;
  uint16_t fileid;
};

// A mounted file system.
struct flashfs {
  int32_t (*magic)(const void* const handles[], const flash_driver_info* const records[],
                   int32_t num_devices, const char* prefix);  // flashfs_initialize itself
  flash_driver_info fdi[flashfs_max_devices];
  const void* handle[flashfs_max_devices];
  flashfs_block* flashfs_blocks;
  int32_t num_devices;
  int16_t num_blocks;
  flashfs_sctr_list_unordered* available_sectors;
  flashfs_sctr_list_unordered* available_slots;
  flashfs_sctr_map* file_map;
  int16_t available_block;      // the spare: kept erased for garbage collection
  uint16_t largest_block_size;  // sectors
  watched_semaphore* lock;
  uint32_t random;  // tie-break bit of garbage collection
  ppc_fsid_t fsid;
  boolean ready;               // the maps are built and trustworthy
  chunk_pool* sctr_ptr_chunk;  // pool of list entries; null until the maps are built
  chunk_pool* sctr_buf_chunk;
  uint32_t sctr_bufs_allocated;
  flashfs_sctr_map raw_file_map;  // stands for the whole device in an open raw handle
  filemap_page* file_index[filemap_pages];
  uint32_t num_files;              // entries of file_map
  uint32_t num_available_sectors;  // entries of available_sectors
  uint32_t num_available_slots;    // entries of available_slots
};

// A remembered place in a file's list, so that the next operation need not walk from the head. A
// null entry remembers nothing.
struct list_place {
  uint32_t index;
  flashfs_sctr_list_ordered* entry;
};

// One descriptor's state.
struct flashfs_open_file {
  uint32_t filepos;  // bytes
  flashfs_sctr_map* file;
  uint32_t oflags;
  // In the file's list, or, for a directory, the entry at the end of the last listing. It stays
  // valid while the file is open: the claim keeps everybody else from changing the list.
  list_place place;
};

extern const ifs_operations flashfs_operations;

// --- mounting and state (mount.cpp) ---

// Makes one file system of the devices' usable blocks and registers it, not ready, under the
// prefix. Returns its fsid, or -1 after a message.
int32_t flashfs_initialize(const void* const handles[], const flash_driver_info* const records[],
                           int32_t num_devices, const char* prefix);
// Gives back all memory of a registered file system, closing what is open on it, and takes it out
// of the switch. The program never does: its one file system lives as long as the process.
void flashfs_release(flashfs* fs);
// The state of the file system that a path's prefix names; null with ENODEV when there is none.
flashfs* flashfs_get_fsp(const char* prefix);
// A row of the table of flash chips, found by the file system's fsid; 0 or null when there is none,
// with EINVAL when the file system is not ready.
int32_t flashfs_get_chip_code(const char* prefix);
const char* flashfs_get_chip_desc(const char* prefix);

// --- diagnostic dumps (dump.cpp) ---

// Prints a file's list and a verdict on its sequence numbers and checksums. The caller holds the
// lock.
void flashfs_dump_file_list(flashfs* fs, uint16_t fileid);
void flashfs_dump_file_list_lock(flashfs* fs, uint16_t fileid);
// Prints the available lists and the counters of every block.
void flashfs_dump_file_map(flashfs* fs);
void flashfs_dump_sctr(flashfs* fs, int16_t block_num, uint16_t sctr_num);
void flashfs_dump_slot(flashfs* fs, int16_t block_num, uint16_t sctr_num, uint8_t slot_no);

// ===== shared inside the file system =====

// Prints one message line: "flashfs[<fsid>]: ", the text, a newline.
void flashfs_log(const flashfs* fs, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The same without the newline.
void flashfs_log_open(const flashfs* fs, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The shared strings that begin and end every message line.
extern const char* const flashfs_log_prefix;
extern const char* const flashfs_log_suffix;

// Discards the file map, the available lists and the block accounting; not ready afterwards.
void flashfs_clear_maps(flashfs* fs);
// Reports a flash failure; operations are refused until a check has passed.
void flashfs_mark_down(flashfs* fs);
// Validates the sector in the buffer; what is bad in it is invalidated, also on flash.
int flashfs_check_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector);
// Puts a block's erased sectors and slots on the available lists.
int flashfs_scan_block_available(flashfs* fs, int16_t block_num);

// --- block and sector input/output (io.cpp) ---

// The text of a code, in one buffer; from 8 on the text of the call before.
const char* flash_return_code_text(uint32_t code);
// Null with EINVAL or ENOMEM after a message.
flashfs_sector* sector_buffer_alloc(flashfs* fs);
void sector_buffer_free(flashfs* fs, flashfs_sector* buffer);
sys_timestamp flashfs_timestamp();
uint16_t block_sector_count(uint32_t block_size_bytes);
uint32_t block_spare_bytes(uint32_t block_size_bytes);
// Bytes of a block of this file system.
uint32_t block_size(const flashfs* fs, int16_t block_num);

// Header and whole-block access; a block number out of range ends the program.
int read_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header);
int write_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header);
int read_block(flashfs* fs, int16_t block_num, void* buffer);
int write_block(flashfs* fs, int16_t block_num, const void* buffer);
// Reads the header, sets its state and writes it back.
int set_block_state(flashfs* fs, int16_t block_num, block_state state);

constexpr uint32_t whole_sector = 0;
constexpr uint32_t only_fileid = sizeof(be16);
// Read or write the first `length` bytes of a sector (0: all of it). A bad address is a failure of
// the read and the end of the program for the write.
int read_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector, uint32_t length);
int write_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                 uint32_t length);

// Change only the buffer and the block's counters; the caller writes the sector back.
void invalidate_sector_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector);
void delete_slot_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                     uint32_t slot_no);
// Makes what a list entry points at obsolete on flash: its slot, or the whole sector when the index
// is no slot's. Uses the buffer to read, change and write the sector.
int obsolete_on_flash(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                      flashfs_sector* buffer);

// Erases a block, optionally with the destructive test, optionally carrying the erase count over
// into a new header.
int erase_block(flashfs* fs, int16_t block_num, bool keep_header, bool test);
// Tests an erased block; adds its own erases to the count unless that is null.
int test_block(flashfs* fs, int16_t block_num, uint32_t* erase_count);

// A borrowed sector buffer, given back when the scope ends. It remembers which sector
// `read_sector_once` has put into it.
class sector_buffer {
 public:
  explicit sector_buffer(flashfs* fs) : fs_(fs), sector_(sector_buffer_alloc(fs)) {}
  ~sector_buffer() {
    if (sector_ != nullptr) {
      sector_buffer_free(fs_, sector_);
    }
  }
  sector_buffer(const sector_buffer&) = delete;
  sector_buffer& operator=(const sector_buffer&) = delete;

  explicit operator bool() const {
    return sector_ != nullptr;
  }
  flashfs_sector* get() const {
    return sector_;
  }
  flashfs_sector* operator->() const {
    return sector_;
  }

  bool holds(flashfs_sctr_ptr pointer) const {
    return held_.block_num != no_block && held_ == pointer;
  }
  void set_held(flashfs_sctr_ptr pointer) {
    held_ = pointer;
  }
  // Must be called when the buffer or the flash behind it changes.
  void forget() {
    held_ = {no_block, 0};
  }

 private:
  flashfs* fs_;
  flashfs_sector* sector_;
  flashfs_sctr_ptr held_ = {no_block, 0};
};

// Reads a sector whole unless the buffer still holds it: slots that share a sector are one read.
// Only for walks that change neither the buffer nor the flash in between.
int read_sector_once(flashfs* fs, flashfs_sctr_ptr pointer, sector_buffer& buffer);

// --- file map and lists (filemap.cpp) ---

// The entry, or null.
flashfs_sctr_map* filemap_lookup(const flashfs* fs, uint16_t fileid);
// A new entry, or null when the id is reserved or taken or there is no memory.
flashfs_sctr_map* filemap_insert(flashfs* fs, uint16_t fileid, uint16_t parent_fileid,
                                 ppc_mode_t mode);
// Unlinks an entry from the map, gives its list back to the pool and frees it.
void filemap_remove(flashfs* fs, flashfs_sctr_map* entry);
// Enters the sector's data, or its slot `slot_no`, into its owner's list.
int filemap_add_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                       uint8_t slot_no);
// Enters a data sector, or all live slots of a directory sector.
int filemap_add_sector_all(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector);
// The same for many sectors in any order: what they add is only in its place in the lists once
// filemap_sort_lists has run. Of equal sequence numbers the one added last comes first.
int filemap_collect_sector_all(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector);
void filemap_sort_lists(flashfs* fs);
// The entry with the highest file id, or null.
flashfs_sctr_map* filemap_last(const flashfs* fs);
// Frees the whole map.
void filemap_clear(flashfs* fs);
// The entry of the parent's list that names this file, or null.
flashfs_sctr_list_ordered* filemap_find_slot(flashfs* fs, const flashfs_sctr_map* entry);
// The same through the caller's buffer, which then holds the slot's sector. `*failed` tells a read
// failure from "no such slot".
flashfs_sctr_list_ordered* filemap_find_slot_in(flashfs* fs, const flashfs_sctr_map* entry,
                                                sector_buffer& buffer, bool* failed);
flashfs_sctr_list_ordered* sctr_list_find(flashfs_sctr_list_ordered* head, int16_t block_num,
                                          uint16_t sctr_num, uint8_t slot_no);
// 0 when the sequence numbers run 0, 1, 2, ... without a gap.
int sctr_list_is_contiguous_bad(const flashfs_sctr_list_ordered* head);
// Unlinks an entry of the file's list and gives it back to the pool.
void sctr_list_remove(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry);
// Gives all of a file's list back to the pool.
void sctr_list_clear(flashfs* fs, flashfs_sctr_map* file);
uint32_t sctr_list_length(const flashfs_sctr_list_ordered* head);
int available_sector_push(flashfs* fs, flashfs_sctr_ptr pointer);
int available_slot_push(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no);
// Unlink the head of an available list, give it back to the pool and return what it held.
flashfs_sctr_ptr available_sector_take(flashfs* fs);
flashfs_sctr_ptr available_slot_take(flashfs* fs, uint8_t* slot_no);
// Unlink and give back every entry that lies in a block.
void available_drop_block(flashfs* fs, int16_t block_num);
void available_clear(flashfs* fs);
// Turns deleted slots of a directory sector into erased ones. Returns 32.
int dir_sector_clear_deleted(flashfs_sector* sector);

inline bool is_slot_index(uint8_t slot_no) {
  return slot_no < slots_per_sector;
}

// --- allocation and garbage collection (alloc.cpp, gc.cpp) ---

// One erased sector or slot; garbage is collected when needed. Without `use_reserve` the last one
// stays. On failure the address's block is no_block.
int flashfs_alloc_sector(flashfs* fs, flashfs_sctr_ptr* pointer, uint32_t use_reserve);
int flashfs_alloc_slot(flashfs* fs, flashfs_sctr_ptr* pointer, uint8_t* slot_no,
                       uint32_t use_reserve);
// Takes the head of an available list when that leaves enough. False: it cannot give.
bool available_can_give(const flashfs_sctr_list_unordered* head, uint32_t use_reserve);
// Collects garbage until a sector can be given or nothing is left to collect. 1 on a flash failure.
int flashfs_collect_garbage(flashfs* fs, uint32_t use_reserve);
// Copies a block's live contents through the spare and erases it; `verify` tests the erased block.
int flashfs_reclaim_block(flashfs* fs, int16_t victim, uint32_t verify);
// Exchanges the address and slot index of an entry and its successor.
void swap_sctr_ptr(flashfs_sctr_list_unordered* entry);
uint32_t flashfs_toggle_random(flashfs* fs);

// Reserves sectors for a file of `size` bytes. Returns the capacity now held in bytes, which may be
// less, or -1 on a write failure.
int32_t extend_sctr_list(flashfs* fs, flashfs_sctr_map* file, int32_t size);
// The same, counting from a remembered place of the file's list.
int32_t extend_sctr_list_from(flashfs* fs, flashfs_sctr_map* file, list_place place, int32_t size);
// Rewrites the entry's slot with a new date (0: now). Returns 0, or -1 with errno EIO.
int32_t flashfs_touch(flashfs* fs, flashfs_sctr_map* entry, uint32_t time);

void flashfs_lock(flashfs* fs);
void flashfs_unlock(flashfs* fs);

// Holds the file system's lock for a scope. Made before sector buffers are borrowed.
class flashfs_lock_guard {
 public:
  explicit flashfs_lock_guard(flashfs* fs) : fs_(fs) {
    flashfs_lock(fs_);
  }
  ~flashfs_lock_guard() {
    flashfs_unlock(fs_);
  }
  flashfs_lock_guard(const flashfs_lock_guard&) = delete;
  flashfs_lock_guard& operator=(const flashfs_lock_guard&) = delete;

 private:
  flashfs* fs_;
};

constexpr uint32_t acquire_read = 0;
constexpr uint32_t acquire_write = 1;
// Many readers or one writer. 0 admitted, 1 refused.
int flashfs_file_acquire(flashfs_sctr_map* file, uint32_t mode);
void flashfs_file_release(flashfs_sctr_map* file);
// The number for a new slot of a directory.
uint16_t flashfs_next_slot_seq_no(const flashfs_sctr_map* directory);
// The id for a new file; 0xFFFF when none is left.
uint16_t flashfs_next_fileid(const flashfs* fs);

// --- paths (path.cpp) ---

constexpr size_t path_size_max = 320;  // paths of this many bytes or more are refused

// The id of a name in a directory, or 0 with ENOENT, ENOTDIR or EIO.
uint16_t dir_lookup(flashfs* fs, uint16_t dir_fileid, const char* name);
// The id that a path leads to, or 0; a path of 320 bytes or more leaves errno alone.
uint16_t path_lookup(flashfs* fs, const char* path);
// The last component, or the part before it, of a path; the buffer holds the whole path.
char* path_basename(const char* path, char* work);
char* path_dirname(const char* path, char* work);
// Makes a file or directory with a fresh id and slot. Returns null with errno on failure.
flashfs_sctr_map* flashfs_create_entry(flashfs* fs, const char* path, uint32_t mode);
// Whether a new name is acceptable: 0, or ENAMETOOLONG (after a message) or EINVAL.
int new_name_error(flashfs* fs, const char* name);

// --- directory entries (entry.cpp); 0, or -1 with errno unless they say otherwise ---

int32_t flashfs_rename_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory,
                             const char* new_name);
int32_t flashfs_change_mode(flashfs* fs, flashfs_sctr_map* entry, ppc_mode_t mode);
// Frees all of a file's sectors. Non-zero on a flash failure; the rest of the list then stays.
int flashfs_truncate_entry(flashfs* fs, flashfs_sctr_map* file);
// Removes a file or directory and frees the entry.
int32_t flashfs_remove_entry(flashfs* fs, flashfs_sctr_map* entry);
int32_t flashfs_verify_entry(flashfs* fs, flashfs_sctr_map* entry);
// Makes sure that the root has a record and a slot. Non-zero on failure.
int flashfs_ensure_root_slot(flashfs* fs);
// Writes a fresh slot and inserts it into the directory's list: reads the sector, fills the slot
// from the arguments, dates it now. `pointer` and `slot_no` come from flashfs_alloc_slot. 0, or the
// errno of the failure.
int flashfs_write_new_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                           flashfs_sctr_map* directory, uint16_t entry_fileid, ppc_mode_t mode,
                           const char* name, flashfs_sector* buffer);

// --- file data (write.cpp) ---

// Cuts a file opened for writing to a length in bytes. Returns 0, or -1 with EBADF, EINVAL or EIO.
int32_t flashfs_truncate_to(flashfs* fs, flashfs_open_file* open, uint32_t length);

// --- status (status.cpp) ---

// Fills the status record of an entry. `near`, unless null, is a remembered place of the file's
// list, from which its end is looked for and which is moved there. Returns 0, or -1 with errno EIO.
int32_t flashfs_status(flashfs* fs, flashfs_sctr_map* entry, ppc_stat* status, list_place* near);
// Fills the space report. Returns 0, or -1 with errno EIO.
int32_t flashfs_space_count(flashfs* fs, ppc_statfs* status);
// Rebuilds an entry's absolute path from its id. Returns 0, or -1 with EBADF, ENAMETOOLONG or EIO.
int32_t flashfs_build_path(flashfs* fs, uint16_t fileid, char* path, size_t path_size);
// path_lookup for the operations: 0 with ENOENT when nothing is there; a failing flash marks the
// file system down with EIO.
uint16_t flashfs_resolve(flashfs* fs, const char* path);

// --- check (fsck.cpp, fsck_tree.cpp) ---

// Rebuilds the in-memory state from flash and repairs what an interruption left.
int flashfs_fsck(flashfs* fs, uint32_t quick, uint32_t reclaim_all);
int fsck_check_header(flashfs* fs, int16_t block_num, flashfs_blkheader* header, bool fix);
// Erases the block unless all of its sectors are erased.
int fsck_scrub_block(flashfs* fs, int16_t block_num);
int fsck_establish_spare(flashfs* fs);
// Gives every entry named below a directory its parent and mode.
int fsck_check_dir(flashfs* fs, uint16_t dir_fileid);
// Leaves one pointer for each sequence number of a file's list.
int fsck_resolve_duplicates(flashfs* fs, flashfs_sctr_map* file);
// Gives an entry that no directory names a name under "/lost+found".
int fsck_relink_orphan(flashfs* fs, uint16_t orphan_fileid);

// --- operations of the vector, by the source that holds them ---

// file.cpp, write.cpp
int32_t flashfs_vctr_open(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode);
int32_t flashfs_vctr_read(int32_t fd, void* buffer, uint32_t length);
int32_t flashfs_vctr_write(int32_t fd, const void* buffer, uint32_t length);
int32_t flashfs_vctr_close(int32_t fd);
int32_t flashfs_vctr_lseek(int32_t fd, int32_t offset, int32_t whence);
int32_t flashfs_vctr_open_by_fileid(ppc_fsid_t fsid, uint32_t ignored, uint32_t fileid,
                                    uint32_t oflags, ppc_mode_t mode);
// namespace.cpp
int32_t flashfs_vctr_chmod(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
int32_t flashfs_vctr_remove(ppc_fsid_t fsid, const char* path);
int32_t flashfs_vctr_rename(ppc_fsid_t fsid, const char* old_path, const char* new_path);
int32_t flashfs_vctr_mkdir(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
int32_t flashfs_vctr_rmdir(ppc_fsid_t fsid, const char* path);
// status.cpp
int32_t flashfs_vctr_getdents(int32_t fd, void* buffer, uint32_t length);
int32_t flashfs_vctr_stat(ppc_fsid_t fsid, const char* path, ppc_stat* status);
int32_t flashfs_vctr_fstat(int32_t fd, ppc_stat* status);
int32_t flashfs_vctr_istat(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status);
int32_t flashfs_vctr_statfs(ppc_fsid_t fsid, const char* path, ppc_statfs* status);
// control.cpp
int32_t flashfs_vctr_ioctl(ppc_fsid_t fsid, const char* path, uint32_t command, void* argument);
int32_t flashfs_vctr_fioctl(int32_t fd, uint32_t command, void* argument);

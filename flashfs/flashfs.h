// The flash file system's public door: its mounted state, how it is made and given back, and the
// dumps. Everything else is asked of it through the switch (ifs/ifs.h), with the control codes of
// flashfs/control_codes.h. The records on flash are those of flashfs/format.h; how a device is
// described to it, flashfs/flash_driver.h.
#pragma once

#include <cstdint>

#include "flashfs/flash_driver.h"  // IWYU pragma: export
#include "flashfs/format.h"        // IWYU pragma: export
#include "ifs/ifs.h"               // IWYU pragma: export

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
constexpr bool is_slot_index(uint8_t slot_no) {
  return slot_no < slots_per_sector;
}

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

// --- mounting and state (mount.cpp) ---

// Makes one file system of the devices' usable blocks and registers it, not ready, under the
// prefix. Returns its fsid, or -1 after a message.
[[nodiscard]] int32_t flashfs_initialize(const void* const handles[],
                                         const flash_driver_info* const records[],
                                         int32_t num_devices, const char* prefix);
// Gives back all memory of a registered file system, closing what is open on it (a raw handle that
// was written to is checked then, which may change flash), and takes it out of the switch. The
// program never does: its one file system lives as long as the process.
void flashfs_release(flashfs* fs);
// The state of the file system that a path's prefix names; null with ENODEV when there is none.
[[nodiscard]] flashfs* flashfs_get_fsp(const char* prefix);
// A row of the table of flash chips, found by the file system's fsid; 0 or null when there is none,
// with EINVAL when the file system is not ready.
int32_t flashfs_get_chip_code(const char* prefix);
const char* flashfs_get_chip_desc(const char* prefix);

// --- dates (namespace.cpp) ---

// Dates what the path names, without the prefix, and nothing else: seconds since 1970, not 0. For
// tools that give a directory the date of its source when all in it has been written. 0, or -1 with
// errno.
[[nodiscard]] int32_t flashfs_set_date(flashfs* fs, const char* path, uint32_t date);

// --- diagnostic dumps (dump.cpp) ---

// Prints a file's list and a verdict on its sequence numbers and checksums. The caller holds the
// lock.
void flashfs_dump_file_list(flashfs* fs, uint16_t fileid);
void flashfs_dump_file_list_lock(flashfs* fs, uint16_t fileid);
// Prints the available lists and the counters of every block.
void flashfs_dump_file_map(flashfs* fs);
void flashfs_dump_sctr(flashfs* fs, int16_t block_num, uint16_t sctr_num);
void flashfs_dump_slot(flashfs* fs, int16_t block_num, uint16_t sctr_num, uint8_t slot_no);

// Dumps of raw flash, the sizes of the program's types, and two printers of in-memory lists.
// Nothing here goes through the file system.
#include "zantrolume/zantrolume_display.h"

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <new>

#include "flashfs/control_codes.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_signals.h"

namespace {

constexpr int64_t dump_line_size = 32;  // bytes
constexpr uint8_t first_printable = 0x20;
constexpr uint8_t last_printable = 0x7F;

constexpr char line_step[] = "a line of the dump";

constexpr char source_name[] = "zantrolume_cpld";

// In 64 bits: a length close to the largest has no multiple of 32 above it in 32.
int64_t round_up_to_lines(int32_t length) {
  return (length + dump_line_size - 1) & ~(dump_line_size - 1);
}

// Null when there is no memory.
std::unique_ptr<uint8_t[]> allocate_bytes(uint32_t size) {
  return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
}

void display_line(uint32_t address, const uint8_t* bytes) {
  printf("0x%08x    ", address);
  for (int i = 0; i < dump_line_size; i += 4) {
    printf("%02x%02x%02x%02x ", bytes[i], bytes[i + 1], bytes[i + 2], bytes[i + 3]);
  }
  printf("    ");
  for (int i = 0; i < dump_line_size; ++i) {
    const bool printable = bytes[i] >= first_printable && bytes[i] <= last_printable;
    putchar(printable ? bytes[i] : '.');
  }
  putchar('\n');
}

struct sized_name {
  size_t size;  // bytes
  const char* name;
};

template <size_t count>
void display_size_lines(const char* heading, const sized_name (&lines)[count]) {
  puts(heading);
  for (const sized_name& line : lines) {
    zantrolume_next_step(line_step);
    printf("0x%8x = %s\n", static_cast<unsigned>(line.size), line.name);
  }
}

constexpr sized_name data_types[] = {
    {sizeof(int), "int"},
    {sizeof(uint32_t), "uint32"},
    {sizeof(uint16_t), "uint16"},
    {sizeof(int16_t), "int16"},
    {sizeof(uint8_t), "uint8"},
    {sizeof(ppc_mode_t), "ppc_mode_t"},
    {sizeof(flash_return_code), "flash_return_code"},
    {sizeof(boolean), "boolean"},
    {sizeof(watched_semaphore), "watched_semaphore"},
};

constexpr sized_name structures[] = {
    {sizeof(flashfs_blkheader), "flashfs_blkheader"},
    {sizeof(flashfs_dir_slot), "flashfs_dir_slot"},
    {sizeof(flashfs_sector), "flashfs_sector"},
    {sizeof(flashfs_block), "flashfs_block"},
    {sizeof(flash_block_info), "flash_block_info"},
    {sizeof(flash_driver_info), "flash_driver_info"},
    {sizeof(flashfs_sctr_ptr), "flashfs_sctr_ptr"},
    {sizeof(flashfs_sctr_list_ordered), "flashfs_sctr_list_ordered"},
    {sizeof(flashfs_sctr_list_unordered), "flashfs_sctr_list_unordered"},
    {sizeof(flashfs_sctr_list_either), "flashfs_sctr_list_either"},
    {sizeof(flashfs_sctr_map), "flashfs_sctr_map"},
    {sizeof(flashfs_file_list), "flashfs_file_list"},
    {sizeof(ppc_fsid_t), "ppc_fsid_t"},
    {sizeof(sys_timestamp), "sys_timestamp"},
    {sizeof(flashfs), "flashfs"},
    {sizeof(flashfs_file_info), "flashfs_file_info"},
    {sizeof(off_t), "off_t"},
};

// NOLINTBEGIN(bugprone-sizeof-expression): the size of a pointer member is what is listed.
constexpr sized_name members[] = {
    {sizeof(flashfs::magic), "*magic"},
    {sizeof(flashfs::fdi), "fdi[2]"},
    {sizeof(flashfs::handle), "*handle"},
    {sizeof(flashfs::flashfs_blocks), "*flashfs_blocks[2]"},
    {sizeof(flashfs::num_devices), "num_devices"},
    {sizeof(flashfs::num_blocks), "num_blocks"},
    {sizeof(flashfs::available_sectors), "*available_sectors"},
    {sizeof(flashfs::available_slots), "*available_slots"},
    {sizeof(flashfs::file_map), "*file_map"},
    {sizeof(flashfs::available_block), "available_block"},
    {sizeof(flashfs::largest_block_size), "largest_block_size"},
    {sizeof(flashfs::lock), "*lock"},
    {sizeof(flashfs::random), "random"},
    {sizeof(flashfs::fsid), "fsid"},
    {sizeof(flashfs::ready), "ready"},
    {sizeof(flashfs::sctr_ptr_chunk), "*sctr_ptr_chunk"},
    {sizeof(flashfs::sctr_buf_chunk), "*sctr_buf_chunk"},
    {sizeof(flashfs::sctr_bufs_allocated), "sctr_bufs_allocated"},
    {sizeof(flashfs::raw_file_map), "raw_file_map"},
};
// NOLINTEND(bugprone-sizeof-expression)

uintptr_t address_of(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

}  // namespace

void zantrolume_display_buffer(uint32_t address, const void* buffer, int32_t length) {
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  for (int64_t offset = 0; offset < length; offset += dump_line_size) {
    zantrolume_next_step(line_step);
    display_line(address + static_cast<uint32_t>(offset), bytes + offset);
  }
}

void zantrolume_display_flash(uint32_t address, int32_t length) {
  if (address == 0) {
    return;
  }
  const int64_t rounded = round_up_to_lines(length);
  if (verbose_mode != 0) {
    printf("\nZANTROLUME: enter %s:%s", source_name, __func__);
    printf("sector = %d, flash_offset = 0x%lx, length = %d\n",
           static_cast<int>(zantrolume_addr_to_sector(address)),
           static_cast<unsigned long>(address), static_cast<int32_t>(rounded));
  }
  const auto buffer = allocate_bytes(dump_line_size);
  if (buffer == nullptr) {
    puts("Unable to allocate buffer!");
    return;
  }
  for (int64_t done = 0; done < rounded; done += dump_line_size) {
    zantrolume_next_step(line_step);
    const uint32_t step = address + static_cast<uint32_t>(done);
    if (zantrolume_cpld_read(nullptr, step, dump_line_size, buffer.get()) == flash_ok) {
      zantrolume_display_buffer(step, buffer.get(), dump_line_size);
    } else {
      printf("PPC Flash read failed at 0x%x, current_offset\n", step);
    }
  }
}

void zantrolume_display_flash_sector(uint32_t sector, int32_t length) {
  if (length < 0) {
    return;
  }
  const auto rounded = static_cast<uint32_t>(round_up_to_lines(length));
  const uint32_t address = sector << flash_sector_shift;
  if (verbose_mode != 0) {
    printf("\nZANTROLUME: enter %s:%s", source_name, __func__);
    printf("sector = %d, length = %d, flash_offset = 0x%lx\n", static_cast<int32_t>(sector),
           static_cast<int32_t>(rounded), static_cast<unsigned long>(address));
  }
  const auto buffer = allocate_bytes(rounded);
  if (buffer == nullptr) {
    puts("Unable to allocate buffer!");
    return;
  }
  if (zantrolume_cpld_read(nullptr, address, rounded, buffer.get()) == flash_ok) {
    printf("Sector %d, length %d\n", static_cast<int32_t>(sector), static_cast<int32_t>(rounded));
    zantrolume_display_buffer(address, buffer.get(), length);
  } else {
    puts("PPC Flash read failed");
  }
}

void zantrolume_display_sizes() {
  display_size_lines("Assorted Flashfs data type sizes", data_types);
  display_size_lines("Assorted Flashfs structure sizes", structures);
  display_size_lines("flashfs structure element sizes", members);
}

void zantrolume_display_file_map(const flashfs_sctr_map* entry) {
  printf("file map addr = 0x%" PRIxPTR " : next = 0x%" PRIxPTR
         ", fileid = 0x%x, parent_fileid = 0x%x, mode = 0x%x, sctr_list = 0x%" PRIxPTR "\n",
         address_of(entry), address_of(entry->next), entry->fileid, entry->parent_fileid,
         entry->mode, address_of(entry->sctr_list));
}

void zantrolume_display_sctr_list_ordered(const flashfs_sctr_list_ordered* list) {
  if (list == nullptr) {
    return;
  }
  puts("sctr list ordered:");
  for (const auto* entry = list; entry != nullptr; entry = entry->next) {
    printf("entry = 0x%" PRIxPTR " : next = 0x%" PRIxPTR
           ", seq_no = 0x%x, slot_no = 0x%x, sctr_ptr = {block_num = %d, sctr_num = %d}\n",
           address_of(entry), address_of(entry->next), entry->seq_no, entry->slot_no,
           entry->sctr_ptr.block_num, entry->sctr_ptr.sctr_num);
  }
}

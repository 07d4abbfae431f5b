// The CPLD flash driver. Every flash access goes through a 4 KiB data window that the page register
// moves over the 32 MiB device; commands are the standard 16-bit NOR cycles, each followed by a
// wait for the CPLD's ready bit. Buffers hold bytes in flash order: the high byte of a register
// value is the byte at the lower address, whatever the host.
#include "zantrolume/zantrolume_cpld.h"

#include <cstdio>
#include <cstdlib>

#include "ifs/console.h"
#include "window/clock.h"

int verbose_mode;
uint32_t cpld_flash_access_selection;
uint32_t flash_status_bit;
window_base vexmor_mapped_ptr;

namespace {

constexpr uint32_t flash_page_mask = 0x1FFF;
constexpr uint32_t flash_page_offset_mask = 0xFFF;

// Command cycles: byte offsets into the data window while it shows page 0, and values.
constexpr uint32_t unlock1_offset = 0xAAA;
constexpr uint32_t unlock2_offset = 0x554;
constexpr uint16_t unlock1_value = 0xAA;
constexpr uint16_t unlock2_value = 0x55;
constexpr uint16_t program_setup_value = 0xA0;
constexpr uint16_t erase_setup_value = 0x80;
constexpr uint16_t sector_erase_value = 0x30;

constexpr int64_t ready_timeout_seconds = 1;

void select_page(uint32_t page) {
  window_store32(vexmor_mapped_ptr, cpld_flash_page, page);
}

// Reads whole words from an even address on. The selection is looked up once: the stores through
// `out` could change it for all that the compiler knows.
void read_words(uint32_t address, uint32_t words, uint8_t* out) {
  volatile void* const window = vexmor_mapped_ptr;
  const uint32_t data = cpld_flash_access_selection;
  for (; words > 0; --words) {
    uint32_t page = 0;
    uint32_t offset = 0;
    zantrolume_addr_to_page_offset(address, &page, &offset);
    window_store32(window, cpld_flash_page, page);
    const uint16_t word = window_load16(window, data + offset);
    out[0] = static_cast<uint8_t>(word >> 8);
    out[1] = static_cast<uint8_t>(word);
    out += 2;
    address += 2;
  }
}

// The byte at an address, from the word around it.
uint8_t read_byte(uint32_t address) {
  uint8_t word[2];
  read_words(address & ~1U, 1, word);
  return word[address & 1];
}

flash_return_code wait_ready() {
  return zantrolume_wait_on_flash_ready(cpld_flash_status, flash_status_bit);
}

// One store into the data window and the wait that paces it.
flash_return_code store_and_wait(uint32_t offset, uint16_t value) {
  window_store16(vexmor_mapped_ptr, cpld_flash_access_selection + offset, value);
  return wait_ready();
}

struct command_cycle {
  uint32_t offset;
  uint16_t value;
};

template <size_t count>
flash_return_code send_command(const command_cycle (&cycles)[count]) {
  select_page(0);
  for (const command_cycle& cycle : cycles) {
    const flash_return_code result = store_and_wait(cycle.offset, cycle.value);
    if (result != flash_ok) {
      return result;
    }
  }
  return flash_ok;
}

constexpr command_cycle program_command[] = {{unlock1_offset, unlock1_value},
                                             {unlock2_offset, unlock2_value},
                                             {unlock1_offset, program_setup_value}};
constexpr command_cycle erase_command[] = {{unlock1_offset, unlock1_value},
                                           {unlock2_offset, unlock2_value},
                                           {unlock1_offset, erase_setup_value},
                                           {unlock1_offset, unlock1_value},
                                           {unlock2_offset, unlock2_value}};

flash_return_code program_word(uint32_t address, uint16_t value) {
  flash_return_code result = send_command(program_command);
  if (result != flash_ok) {
    return result;
  }
  uint32_t page = 0;
  uint32_t offset = 0;
  zantrolume_addr_to_page_offset(address, &page, &offset);
  select_page(page);
  result = wait_ready();
  if (result != flash_ok) {
    return result;
  }
  return store_and_wait(offset, value);
}

}  // namespace

int zantrolume_open_vexmor_device(const char* path) {
  return window_open(path);
}

int zantrolume_valid_ppc_number() {
  return 1;
}

int zantrolume_is_ppc_in_reset(window_base window, uint32_t bit) {
  if (window == nullptr) {
    puts("ZANTROLUME: invalid vexmor device pointer");
    exit(1);
  }
  const uint32_t running = window_load32(window, cpld_run_state);
  return ((running >> bit) & 1) == 0 ? 1 : 0;
}

uint32_t zantrolume_addr_to_sector(uint32_t address) {
  return address >> flash_sector_shift;
}

void zantrolume_addr_to_page_offset(uint32_t address, uint32_t* page, uint32_t* offset) {
  *page = (address >> flash_page_shift) & flash_page_mask;
  *offset = address & flash_page_offset_mask;
}

flash_return_code zantrolume_cpld_read(const void*, uint32_t address, uint32_t length,
                                       void* buffer) {
  if (length == 0) {
    return flash_illegal_operation;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  uint32_t remaining = length;
  if ((address & 1) != 0) {
    // The window takes only aligned accesses: the word around the first byte gives it alone, and
    // the rest starts at an even address.
    *out++ = read_byte(address);
    ++address;
    --remaining;
  }
  const uint32_t whole = remaining & ~1U;
  read_words(address, whole / 2, out);
  if ((length & 1) != 0 && verbose_mode != 0) {
    puts("Need to read one more byte");
  }
  if (remaining != whole) {
    out[whole] = read_byte(address + whole);
  }
  return flash_ok;
}

flash_return_code zantrolume_cpld_write(const void*, uint32_t address, uint32_t length,
                                        const void* buffer) {
  if ((address & 1) != 0) {
    return flash_illegal_operation;
  }
  const auto* in = static_cast<const uint8_t*>(buffer);
  // The count has 16 bits, so 131072 bytes program nothing: the limit is kept.
  const auto words = static_cast<uint16_t>(length / 2);
  for (uint32_t i = 0; i < words; ++i) {
    const auto value = static_cast<uint16_t>((in[0] << 8) | in[1]);
    const flash_return_code result = program_word(address, value);
    if (result != flash_ok) {
      return result;
    }
    in += 2;
    address += 2;
  }
  return flash_ok;
}

flash_return_code zantrolume_cpld_erase(const void*, uint32_t address) {
  const flash_return_code result = send_command(erase_command);
  if (result != flash_ok) {
    return result;
  }
  select_page((address >> flash_page_shift) & flash_page_mask);
  return store_and_wait(0, sector_erase_value);
}

flash_return_code zantrolume_wait_on_flash_ready(uint32_t status_register, uint32_t mask) {
  const int64_t start = window_clock();
  if ((window_load32(vexmor_mapped_ptr, status_register) & mask) != 0) {
    return flash_ok;
  }
  for (;;) {
    if (window_clock() > start + ready_timeout_seconds) {
      console_print("Timeout waiting for flash ready: bit 0x%x\n", mask);
      return flash_poll_timeout;
    }
    if ((window_load32(vexmor_mapped_ptr, status_register) & mask) != 0) {
      return flash_ok;
    }
  }
}

flash_return_code zantrolume_cpld_uninit() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_lock() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_unlock() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_lock_master() {
  return flash_illegal_operation;
}

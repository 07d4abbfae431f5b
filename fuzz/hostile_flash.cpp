// Reading a recipe, byte by byte.
#include "fuzz/hostile_flash.h"

#include <cstring>

#include "flashfs/format.h"
#include "reliability/rig.h"

using test_support::image_builder;

namespace {

constexpr uint32_t max_blocks = 7;
constexpr uint32_t max_sectors = 8;
constexpr int max_records = 48;

uint16_t interesting_mode(input_bytes& input) {
  constexpr uint16_t modes[] = {0x8700, 0x4700, 0x4600, 0x8600, 0x0000, 0xFFFF};
  return modes[input.below(6)];
}

void write_header(input_bytes& input, image_builder& image, int block) {
  constexpr uint8_t states[] = {0xF, 0x7, 0x3, 0x1, 0x0, 0x2};
  test_support::image_header header;
  header.state = states[input.below(6)];
  header.erase_count = input.below(4) == 0 ? 0xFFFFFFFF : input.byte();
  header.good_checksum = input.below(8) != 0;
  if (input.below(8) == 0) {
    header.block_num = input.word();
  }
  image.header(block, header);
}

void write_slot(input_bytes& input, image_builder& image, int block, int sector) {
  test_support::image_slot slot;
  const auto slot_no = static_cast<int>(input.below(slots_per_sector));
  slot.seq_no = interesting_word(input);
  slot.dir_fileid = interesting_word(input);
  slot.entry_fileid = interesting_word(input);
  slot.mode = interesting_mode(input);
  slot.date = input.word() * 65537U;
  slot.name = interesting_name(input);
  slot.good_checksum = input.below(8) != 0;
  image.slot(block, sector, slot_no, slot);
}

// One record, or a few bytes of one, somewhere on the flash.
void write_record(input_bytes& input, image_builder& image) {
  const auto block = static_cast<int>(input.below(static_cast<uint32_t>(image.block_count())));
  const uint32_t kind = input.below(8);
  if (kind == 0 || image.sector_count(block) == 0) {
    write_header(input, image, block);
    return;
  }
  const auto sector =
      static_cast<int>(input.below(static_cast<uint32_t>(image.sector_count(block))));
  switch (kind) {
    case 1:
    case 2:
      image.data_sector(block, sector, interesting_word(input), interesting_word(input),
                        reliability::pattern(input.byte() * 9U, input.byte()),
                        input.below(2) == 0 ? -1 : interesting_word(input), input.below(6) != 0);
      break;
    case 3: {
      uint8_t* bytes = image.sector_at(block, sector);
      bytes[input.word() % sizeof(flashfs_sector)] &= input.byte();
      break;
    }
    case 4: {
      // What a cut program leaves: the beginning of a record, the rest erased.
      uint8_t* bytes = image.sector_at(block, sector);
      const size_t kept = input.word() % sizeof(flashfs_sector);
      memset(bytes + kept, flash_erased_byte, sizeof(flashfs_sector) - kept);
      break;
    }
    default:
      write_slot(input, image, block, sector);
  }
}

}  // namespace

uint16_t interesting_word(input_bytes& input) {
  constexpr uint16_t words[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 31, 32, 2047, 2048, 2049, 65533, 65534};
  const uint8_t choice = input.byte();
  if (choice < 200) {
    return words[choice % 16];
  }
  return choice < 220 ? 0xFFFF : input.word();
}

std::string interesting_name(input_bytes& input) {
  constexpr const char* names[] = {"a", "b", "c", "lost+found", "00002", "00005", "...", ""};
  const uint32_t choice = input.below(10);
  if (choice < 8) {
    return names[choice];
  }
  return choice == 8 ? std::string(46, 'n') : input.text(46);
}

std::vector<test_support::ram_block> hostile_geometry(input_bytes& input) {
  std::vector<test_support::ram_block> blocks(2 + input.below(max_blocks - 1));
  const bool equal = input.below(2) == 0;
  const uint32_t sectors = 1 + input.below(max_sectors);
  for (test_support::ram_block& block : blocks) {
    const uint32_t count = equal ? sectors : input.below(max_sectors + 1);
    block.size = reliability::block_of_sectors(count) + (input.below(8) == 0 ? 100 : 0);
  }
  return blocks;
}

void hostile_records(input_bytes& input, image_builder& image) {
  image.headers(static_cast<int>(input.below(static_cast<uint32_t>(image.block_count()))));
  const uint32_t records = input.below(max_records);
  for (uint32_t i = 0; i < records; i++) {
    write_record(input, image);
  }
}

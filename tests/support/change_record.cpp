// What goes into each of a record's numbers.
#include "tests/support/change_record.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "sim/flash.h"

namespace test_support {

namespace {

uint64_t address_of(flashfs_sctr_ptr pointer, uint8_t slot_no) {
  return static_cast<uint64_t>(static_cast<uint16_t>(pointer.block_num)) << 32 |
         uint64_t{pointer.sctr_num} << 16 | slot_no;
}

void add_available(sequence_hash* hash, const flashfs_sctr_list_unordered* entry) {
  uint64_t length = 0;
  for (; entry != nullptr; entry = entry->next, length++) {
    hash->add(address_of(entry->sctr_ptr, entry->slot_no));
  }
  hash->add(length);
}

void add_file(sequence_hash* hash, const flashfs_sctr_map& file) {
  hash->add(uint64_t{file.fileid} << 32 | uint64_t{file.parent_fileid} << 16 | file.mode);
  hash->add(uint64_t{file.readers} << 32 | file.writer);
  uint64_t length = 0;
  for (const auto* entry = file.sctr_list; entry != nullptr; entry = entry->next, length++) {
    hash->add(uint64_t{entry->seq_no} << 48 | address_of(entry->sctr_ptr, entry->slot_no));
  }
  hash->add(length);
}

void add_block(sequence_hash* hash, const flashfs_block& block) {
  hash->add(uint64_t{block.device} << 32 | block.offset);
  hash->add(uint64_t{block.num_sectors} << 48 | uint64_t{block.invalid_sectors} << 32 |
            uint64_t{block.invalid_slots} << 16 | block.spare_bytes);
}

}  // namespace

void sequence_hash::add_text(std::string_view text) {
  for (const char each : text) {
    add(static_cast<unsigned char>(each));
  }
  add(text.size());
}

change_record::~change_record() {
  for (ram_flash* device : devices_) {
    device->watch({});
  }
}

void change_record::watch(ram_flash& device) {
  const uint64_t number = devices_.size();
  devices_.push_back(&device);
  device.watch([this, number](const sim::mutation& next) { add_change(number, next); });
}

void change_record::add_change(uint64_t device, const sim::mutation& next) {
  changes_.add(uint64_t{next.is_erase} << 40 | device << 32 | next.offset);
  if (next.is_erase) {
    erases_++;
    return;
  }
  changes_.add(uint64_t{next.held} << 16 | next.wanted);
  words_++;
}

void change_record::add_answer(int32_t result, int error) {
  answers_.add(static_cast<uint32_t>(result));
  // By name: the numbers are not the same on every host.
  const char* name = result < 0 ? strerrorname_np(error) : nullptr;
  answers_.add_text(name == nullptr ? "" : name);
}

void change_record::add_memory(const flashfs& fs) {
  memory_.add(fs.ready);
  if (fs.ready == 0) {
    return;
  }
  memory_.add(uint64_t{static_cast<uint16_t>(fs.available_block)} << 32 | fs.random);
  memory_.add(uint64_t{fs.num_available_sectors} << 32 | fs.num_available_slots);
  memory_.add(fs.num_files);
  add_available(&memory_, fs.available_sectors);
  add_available(&memory_, fs.available_slots);
  for (const flashfs_sctr_map* file = fs.file_map; file != nullptr; file = file->next) {
    add_file(&memory_, *file);
  }
  for (int16_t b = 0; b < fs.num_blocks; ++b) {
    add_block(&memory_, fs.flashfs_blocks[b]);
  }
}

std::string change_record::text() const {
  char line[160];
  snprintf(line, sizeof(line),
           "%llu words | %llu erases | changes %016llx | answers %016llx | memory %016llx",
           static_cast<unsigned long long>(words_), static_cast<unsigned long long>(erases_),
           static_cast<unsigned long long>(changes_.value()),
           static_cast<unsigned long long>(answers_.value()),
           static_cast<unsigned long long>(memory_.value()));
  return line;
}

std::string change_record::take() {
  std::string line = text();
  words_ = 0;
  erases_ = 0;
  changes_ = {};
  answers_ = {};
  memory_ = {};
  return line;
}

}  // namespace test_support

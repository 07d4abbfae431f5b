// Recipes for the tests of the file system's upper half: flashes with small blocks, made record by
// record, and what lies on them and in memory as short texts. Sectors are written "block.sector",
// slots "block.sector/slot". The clock stands still, so that the check takes 0 seconds.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/recipe_text.h"

namespace test_support {

constexpr uint32_t recipe_time = 1900000000;
constexpr uint32_t image_time = 1800000000;  // of what the image builder dates

inline const std::string quiet_check = "flashfs[0]: flashfs fsck took 0 seconds.\n";

// Bytes of a block of so many sectors.
constexpr uint32_t block_bytes(int sectors) {
  return 32 + 2056 * static_cast<uint32_t>(sectors);
}

inline std::string text_of(flashfs_sctr_ptr pointer) {
  return std::to_string(pointer.block_num) + "." + std::to_string(pointer.sctr_num);
}

inline std::string text_of(flashfs_sctr_ptr pointer, uint8_t slot_no) {
  return text_of(pointer) + "/" + std::to_string(slot_no);
}

inline std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

inline std::string sectors_text(const flashfs* fs) {
  std::vector<std::string> words;
  for (const auto* each = fs->available_sectors; each != nullptr; each = each->next) {
    words.push_back(text_of(each->sctr_ptr));
  }
  return joined(words);
}

inline std::string slots_text(const flashfs* fs) {
  std::vector<std::string> words;
  for (const auto* each = fs->available_slots; each != nullptr; each = each->next) {
    words.push_back(text_of(each->sctr_ptr, each->slot_no));
  }
  return joined(words);
}

// A file's list as "seq_no:address".
inline std::string list_text(const flashfs* fs, uint16_t fileid) {
  const flashfs_sctr_map* file = filemap_lookup(fs, fileid);
  if (file == nullptr) {
    return "no entry";
  }
  std::vector<std::string> words;
  for (const auto* each = file->sctr_list; each != nullptr; each = each->next) {
    words.push_back(std::to_string(each->seq_no) + ":" + text_of(each->sctr_ptr, each->slot_no));
  }
  return joined(words);
}

// The file ids of the map, each with its parent, as "id<parent".
inline std::string map_text(const flashfs* fs) {
  std::vector<std::string> words;
  for (const auto* each = fs->file_map; each != nullptr; each = each->next) {
    words.push_back(std::to_string(each->fileid) + "<" + std::to_string(each->parent_fileid));
  }
  return joined(words);
}

// Notes the writes and erases that a file system makes, in their order, while it lives:
// "2=invalid1" for a header of block 2, by the state that it leaves; "2.0" for a sector or what
// changes of it, "2.0+" when that is its file id alone; "erase 2". Writes that go up through one
// sector, with no other call between them, are one.
class flash_recorder {
 public:
  explicit flash_recorder(flashfs* fs)
      : fs_(fs), read_(fs->fdi[0].read), write_(fs->fdi[0].write), erase_(fs->fdi[0].erase) {
    active_ = this;
    for (flash_driver_info& driver : fs->fdi) {
      driver.read = note_read;
      driver.write = note_write;
      driver.erase = note_erase;
    }
  }
  ~flash_recorder() {
    for (flash_driver_info& driver : fs_->fdi) {
      driver.read = read_;
      driver.write = write_;
      driver.erase = erase_;
    }
    active_ = nullptr;
  }
  flash_recorder(const flash_recorder&) = delete;
  flash_recorder& operator=(const flash_recorder&) = delete;

  std::string text() const {
    return joined(events_);
  }

 private:
  // Without its state a header is written only after an erase.
  static std::string name_of_header(uint32_t in_header, uint32_t length, const void* buffer) {
    constexpr uint32_t state = offsetof(flashfs_blkheader, state);
    const bool has_state = in_header <= state && in_header + length > state;
    const uint8_t byte =
        has_state ? static_cast<const uint8_t*>(buffer)[state - in_header] : flash_erased_byte;
    const std::string name = block_state_text(byte & 0xFU);
    return name.substr(0, name.find('['));
  }

  void note_sector(int block, uint32_t offset, uint32_t length) {
    const std::string name =
        std::to_string(block) + "." + std::to_string((offset - 32) / sizeof(flashfs_sector));
    const uint32_t in_sector = (offset - 32) % sizeof(flashfs_sector);
    const bool more_of_one = !record_.empty() && record_ == name && in_sector >= end_in_record_;
    if (more_of_one) {
      events_.back() = name;
    } else {
      events_.push_back(name + (in_sector == 0 && length == 2 ? "+" : ""));
    }
    record_ = name;
    end_in_record_ = in_sector + length;
  }

  void note(const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
    for (int b = 0; b < fs_->num_blocks; b++) {
      const flashfs_block& block = fs_->flashfs_blocks[b];
      const uint32_t size = block_size(fs_, static_cast<int16_t>(b));
      if (fs_->handle[block.device] != handle || offset < block.offset ||
          offset >= block.offset + size) {
        continue;
      }
      if (buffer != nullptr && offset >= block.offset + sizeof(flashfs_blkheader)) {
        note_sector(b, offset - block.offset, length);
        return;
      }
      record_.clear();
      events_.push_back(buffer == nullptr
                            ? "erase " + std::to_string(b)
                            : std::to_string(b) + "=" +
                                  name_of_header(offset - block.offset, length, buffer));
      return;
    }
    events_.push_back("astray");
  }
  static flash_return_code note_read(const void* handle, uint32_t offset, uint32_t length,
                                     void* buffer) {
    active_->record_.clear();
    return active_->read_(handle, offset, length, buffer);
  }
  static flash_return_code note_write(const void* handle, uint32_t offset, uint32_t length,
                                      const void* buffer) {
    active_->note(handle, offset, length, buffer);
    return active_->write_(handle, offset, length, buffer);
  }
  static flash_return_code note_erase(const void* handle, uint32_t offset) {
    active_->note(handle, offset, 0, nullptr);
    return active_->erase_(handle, offset);
  }

  static inline flash_recorder* active_ = nullptr;
  flashfs* fs_;
  flash_return_code (*read_)(const void*, uint32_t, uint32_t, void*);
  flash_return_code (*write_)(const void*, uint32_t, uint32_t, const void*);
  flash_return_code (*erase_)(const void*, uint32_t);
  std::vector<std::string> events_;
  std::string record_;  // the sector that is being written; empty: none
  uint32_t end_in_record_ = 0;
};

// The writes and erases that a call makes. What it prints is dropped.
template <typename callable>
std::string writes_of(flashfs* fs, callable&& call) {
  output_capture dropped;
  flash_recorder recorder(fs);
  call();
  return recorder.text();
}

class recipe_fixture : public flashfs_fixture {
 protected:
  // Erased blocks with so many sectors each.
  void make_blocks(const std::vector<int>& sectors) {
    make_flash(ram_blocks_of(sectors));
    image_ = std::make_unique<image_builder>(device());
  }
  void make_blocks(const std::vector<int>& sectors, const std::vector<int>& second_device) {
    make_flash(ram_blocks_of(sectors), ram_blocks_of(second_device));
    image_ = std::make_unique<image_builder>(device());
    image_1_ = std::make_unique<image_builder>(device(1), static_cast<int>(sectors.size()));
  }
  // The records of the first and of the second device.
  image_builder& image() {
    return *image_;
  }
  image_builder& image_1() {
    return *image_1_;
  }

  // Names, as "seq_no:block.sector/slot id<parent name" (recipe_text.h).
  void names(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      const placed_slot made = slot_from(text);
      image().slot(made.block, made.sector, made.slot_no, made.fields);
    }
  }
  // Full data sectors of a file, numbered from 0 in the order given.
  void data(uint16_t fileid, const std::string& sectors) {
    uint16_t seq_no = 0;
    for (const flashfs_sctr_ptr place : sectors_from(sectors)) {
      const std::string contents(2048, static_cast<char>('a' + seq_no % 26));
      image().data_sector(place.block_num, place.sctr_num, fileid, seq_no++, contents);
    }
  }
  // Programs 0 over an owner: invalidated sectors, deleted slots.
  void invalidate(const std::string& sectors) {
    for (const flashfs_sctr_ptr place : sectors_from(sectors)) {
      memset(image().sector_at(place.block_num, place.sctr_num), 0, 2);
    }
  }
  void delete_slots(const std::string& text) {
    const slot_range range = slots_from(text);
    if (fileid_at(range.block, range.sector) == 0xFFFF && range.first <= range.last) {
      image().sector_at(range.block, range.sector)[0] = 0;
      image().sector_at(range.block, range.sector)[1] = 1;
    }
    for (int slot_no = range.first; slot_no <= range.last; slot_no++) {
      memset(image().slot_at(range.block, range.sector, slot_no) + 2, 0, 2);
    }
  }

  // Blocks of four sectors, the last one the spare; the root, in which there is nothing.
  void make_root(int blocks) {
    make_blocks(std::vector<int>(static_cast<size_t>(blocks), 4));
    image().headers(blocks - 1);
    names({"0:0.0/0 1<1"});
  }
  // The small tree that many tests begin with: the root has file 2 "f" of two sectors and directory
  // 3 "d", which holds the empty file 4 "x".
  void make_small_tree(int blocks, const std::string& sectors_of_f = "0.1 1.0") {
    make_root(blocks);
    names({"1:0.0/1 2<1 f", "2:0.0/2 3<1 d/", "0:0.0/3 4<3 x"});
    data(2, sectors_of_f);
  }

  // --- what lies on the first device ---

  uint16_t fileid_at(int block, int sector) {
    const uint8_t* at = image().sector_at(block, sector);
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
  }
  // The file ids of a block's sectors; erased ones as "-".
  std::string block_text(int block) {
    std::vector<std::string> words;
    for (int sector = 0; sector < image().sector_count(block); sector++) {
      const uint16_t fileid = fileid_at(block, sector);
      words.push_back(fileid == 0xFFFF ? "-" : std::to_string(fileid));
    }
    return joined(words);
  }
  flashfs_dir_slot slot_on_flash(int block, int sector, int slot_no) {
    flashfs_dir_slot slot;
    memcpy(&slot, image().slot_at(block, sector, slot_no), sizeof(slot));
    return slot;
  }
  flashfs_dir_slot slot_on_flash(const flashfs_sctr_list_ordered& reference) {
    return slot_on_flash(reference.sctr_ptr.block_num, reference.sctr_ptr.sctr_num,
                         reference.slot_no);
  }
  flashfs_blkheader header_on_flash(int block) {
    flashfs_blkheader header;
    memcpy(&header, image().header_at(block), sizeof(header));
    return header;
  }
  uint8_t state_on_flash(int block) {
    return image().header_at(block)[12] & 0xF;
  }
  // The states of the first device's blocks, as hexadecimal digits.
  std::string states_text() {
    std::string text;
    for (int block = 0; block < image().block_count(); block++) {
      text += "0123456789abcdef"[state_on_flash(block)];
    }
    return text;
  }
  // The counters of every block as "invalid sectors/invalid slots".
  std::string counters_text() {
    std::vector<std::string> words;
    for (int16_t b = 0; b < fs()->num_blocks; b++) {
      words.push_back(std::to_string(fs()->flashfs_blocks[b].invalid_sectors) + "/" +
                      std::to_string(fs()->flashfs_blocks[b].invalid_slots));
    }
    return joined(words);
  }

  flashfs_sctr_map* entry(uint16_t fileid) {
    return filemap_lookup(fs(), fileid);
  }

  // Registers the file system and checks it. What the check printed; "result -1: " stands before
  // that of one that failed.
  std::string check_of_recipe(uint32_t flags) {
    if (initialize() < 0) {
      return "not registered";
    }
    return check(flags) == 0 ? check_output() : "result -1: " + check_output();
  }

  // Mounts what was put on the blocks; the check finds nothing.
  void mount_recipe() {
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  }

  // Whether quick and full checks now find nothing: no word but the time line, not one byte
  // changed.
  testing::AssertionResult is_repaired() {
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      std::vector<std::vector<uint8_t>> before = snapshots();
      const std::string output = check_of_recipe(flags);
      if (output != quiet_check) {
        return testing::AssertionFailure() << "check " << flags << " says\n" << output;
      }
      if (snapshots() != before) {
        return testing::AssertionFailure() << "check " << flags << " changes the flash";
      }
    }
    return testing::AssertionSuccess();
  }

  std::vector<std::vector<uint8_t>> snapshots() {
    std::vector<std::vector<uint8_t>> contents = {device().flash().snapshot()};
    if (image_1_ != nullptr) {
      contents.push_back(device(1).flash().snapshot());
    }
    return contents;
  }

 private:
  static std::vector<ram_block> ram_blocks_of(const std::vector<int>& sectors) {
    std::vector<ram_block> blocks;
    for (const int count : sectors) {
      blocks.push_back({block_bytes(count), false});
    }
    return blocks;
  }

  held_clock clock_{recipe_time};
  std::unique_ptr<image_builder> image_;
  std::unique_ptr<image_builder> image_1_;
};

}  // namespace test_support

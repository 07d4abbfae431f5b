// Comparison of the file system's maps, its space and every byte that it keeps on flash with the
// model, and of everything as it reads through the switch.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ext/alloc_traits.h>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/path.h"
#include "tests/model/fs_model.h"
#include "tests/model/model_operation.h"
#include "tests/model/model_run.h"
#include "tests/support/image_builder.h"
#include "tests/support/plain_walk.h"
#include "tests/support/ram_flash.h"

namespace model_test {

namespace {

std::string number(int64_t value) {
  return std::to_string(value);
}

size_t length_of(const flashfs_sctr_list_unordered* list) {
  size_t length = 0;
  for (; list != nullptr; list = list->next) {
    length++;
  }
  return length;
}

}  // namespace

std::string difference(const ppc_stat& actual, const ppc_stat& expected) {
  if (actual.fileid != expected.fileid || actual.mode != expected.mode) {
    return "file id " + number(actual.fileid) + " mode " + number(actual.mode) + ", must be " +
           number(expected.fileid) + ", " + number(expected.mode);
  }
  if (actual.size != expected.size) {
    return "size " + number(actual.size) + ", must be " + number(expected.size);
  }
  if (actual.access_date != expected.access_date ||
      actual.modification_date != expected.modification_date ||
      actual.change_date != expected.change_date) {
    return "date " + number(actual.change_date) + ", must be " + number(expected.change_date);
  }
  return actual.link_count != 1 || actual.owner != 0 || actual.group != 0 || actual.fsid != 0
             ? "links, owner, group or file system"
             : "";
}

const flashfs_sector* model_run::on_flash(flashfs_sctr_ptr pointer) {
  if (pointer.block_num < 0 || pointer.block_num >= fs_->num_blocks ||
      pointer.sctr_num >= fs_->flashfs_blocks[pointer.block_num].num_sectors) {
    return nullptr;
  }
  const flashfs_block& block = fs_->flashfs_blocks[pointer.block_num];
  const uint8_t* bytes = devices_[block.device]->bytes() + block.offset;
  return reinterpret_cast<const flashfs_sector*>(bytes + sizeof(flashfs_blkheader)) +
         pointer.sctr_num;
}

uint8_t model_run::state_on_flash(int16_t block_num) {
  const flashfs_block& block = fs_->flashfs_blocks[block_num];
  const uint8_t* bytes = devices_[block.device]->bytes() + block.offset;
  return bytes[offsetof(flashfs_blkheader, state)] & 0x0F;
}

bool model_run::compare_maps() {
  if (!model_->ready()) {
    return fs_->ready == 0 || fail("ready, must not be");
  }
  if (fs_->ready == 0) {
    return fail("not ready, must be");
  }
  const flashfs_sctr_map* actual = fs_->file_map;
  for (const auto& [fileid, entry] : model_->entries()) {
    if (actual == nullptr || actual->fileid != fileid) {
      return fail("file id " + number(fileid) + " is not in the map");
    }
    if (actual->parent_fileid != entry.parent || actual->mode != entry.mode) {
      return fail("file id " + number(fileid) + " has another parent or mode");
    }
    if (actual->readers != entry.readers || (actual->writer != 0) != entry.writer) {
      return fail("file id " + number(fileid) + " has " + number(actual->readers) +
                  " readers and " + number(actual->writer) + " writers");
    }
    size_t length = 0;
    auto slot = entry.slots.begin();
    for (const auto* each = actual->sctr_list; each != nullptr; each = each->next, ++length) {
      if (length == entry.list_length()) {
        return fail("the list of file id " + number(fileid) + " is too long");
      }
      const size_t seq_no = entry.is_directory() ? (slot++)->first : length;
      if (each->seq_no != seq_no || is_slot_index(each->slot_no) != entry.is_directory() ||
          each->slot_no == slot_of_reserved_sector) {
        return fail("the list of file id " + number(fileid) + " differs");
      }
    }
    if (length != entry.list_length()) {
      return fail("the list of file id " + number(fileid) + " is too short");
    }
    actual = actual->next;
  }
  if (actual != nullptr) {
    return fail("file id " + number(actual->fileid) + " must not exist");
  }
  const std::string walked = test_support::difference_to_a_walk(fs_);
  return walked.empty() || fail("a walk finds another thing: " + walked);
}

bool model_run::compare_space() {
  if (!model_->ready()) {
    return true;
  }
  uint64_t sectors = length_of(fs_->available_sectors);
  uint64_t slots = length_of(fs_->available_slots);
  if (sectors != fs_->num_available_sectors || slots != fs_->num_available_slots) {
    return fail("an available list has another length than counted");
  }
  uint64_t total = 0;
  for (int16_t b = 0; b < fs_->num_blocks; ++b) {
    if (b == fs_->available_block) {
      continue;
    }
    const flashfs_block& block = fs_->flashfs_blocks[b];
    total += block.num_sectors;
    sectors += state_on_flash(b) == block_available ? block.num_sectors : block.invalid_sectors;
    slots += block.invalid_slots;
  }
  if (total != model_->total_sectors()) {
    return fail("the spare is not one of the largest blocks");
  }
  const auto free_slots = static_cast<int64_t>(sectors * slots_per_sector + slots);
  return free_slots == model_->free_slots() ||
         fail("space for " + number(free_slots) + " slots, must be " +
              number(model_->free_slots()));
}

bool model_run::compare_flash() {
  if (!model_->ready()) {
    return true;
  }
  for (const auto& [fileid, entry] : model_->entries()) {
    if (!compare_slot(entry) || (!entry.is_directory() && !compare_sectors(entry))) {
      return false;
    }
  }
  return true;
}

bool model_run::compare_slot(const model_entry& entry) {
  const flashfs_sctr_list_ordered* reference = filemap_lookup(fs_, entry.parent)->sctr_list;
  while (reference != nullptr && reference->seq_no != entry.seq_no) {
    reference = reference->next;
  }
  const flashfs_sector* sector = reference == nullptr ? nullptr : on_flash(reference->sctr_ptr);
  if (sector == nullptr || sector->fileid != fileid_root || !is_slot_index(reference->slot_no)) {
    return fail("file id " + number(entry.fileid) + " has no slot");
  }
  const flashfs_dir_slot& slot = sector->slots[reference->slot_no];
  char name[filename_size] = {};
  entry.name.copy(name, sizeof name);
  const bool same = slot.seq_no == entry.seq_no && slot.dir_fileid == entry.parent &&
                    slot.entry_fileid == entry.fileid && slot.mode == entry.mode &&
                    std::memcmp(slot.name, name, sizeof name) == 0 &&
                    is_erased(slot.reserved, sizeof slot.reserved) &&
                    test_support::image_crc(&slot, sizeof slot) == flashfs_good_crc;
  if (!same) {
    return fail("the slot of file id " + number(entry.fileid) + " differs");
  }
  return slot.date == entry.date || fail("file id " + number(entry.fileid) + " is dated " +
                                         number(slot.date) + ", must be " + number(entry.date));
}

bool model_run::compare_sectors(const model_entry& entry) {
  const flashfs_sctr_list_ordered* reference = filemap_lookup(fs_, entry.fileid)->sctr_list;
  for (size_t i = 0; i < entry.sectors.size(); ++i, reference = reference->next) {
    const flashfs_sector* sector = reference == nullptr ? nullptr : on_flash(reference->sctr_ptr);
    if (sector == nullptr) {
      return fail("file id " + number(entry.fileid) + " misses sectors");
    }
    const model_sector& expected = *entry.sectors[i];
    if (sector->fileid != entry.fileid || sector->seq_no != i || sector->count != expected.count ||
        std::memcmp(sector->data, expected.data.data(), sector_data_size) != 0 ||
        sector_crc(sector) != flashfs_good_crc) {
      return fail("sector " + number(static_cast<int64_t>(i)) + " of file id " +
                  number(entry.fileid) + " differs: count " + number(sector->count) + ", must be " +
                  number(expected.count));
    }
  }
  return true;
}

sector_list model_run::sectors_on_flash(uint16_t fileid) {
  sector_list sectors;
  const flashfs_sctr_map* file = filemap_lookup(fs_, fileid);
  for (const auto* each = file == nullptr ? nullptr : file->sctr_list; each != nullptr;
       each = each->next) {
    auto found = std::make_shared<model_sector>();
    const flashfs_sector* sector = on_flash(each->sctr_ptr);
    if (sector != nullptr) {
      std::memcpy(found->data.data(), sector->data, sector_data_size);
      found->count = sector->count;
    }
    sectors.push_back(found);
  }
  return sectors;
}

// Every file's status, contents and verification through the switch.
bool model_run::compare_through_switch() {
  std::vector<uint16_t> fileids;
  for (const auto& [fileid, entry] : model_->entries()) {
    fileids.push_back(fileid);
  }
  for (const uint16_t fileid : fileids) {
    const std::string path = model_->path_of(fileid);
    if (path.size() >= path_size_max) {
      continue;  // nothing can name it
    }
    const model_entry& entry = *model_->find(fileid);
    const auto size = static_cast<int64_t>(entry.size());
    const std::vector<step> steps = {
        {step_kind::stat, 0, path, "", 0, 0},       {step_kind::verify, 0, path, "", 0, 0},
        {step_kind::open, 0, path, "", 1, 0},       {step_kind::fstat, 0, "", "", 0, 0},
        {step_kind::getdents, 0, "", "", 76000, 0}, {step_kind::read, 0, "", "", size + 1, 0},
        {step_kind::close, 0, "", "", 0, 0},
    };
    for (const step& each : steps) {
      if (!dispatch(each)) {
        return fail("after a fresh mount, " + to_text(each));
      }
    }
  }
  return dispatch({step_kind::statfs, 0, "", "", 0, 0});
}

}  // namespace model_test

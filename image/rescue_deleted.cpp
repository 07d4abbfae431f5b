#include "image/rescue_deleted.h"

#include <map>
#include <set>
#include <string>

#include "image/rescue_slots.h"

namespace image::rescuing {

namespace {

constexpr const char* suffix_beside = ".old";

class deleted_files {
 public:
  explicit deleted_files(const evidence& found) : found_(found), former_(index_former(found)) {
    for (const slot_record& each : found.slots) {
      if (each.kind == slot_kind::good && found.is_kept(each.at)) {
        names_.add(each.slot, &each);
        used_.insert({each.slot.entry_fileid, each.slot.dir_fileid});
      }
    }
    for (const sector_record& each : found.sectors) {
      if (each.kind == sector_kind::data && found.is_kept(each.at)) {
        used_.insert(each.owner);
        with_data_.insert(each.owner);
      } else if (each.kind == sector_kind::obsolete && each.fitting != 0) {
        old_[{each.fitting, each.number}].push_back(&each);
      }
    }
  }

  std::vector<returned_file> find() {
    for (auto each = former_.begin(); each != former_.end();) {
      const uint16_t entry = each->first;
      const slot_record* newest = nullptr;
      for (; each != former_.end() && each->first == entry; ++each) {
        if (can_return(*each->second) && (newest == nullptr || is_newer(*each->second, *newest))) {
          newest = each->second;
        }
      }
      if (newest != nullptr) {
        bring_back(*newest);
      }
    }
    const standing_names::by_entry standing = names_.all();
    for (const auto& [entry, each] : standing) {
      if (is_regular_mode(each.slot.mode) && !with_data_.contains(entry)) {
        put_beside(each.slot);
      }
    }
    return std::move(files_);
  }

 private:
  struct old_list {
    std::vector<const sector_record*> sectors;
    bool sole = true;   // each number has one sector that fits
    bool ended = true;  // the last one is short
  };

  bool can_return(const slot_record& record) const {
    const uint16_t directory = former_directory(record);
    return directory != 0 && is_regular_mode(record.slot.mode) && names_.is_directory(directory) &&
           names_.find(record.slot.entry_fileid) == nullptr &&
           !with_data_.contains(record.slot.entry_fileid) &&
           names_.find_name(directory, record.name()) == 0;
  }

  // The sectors from number 0 on, each where possible in the place behind the one before it, up to
  // the first that is short or missing.
  old_list list_of(uint16_t fileid) const {
    old_list list;
    for (uint32_t number = 0; number <= 0xFFFF; number++) {
      const auto options = old_.find({fileid, static_cast<uint16_t>(number)});
      if (options == old_.end()) {
        break;
      }
      list.sole = list.sole && options->second.size() == 1;
      const sector_record* chosen = options->second.back();
      for (const sector_record* each : options->second) {
        if (!list.sectors.empty() && is_behind(*each, *list.sectors.back())) {
          chosen = each;
        }
      }
      list.sectors.push_back(chosen);
      if (chosen->count < sector_data_size) {
        break;
      }
    }
    list.ended = !list.sectors.empty() && list.sectors.back()->count < sector_data_size;
    return list;
  }

  static bool is_behind(const sector_record& record, const sector_record& before) {
    return record.at.block == before.at.block && record.at.sector == before.at.sector + 1;
  }

  void bring_back(const slot_record& record) {
    const old_list list = list_of(record.slot.entry_fileid);
    if (list.sectors.empty()) {
      return;
    }
    flashfs_dir_slot slot = record.slot;
    slot.dir_fileid = former_directory(record);
    add(slot, slot.entry_fileid, list, "file-returned", "bring back the removed file",
        "its deleted slot and these sectors have checksums that hold for its directory and its id");
  }

  void put_beside(const flashfs_dir_slot& standing) {
    const old_list list = list_of(standing.entry_fileid);
    const std::string name = standing_names::name_of(standing) + suffix_beside;
    const uint16_t id = free_id();
    if (list.sectors.empty() || name.size() > filename_max || id == 0 ||
        names_.find_name(standing.dir_fileid, name) != 0) {
      return;
    }
    flashfs_dir_slot slot = standing;
    slot.entry_fileid = id;
    dir_slot_set_name(&slot, name.c_str());
    old_list guessed = list;
    guessed.sole = false;  // whether the file was emptied or lost its sectors cannot be told
    add(slot, id, guessed, "contents-returned", "write beside the file what it may have held",
        "the file is empty, and these invalidated sectors have checksums that hold for its id");
  }

  void add(flashfs_dir_slot slot, uint16_t id, const old_list& list, const char* code,
           const std::string& what, const std::string& evidence_text) {
    returned_file file;
    for (const sector_record* each : list.sectors) {
      flashfs_sector copy = *found_.sector(each->at);
      copy.fileid = id;
      sector_set_checksum(&copy);
      file.sectors.push_back(copy);
    }
    if (names_.is_taken(slot.dir_fileid, slot.seq_no)) {
      slot.seq_no = names_.next_number(slot.dir_fileid);
    }
    dir_slot_set_checksum(&slot);
    names_.add(slot, nullptr);
    used_.insert(id);
    with_data_.insert(id);
    file.slot = slot;
    file.decision.code = code;
    file.decision.asked = true;
    file.decision.sure = list.sole && list.ended ? certainty::supported : certainty::guessed;
    file.decision.block = list.sectors.front()->at.block;
    file.decision.sector = list.sectors.front()->at.sector;
    file.decision.fileid = id;
    file.decision.path = standing_names::name_of(slot);
    file.decision.what = what;
    file.decision.evidence = evidence_text + (list.sole ? "" : "; not the only ones that fit") +
                             (list.ended ? "" : "; where the file ended is not certain");
    file.decision.alternatives = "leave it removed";
    files_.push_back(std::move(file));
  }

  uint16_t free_id() const {
    for (uint32_t id = fileid_first; id <= fileid_last; id++) {
      if (!used_.contains(static_cast<uint16_t>(id))) {
        return static_cast<uint16_t>(id);
      }
    }
    return 0;
  }

  const evidence& found_;
  former_index former_;
  standing_names names_;
  std::set<uint16_t> used_;       // ids
  std::set<uint16_t> with_data_;  // ids
  std::map<std::pair<uint16_t, uint16_t>, std::vector<const sector_record*>> old_;
  std::vector<returned_file> files_;
};

}  // namespace

std::vector<returned_file> find_deleted(const evidence& found) {
  return deleted_files(found).find();
}

}  // namespace image::rescuing

#include "image/rescue_deleted.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "image/rescue_slots.h"

namespace image::rescuing {

namespace {

constexpr const char* suffix_beside = ".old";

// Directories in one another that are brought back.
constexpr size_t max_levels = 64;

class deleted_files {
 public:
  explicit deleted_files(const evidence& found) : found_(found), former_(index_former(found)) {
    for (const slot_record& each : found.slots) {
      if (each.kind == slot_kind::good && found.is_kept(each.at)) {
        names_.add(each.slot, &each);
        used_.insert({each.slot.entry_fileid, each.slot.dir_fileid});
      }
    }
    for (const auto& [entry, each] : former_) {
      used_.insert(entry);  // it may come back with its id
      if (each->is_directory()) {
        const slot_record*& newest = former_directories_[entry];
        newest = newest == nullptr || is_newer(*each, *newest) ? each : newest;
        directory_names_[entry].insert({former_directory(*each), each->name()});
      }
    }
    for (const sector_record& each : found.sectors) {
      if (each.kind == sector_kind::data && found.is_kept(each.at)) {
        used_.insert(each.owner);
        standing_[{each.owner, each.number}] = &each;
        with_data_.insert(each.owner);
      } else if (each.kind == sector_kind::obsolete && each.fitting != 0) {
        old_[{each.fitting, each.number}].push_back(&each);
      }
    }
  }

  std::vector<returned_file> find() {
    const standing_names::by_entry standing = names_.all();
    for (auto each = former_.begin(); each != former_.end();) {
      const uint16_t entry = each->first;
      std::vector<const slot_record*> records;
      for (; each != former_.end() && each->first == entry; ++each) {
        records.push_back(each->second);
      }
      std::stable_sort(records.begin(), records.end(),
                       [](const auto* one, const auto* other) { return is_newer(*one, *other); });
      bring_back_all(entry, records);
    }
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

  // Of one id: first the file that had it last, then those that had it before, each with the last
  // ones of the sectors that are left.
  void bring_back_all(uint16_t entry, const std::vector<const slot_record*>& records) {
    std::set<uint16_t> holders = {entry};
    for (const slot_record* each : records) {
      holders.insert(names_.find_name(standing_directory(*each), each->name()));
    }
    for (const uint16_t holder : holders) {
      leave_out_standing(entry, holder);
    }
    for (const slot_record* each : records) {
      if (is_regular_mode(each->slot.mode) && !bring_back(*each)) {
        return;
      }
    }
  }

  // Of what was invalidated, what a file that stands holds as well: it was rewritten, or is back.
  void leave_out_standing(uint16_t entry, uint16_t holder) {
    for (auto place = standing_.lower_bound({holder, 0});
         place != standing_.end() && place->first.first == holder; ++place) {
      const auto options = old_.find({entry, place->first.second});
      if (options == old_.end()) {
        continue;
      }
      std::erase_if(options->second,
                    [&](const auto* each) { return same_contents(*each, *place->second); });
      if (options->second.empty()) {
        old_.erase(options);
      }
    }
  }

  bool same_contents(const sector_record& one, const sector_record& other) const {
    return one.count == other.count && memcmp(found_.sector(one.at)->data,
                                              found_.sector(other.at)->data, sector_data_size) == 0;
  }

  void use_up(uint16_t entry, const old_list& list) {
    for (const sector_record* each : list.sectors) {
      const auto options = old_.find({entry, each->number});
      std::erase(options->second, each);
      if (options->second.empty()) {
        old_.erase(options);
      }
    }
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

  // --- directories ---

  // The directories in which something once stood, the outermost first: one that stands, or the
  // first of those that are gone. Empty when they do not lead to the root.
  std::vector<const slot_record*> way_to(uint16_t directory, uint16_t* top) const {
    std::vector<const slot_record*> way;
    while (!names_.is_directory(directory)) {
      const auto gone = former_directories_.find(directory);
      if (gone == former_directories_.end() || way.size() >= max_levels) {
        *top = 0;
        return {};
      }
      way.insert(way.begin(), gone->second);
      directory = former_directory(*gone->second);
    }
    *top = directory;
    return way;
  }

  // The directory that stands for the one in which a slot once was; 0: none does.
  uint16_t standing_directory(const slot_record& record) const {
    uint16_t at = 0;
    for (const slot_record* each : way_to(former_directory(record), &at)) {
      at = at == 0 ? at : names_.find_name(at, each->name());
    }
    return at != 0 && names_.is_directory(at) ? at : uint16_t{0};
  }

  // The same, brought back where it is gone. 0: a file has its name.
  uint16_t make_directory(const slot_record& record) {
    uint16_t at = 0;
    for (const slot_record* each : way_to(former_directory(record), &at)) {
      const uint16_t standing = names_.find_name(at, each->name());
      if (standing != 0 && !names_.is_directory(standing)) {
        return 0;
      }
      at = standing != 0 ? standing : bring_back_directory(*each, at);
      if (at == 0) {
        return 0;
      }
    }
    return at;
  }

  uint16_t bring_back_directory(const slot_record& record, uint16_t parent) {
    const uint16_t id = id_for(record.slot.entry_fileid);
    if (id == 0) {
      return 0;
    }
    returned_file file = {.sectors = {}, .slot = record.slot, .decision = {}};
    file.slot.dir_fileid = parent;
    file.slot.entry_fileid = id;
    file.decision.code = "directory-returned";
    file.decision.sure = certainty::supported;
    file.decision.block = record.at.block;
    file.decision.sector = record.at.sector;
    file.decision.slot = record.index;
    file.decision.what = "bring back the removed directory";
    file.decision.evidence =
        "a removed file comes back that was in it, and the checksum of its deleted slot holds";
    add(std::move(file));
    return id;
  }

  // --- files ---

  // The id itself while nothing has it, else another one. 0: all are taken.
  uint16_t id_for(uint16_t id) {
    return names_.find(id) == nullptr && !with_data_.contains(id) ? id : free_id();
  }

  // False when nothing is left that could come back for its id.
  bool bring_back(const slot_record& record) {
    const uint16_t entry = record.slot.entry_fileid;
    if (names_.find_name(standing_directory(record), record.name()) != 0) {
      return true;
    }
    const old_list list = list_of(entry);
    // Under an id that is used again it may be what another file has lost; so it must at least have
    // an end.
    if (list.sectors.empty() || (!list.ended && id_for(entry) != entry)) {
      return false;
    }
    flashfs_dir_slot slot = record.slot;
    slot.dir_fileid = make_directory(record);
    const uint16_t id = id_for(entry);  // of those that the directories have left
    slot.entry_fileid = id;
    if (slot.dir_fileid == 0 || id == 0) {
      return true;
    }
    use_up(entry, list);
    const bool same_directory = !has_changed(former_directory(record));
    add_file(slot, list, id == entry && same_directory, "file-returned",
             "bring back the removed file",
             "its deleted slot and these sectors have checksums that hold for its directory and "
             "its id" +
                 std::string(id == entry ? "" : ", which something else has had since") +
                 (same_directory ? "" : "; its directory had another name, or was another one"));
    return true;
  }

  // Whether a directory that stands had another name once: it was renamed, or its id is used again.
  bool has_changed(uint16_t directory) const {
    const auto former = directory_names_.find(directory);
    if (!names_.is_directory(directory) || former == directory_names_.end()) {
      return false;
    }
    const flashfs_dir_slot& now = names_.find(directory)->slot;
    const std::pair<uint16_t, std::string> name = {now.dir_fileid, standing_names::name_of(now)};
    return former->second.size() > 1 || !former->second.contains(name);
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
    // Whether the file was emptied or lost its sectors cannot be told.
    add_file(
        slot, list, false, "contents-returned", "write beside the file what it may have held",
        "the file is empty, and these invalidated sectors have checksums that hold for its id");
  }

  // `certain`: nothing but the list itself leaves a doubt.
  void add_file(const flashfs_dir_slot& slot, const old_list& list, bool certain, const char* code,
                const std::string& what, const std::string& evidence_text) {
    returned_file file;
    for (const sector_record* each : list.sectors) {
      flashfs_sector copy = *found_.sector(each->at);
      copy.fileid = slot.entry_fileid;
      sector_set_checksum(&copy);
      file.sectors.push_back(copy);
    }
    with_data_.insert(slot.entry_fileid);
    file.slot = slot;
    file.decision.code = code;
    file.decision.sure =
        certain && list.sole && list.ended ? certainty::supported : certainty::guessed;
    file.decision.block = list.sectors.front()->at.block;
    file.decision.sector = list.sectors.front()->at.sector;
    file.decision.what = what;
    file.decision.evidence = evidence_text + (list.sole ? "" : "; not the only ones that fit") +
                             (list.ended ? "" : "; where the file ended is not certain");
    add(std::move(file));
  }

  // Gives the slot a number of its own.
  void add(returned_file file) {
    flashfs_dir_slot& slot = file.slot;
    if (names_.is_taken(slot.dir_fileid, slot.seq_no)) {
      slot.seq_no = names_.next_number(slot.dir_fileid);
    }
    dir_slot_set_checksum(&slot);
    names_.add(slot, nullptr);
    used_.insert(slot.entry_fileid);
    file.decision.asked = true;
    file.decision.fileid = slot.entry_fileid;
    file.decision.path = standing_names::name_of(slot);
    file.decision.alternatives = "leave it removed";
    files_.push_back(std::move(file));
  }

  uint16_t free_id() {
    while (lowest_free_ <= fileid_last && used_.contains(static_cast<uint16_t>(lowest_free_))) {
      lowest_free_++;
    }
    return lowest_free_ <= fileid_last ? static_cast<uint16_t>(lowest_free_) : uint16_t{0};
  }

  const evidence& found_;
  former_index former_;
  std::map<uint16_t, const slot_record*> former_directories_;  // the newest slot of each id
  std::map<uint16_t, std::set<std::pair<uint16_t, std::string>>> directory_names_;  // all of them
  standing_names names_;
  std::set<uint16_t> used_;  // ids, of what may come back as well
  uint32_t lowest_free_ = fileid_first;
  std::set<uint16_t> with_data_;                                            // ids
  std::map<std::pair<uint16_t, uint16_t>, const sector_record*> standing_;  // by owner and number
  std::map<std::pair<uint16_t, uint16_t>, std::vector<const sector_record*>> old_;
  std::vector<returned_file> files_;
};

}  // namespace

std::vector<returned_file> find_deleted(const evidence& found) {
  return deleted_files(found).find();
}

}  // namespace image::rescuing

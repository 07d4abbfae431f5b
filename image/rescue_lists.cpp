#include "image/rescue_lists.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "image/rescue_bits.h"
#include "image/rescue_file_list.h"

namespace image::rescuing {

namespace {

// Zeros are written for at most so many sectors of a file of which nothing is left.
constexpr size_t max_zero_sectors = 64;
// So many copies of one write are looked for.
constexpr size_t max_copies = 1024;
// So many equal bytes at the beginning tell a copy from what comes after it.
constexpr uint32_t telling_bytes = 16;

using file_map = std::map<uint16_t, file_records>;

file_map sort_by_file(const evidence& found) {
  file_map files;
  for (const sector_record& each : found.sectors) {
    const bool kept = found.is_kept(each.at);
    if (each.fitting != 0 && (kept || each.kind == sector_kind::obsolete)) {
      files[each.fitting].old[each.number].push_back(&each);
      files[each.fitting].old_count++;
    }
    if (!kept) {
      continue;
    }
    // What reads as torn may be damaged as well: one record in four would look so.
    if ((each.kind == sector_kind::damaged || each.kind == sector_kind::obsolete_torn) &&
        is_file_sector(each.owner)) {
      files[each.owner].damaged.push_back(&each);
    }
    if (each.kind == sector_kind::data) {
      files[each.owner].standing.push_back(&each);
    } else if ((each.kind == sector_kind::claimed || each.kind == sector_kind::unfinished) &&
               is_file_sector(each.owner)) {
      files[each.owner].unfinished.push_back(&each);
    }
  }
  return files;
}

// What was invalidated, to be found by what it holds.
class old_contents {
 public:
  explicit old_contents(const evidence& found) : found_(found) {
    for (const sector_record& each : found.sectors) {
      if (each.kind == sector_kind::obsolete && each.fitting != 0) {
        old_.emplace(std::pair(each.number, each.count), each.at);
      }
    }
  }

  bool have(const sector_record& record) const {
    const auto [first, last] = old_.equal_range({record.number, record.count});
    return std::any_of(first, last, [&](const auto& old) {
      return memcmp(found_.sector(old.second)->data, found_.sector(record.at)->data,
                    sector_data_size) == 0;
    });
  }

 private:
  const evidence& found_;
  std::multimap<std::pair<uint16_t, uint16_t>, sector_place> old_;
};

// Decides about one file.
class list_judge : private file_list {
 public:
  list_judge(const evidence& found, uint16_t fileid, const file_records& records,
             const name_evidence& names, const list_options& options)
      : file_list(found, fileid, records, options), names_(names) {}

  // Its sectors have come back, and its name has not.
  list_change drop_begun_return() {
    drop_all("all of them are still there as a removed file's, whose return was cut");
    return change_;
  }

  list_change judge() {
    if (names_.directory) {
      drop_all("a directory has no data", "list-lost");
      return change_;
    }
    undo_invalidation();
    if (!records_.unfinished.empty()) {
      undo_extension_behind() || undo_first_write() || undo_extension_over_hole() ||
          undo_overwrite(records_.unfinished);
    }
    choose_of_doubles();
    finish_or_undo_truncation();
    close_gaps();
    return change_;
  }

 private:
  // --- operations that were cut ---

  // A sector that was being made obsolete when the power failed, and none has taken its place, or a
  // claim that remains above a gap: the file was being cut short or removed, or a check was
  // dropping it, which both go from the lowest number to the highest. All that has gone comes back,
  // or none.
  void undo_invalidation() {
    if (!names_.named || !options_.may_write) {
      return;
    }
    for (const auto& [number, options] : records_.old) {
      const auto torn = std::find_if(options.begin(), options.end(), [](const auto* each) {
        return each->kind != sector_kind::obsolete;
      });
      if (torn != options.end() && !list_.contains(number) && can_restore_below(number)) {
        put_back(number, certainty::supported, *torn,
                 "it was being made obsolete, and none has taken its place",
                 "leave it out: the file was being cut short");
      }
    }
    if (records_.unfinished.empty() || list_.empty() || !can_restore_below(list_.rbegin()->first)) {
      return;
    }
    for (uint16_t number = list_.rbegin()->first; number-- > 0;) {
      certainty sure = certainty::supported;
      if (!list_.contains(number)) {
        const sector_record* old = find_old(number, nullptr, &sure);
        put_back(number, sure, old, "the list has a gap there, which no write that was cut leaves",
                 "give up the file's sectors instead");
      }
    }
  }

  void put_back(uint16_t number, certainty sure, const sector_record* old,
                const char* evidence_text, const char* alternatives) {
    note("invalidation-undone", sure, old,
         "put back the sector with number " + std::to_string(number), evidence_text, alternatives);
    choose(number, old);
  }

  // Whether sectors of all numbers below stand or are left. Only one that was extended over a hole
  // when the check came is not full.
  bool can_restore_below(uint16_t number) const {
    if (number > list_.size() + records_.old_count) {
      return false;
    }
    for (uint16_t below = 0; below < number; below++) {
      certainty sure = certainty::supported;
      const sector_record* stands = chosen_of(below);
      const sector_record* there = stands != nullptr ? stands : find_old(below, nullptr, &sure);
      if (there == nullptr || (there->count != sector_data_size &&
                               (stands != nullptr || records_.unfinished.empty()))) {
        return false;
      }
    }
    return true;
  }

  // An extension claims all its sectors, then copies the last one that stood, then fills the
  // claimed ones. So good sectors right behind a claim that remains belong to it, and so do those
  // right before it that it has filled.
  bool undo_extension_behind() {
    for (const sector_record* first : records_.unfinished) {
      std::vector<const sector_record*> copies;
      const sector_record* last = first;
      for (const sector_record* next = neighbour(first, 1);
           is_own_data(next) || is_own_unfinished(next); next = neighbour(next, 1)) {
        if (is_own_data(next)) {
          copies.push_back(next);
        }
        last = next;
      }
      add_copies_in_other_blocks(&copies);
      if (!copies.empty() && is_copy_run(copies, first, last)) {
        undo_copies(copies, first);
        return true;
      }
    }
    return false;
  }

  void add_copies_in_other_blocks(std::vector<const sector_record*>* copies) const {
    while (!copies->empty()) {
      const sector_record* next = written_behind(copies->back());
      certainty sure = certainty::guessed;
      if (next == nullptr || copies->size() >= max_copies ||
          find_old(next->number, next, &sure) == nullptr) {
        return;
      }
      copies->push_back(next);
    }
  }

  // Copies come in the order of their numbers. A claim alone may be another file's, torn: then
  // nothing may stand behind.
  bool is_copy_run(const std::vector<const sector_record*>& copies, const sector_record* first,
                   const sector_record* last) const {
    for (size_t i = 1; i < copies.size(); i++) {
      if (copies[i]->number != copies[i - 1]->number + 1) {
        return false;
      }
    }
    if (copies.front()->count != sector_data_size || first->kind == sector_kind::unfinished) {
      return first->kind == sector_kind::unfinished && copies.back()->count == sector_data_size &&
             has_old(copies);
    }
    return has_old(copies) && (records_.unfinished.size() > 1 || all_erased_behind(last));
  }

  bool has_old(const std::vector<const sector_record*>& copies) const {
    return std::all_of(copies.begin(), copies.end(), [&](const sector_record* each) {
      certainty sure = certainty::proved;
      return other_standing(each) != nullptr || find_old(each->number, each, &sure) != nullptr;
    });
  }

  const sector_record* other_standing(const sector_record* record) const {
    const auto place = list_.find(record->number);
    if (place == list_.end()) {
      return nullptr;
    }
    for (const sector_record* each : place->second) {
      if (!equal(each, record)) {
        return each;
      }
    }
    return nullptr;
  }

  void undo_copies(const std::vector<const sector_record*>& copies, const sector_record* claim) {
    std::vector<uint16_t> filled;
    for (const sector_record* before = neighbour(claim, -1);
         is_own_data(before) && before->number > copies.back()->number &&
         (filled.empty() || before->number + 1 == filled.back());
         before = neighbour(before, -1)) {
      filled.push_back(before->number);
    }
    bool was_last = false;
    for (const sector_record* each : copies) {
      certainty sure = certainty::supported;
      const sector_record* old = other_standing(each);
      old = old != nullptr ? old : find_old(each->number, each, &sure);
      note("extension-undone", sure, each, "put back what stood in the place of the sector",
           "it stands behind a sector that was claimed for the file and not filled, and what it "
           "replaced is still there",
           "keep it: the file is then new up to there");
      choose(each->number, old);
      was_last = was_last || (each == copies.back() && old->count < sector_data_size);
    }
    if (was_last) {
      drop_behind(copies.back()->number);
    }
    for (const uint16_t number : filled) {
      drop_number(number);
    }
  }

  // A file whose slot is still that of its creation has never been written to the end of an
  // operation: it was empty.
  bool undo_first_write() {
    if (!names_.never_written || list_.empty()) {
      return false;
    }
    drop_all(
        "its first write was cut: its slot is still that of its creation, and a sector claimed "
        "for it is not filled");
    return true;
  }

  // A file that is extended over a hole keeps its short last sector: the sectors behind it that
  // were filled before the one that is not belong to the extension.
  bool undo_extension_over_hole() {
    std::vector<const sector_record*> added;
    const sector_record* next = first_unfinished();
    for (auto each = list_.rbegin(); each != list_.rend() && each->second.size() == 1; ++each) {
      const sector_record* record = each->second.front();
      const bool adjoins = neighbour(record, 1) == next || record->at.block != next->at.block;
      if (record->count < sector_data_size) {
        if (added.empty()) {
          return false;
        }
        note("extension-undone", certainty::supported, record,
             "give up the sectors behind the short one",
             "they were filled right before one that was claimed for the file and not filled, and "
             "a short sector is a file's last",
             "keep them: the file is then new up to there");
        drop_behind(each->first);
        return true;
      }
      if (!adjoins) {
        return false;
      }
      added.push_back(record);
      next = record;
    }
    return false;
  }

  const sector_record* first_unfinished() const {
    return *std::min_element(
        records_.unfinished.begin(), records_.unfinished.end(),
        [](const auto* one, const auto* other) { return one->at < other->at; });
  }

  // How much of a half-written sector's data has been written.
  uint32_t written_bytes(const sector_record* record) const {
    uint32_t length = sector_data_size;
    while (length > 0 && bytes(record)->data[length - 1] == flash_erased_byte) {
      length--;
    }
    return length;
  }

  bool looks_like(const sector_record* half, const sector_record* whole) const {
    return whole != nullptr && memcmp(bytes(half)->data, bytes(whole)->data, telling_bytes) == 0;
  }

  // An overwrite of several sectors writes one copy after the other. The copies right before the
  // one that was cut belong to it when its number is the next one, and when it does not begin as
  // the sector that it replaces does: then the overwrite had begun with it.
  bool undo_overwrite(const std::vector<const sector_record*>& cut) {
    bool undone = false;
    for (const sector_record* half : cut) {
      if (half->kind != sector_kind::unfinished || written_bytes(half) < telling_bytes) {
        continue;
      }
      undone = undo_overwrite_before(half) || undone;
    }
    return undone;
  }

  bool undo_overwrite_before(const sector_record* half) {
    std::vector<const sector_record*> run;
    for (const sector_record* before = written_before(half);
         before != nullptr && run.size() < max_copies &&
         (run.empty() || before->number + 1 == run.back()->number);
         before = written_before(before)) {
      run.push_back(before);
    }
    if (run.empty() || looks_like(half, run.front())) {
      return false;
    }
    const sector_record* replaced = chosen_of(static_cast<uint16_t>(run.front()->number + 1));
    if (run.front()->number == 0xFFFF || replaced == nullptr || looks_like(half, replaced)) {
      return false;
    }
    bool undone = false;
    for (const sector_record* each : run) {
      certainty sure = certainty::supported;
      const sector_record* old = other_standing(each);
      old = old != nullptr ? old : find_old(each->number, each, &sure);
      if (old == nullptr) {
        break;
      }
      note("overwrite-undone", sure, each, "put back what stood in the place of the sector",
           "it was written right before the copy of the next one, which was cut, and what it "
           "replaced is still there",
           "keep it: the file is then new up to there");
      choose(each->number, old);
      undone = true;
    }
    return undone;
  }

  // --- lists that do not fit ---

  // Two sectors of one number: the new one stood, and the old one had not gone.
  void choose_of_doubles() {
    for (auto& [number, same] : list_) {
      while (same.size() > 1) {
        const sector_record* kept = older_of(same[0], same[1]);
        const sector_record* given = kept == same[0] ? same[1] : same[0];
        if (records_.unfinished.empty()) {
          undo_overwrite_of_double(given);
        }
        note("double-resolved", certainty::supported, given, "give up one of two equal numbers",
             "both are whole; the other one is older, or holds more", "keep it instead");
        drop(given);
        same.erase(std::find(same.begin(), same.end(), given));
      }
    }
    forget_equal();
  }

  void undo_overwrite_of_double(const sector_record* newer) {
    if (looks_like(newer, other_standing(newer))) {
      return;  // the overwrite had begun with it
    }
    const sector_record* after = newer;
    for (const sector_record* before = written_before(newer); before != nullptr;
         before = written_before(before)) {
      certainty sure = certainty::supported;
      const sector_record* old = find_old(before->number, before, &sure);
      if (before->number + 1 != after->number || old == nullptr ||
          chosen_of(before->number) != before) {
        return;
      }
      after = before;
      note("overwrite-undone", sure, before, "put back what stood in the place of the sector",
           "it was written right before the copy of the next one, whose old sector still stands",
           "keep it: the file is then new up to there");
      choose(before->number, old);
    }
  }

  const sector_record* older_of(const sector_record* one, const sector_record* other) const {
    // What a claim that remains shows to be cut goes back; a truncation goes back to the longer.
    const bool extending = !records_.unfinished.empty();
    if (begins(one, other) || begins(other, one)) {
      const bool one_is_shorter = one->count < other->count;
      return one_is_shorter == extending ? one : other;
    }
    // A block that still had room when the newer one was written has none behind the older one, but
    // for the block that allocation had not come to: it begins with the highest.
    if (has_room_behind(one) != has_room_behind(other)) {
      return has_room_behind(one) ? other : one;
    }
    if (one->at.block != other->at.block) {
      const bool higher_is_newer = has_room_behind(one);
      return (one->at.block < other->at.block) == higher_is_newer ? one : other;
    }
    return one->at < other->at ? one : other;
  }

  bool has_room_behind(const sector_record* record) const {
    const sector_record* above = neighbour(record, 1);
    return above != nullptr && above->kind == sector_kind::erased;
  }

  // A truncation writes the shortened sector, then invalidates the old one, then those behind it,
  // the lowest number first.
  void finish_or_undo_truncation() {
    if (!records_.unfinished.empty()) {
      return;
    }
    for (const auto& [number, same] : list_) {
      const sector_record* shortened = same.front();
      if (shortened->count == sector_data_size || number == list_.rbegin()->first) {
        continue;
      }
      const bool gap_behind = chosen_of(static_cast<uint16_t>(number + 1)) == nullptr;
      certainty sure = certainty::supported;
      const sector_record* old = find_old(number, shortened, &sure);
      if (gap_behind) {
        note("truncation-finished", certainty::supported, shortened,
             "give up the sectors behind the shortened one",
             "the sector is short, and the one behind it has gone already");
        drop_behind(number);
        return;
      }
      if (old != nullptr && begins(shortened, old) &&
          (old->kind != sector_kind::obsolete || is_newest_data(shortened))) {
        note("truncation-undone", sure, shortened, "put back the sector that was shortened",
             "a short sector stands before others, and begins one that was given up",
             "finish the truncation instead");
        choose(number, old);
        return;
      }
    }
  }

  // What a gap has lost comes back from what was invalidated. A removed file of which not all is
  // there is given up, as its removal was meant to do.
  void close_gaps() {
    if (list_.empty()) {
      return;
    }
    const uint32_t end = list_.rbegin()->first + 1U;
    const size_t missing = end - list_.size();
    if (missing == 0) {
      return;
    }
    size_t restored = 0;
    for (uint32_t number = end;
         number-- > 0 && missing <= records_.old_count + records_.damaged.size();) {
      restored += chosen_of(static_cast<uint16_t>(number)) == nullptr &&
                          fill_gap(static_cast<uint16_t>(number))
                      ? 1
                      : 0;
    }
    if (restored == missing) {
      return;
    }
    if (names_.removed) {
      change_.writes.clear();
      keep_standing_only();
      drop_all("it was being removed, and not all of it is left");
    } else if (missing - restored <= max_zero_sectors && options_.may_write) {
      fill_with_zeros(end);
    } else {
      cut_at_gap();
    }
  }

  // Whether an old sector can stand in the middle of the list.
  bool fill_gap(uint16_t number) {
    certainty sure = certainty::supported;
    const sector_record* old = find_old(number, nullptr, &sure);
    if (old == nullptr || old->count != sector_data_size) {
      return mend_gap(number);
    }
    note("gap-filled", sure, old, "put back the sector with number " + std::to_string(number),
         "the list has a gap there, and the checksum of this invalidated sector holds for the file",
         "give up the file's sectors instead");
    choose(number, old);
    return true;
  }

  // A sector of the number that one changed bit makes good.
  bool mend_gap(uint16_t number) {
    for (const sector_record* each : records_.damaged) {
      if (each->number != number || !options_.may_write) {
        continue;
      }
      const std::optional<flashfs_sector> mended = mended_sector(*bytes(each), change_.fileid);
      if (mended && mended->count == sector_data_size) {
        note("sector-mended", certainty::guessed, each,
             "put back the sector with number " + std::to_string(number),
             "the list has a gap there, and one changed bit makes this sector good",
             "write zeros instead");
        change_.writes.push_back(*mended);
        list_[number] = {each};
        return true;
      }
    }
    return false;
  }

  void keep_standing_only() {
    for (auto each = list_.begin(); each != list_.end();) {
      const sector_record* record = each->second.front();
      each =
          is_own_data(record) && found_.is_kept(record->at) ? std::next(each) : list_.erase(each);
    }
  }

  void fill_with_zeros(uint32_t end) {
    for (uint32_t number = 0; number < end; number++) {
      if (chosen_of(static_cast<uint16_t>(number)) != nullptr) {
        continue;
      }
      flashfs_sector zeros = {};
      zeros.fileid = change_.fileid;
      zeros.count = static_cast<uint16_t>(sector_data_size);
      zeros.seq_no = static_cast<uint16_t>(number);
      sector_set_checksum(&zeros);
      change_.writes.push_back(zeros);
      note("gap-zeroed", certainty::guessed, nullptr,
           "write zeros for the sector with number " + std::to_string(number),
           "nothing is left of it, and what stands behind it keeps its place so",
           "give up what stands behind it");
    }
  }

  void cut_at_gap() {
    uint32_t whole = 0;
    while (chosen_of(static_cast<uint16_t>(whole)) != nullptr) {
      whole++;
    }
    note("list-cut", certainty::guessed, list_.rbegin()->second.front(),
         "give up what stands behind the gap", "too much is missing to be filled in");
    if (whole == 0) {
      drop_all("its beginning is missing");
    } else {
      drop_behind(whole - 1);
    }
  }

  const name_evidence& names_;
};

}  // namespace

std::vector<list_change> decide_lists(const evidence& found,
                                      const std::map<uint16_t, name_evidence>& named,
                                      const list_options& options) {
  std::vector<list_change> changes;
  const std::optional<old_contents> removed =
      options.deleted ? std::optional<old_contents>(found) : std::nullopt;
  const auto is_begun_return = [&](const file_records& records) {
    return removed && std::all_of(records.standing.begin(), records.standing.end(),
                                  [&](const auto* each) { return removed->have(*each); });
  };
  for (const auto& [fileid, records] : sort_by_file(found)) {
    const auto names = named.find(fileid);
    const bool is_named = names != named.end() && names->second.named;
    if (records.standing.empty() && !is_named) {
      continue;
    }
    const name_evidence known = names == named.end() ? name_evidence{} : names->second;
    list_judge judge(found, fileid, records, known, options);
    list_change change =
        !is_named && is_begun_return(records) ? judge.drop_begun_return() : judge.judge();
    if (!change.writes.empty() || !change.drops.empty()) {
      changes.push_back(std::move(change));
    }
  }
  return changes;
}

}  // namespace image::rescuing

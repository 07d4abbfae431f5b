#include "image/rescue_file_list.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace image::rescuing {

namespace {

struct weighed {
  const sector_record* record;
  int weight;
};

}  // namespace

file_list::file_list(const evidence& found, uint16_t fileid, const file_records& records,
                     const list_options& options)
    : found_(found), records_(records), options_(options) {
  change_.fileid = fileid;
  for (const sector_record* each : records.standing) {
    add_standing(each);
  }
}

const flashfs_sector* file_list::bytes(const sector_record* record) const {
  return found_.sector(record->at);
}

bool file_list::equal(const sector_record* one, const sector_record* other) const {
  return one->count == other->count &&
         memcmp(bytes(one)->data, bytes(other)->data, sector_data_size) == 0;
}

bool file_list::begins(const sector_record* part, const sector_record* whole) const {
  return part->count != 0 && part->count < whole->count &&
         memcmp(bytes(part)->data, bytes(whole)->data, part->count) == 0;
}

void file_list::add_standing(const sector_record* record) {
  std::vector<const sector_record*>& same = list_[record->number];
  if (std::any_of(same.begin(), same.end(),
                  [&](const auto* other) { return equal(record, other); })) {
    drops_of_equal_.push_back(record);
    return;
  }
  same.push_back(record);
}

// --- places ---

const sector_record* file_list::neighbour(const sector_record* record, int step) const {
  const int sector = record->at.sector + step;
  if (sector < 0 || sector >= found_.blocks[record->at.block].sectors) {
    return nullptr;
  }
  return &found_.at({record->at.block, static_cast<uint16_t>(sector)});
}

bool file_list::is_own_data(const sector_record* record) const {
  return record != nullptr && record->kind == sector_kind::data && record->owner == change_.fileid;
}

bool file_list::is_own_unfinished(const sector_record* record) const {
  return record != nullptr && record->owner == change_.fileid &&
         (record->kind == sector_kind::claimed || record->kind == sector_kind::unfinished);
}

// Allocation fills a block from below: nothing below the newest sector is erased.
bool file_list::is_at_frontier(const sector_record* record) const {
  for (const sector_record* below = neighbour(record, -1); below != nullptr;
       below = neighbour(below, -1)) {
    if (below->kind == sector_kind::erased) {
      return false;
    }
  }
  return true;
}

bool file_list::all_erased_behind(const sector_record* record) const {
  const sector_record* next = neighbour(record, 1);
  if (next != nullptr && next->kind == sector_kind::claimed &&
      (next->owner & change_.fileid) == change_.fileid) {
    record = next;
  }
  for (const sector_record* above = neighbour(record, 1); above != nullptr;
       above = neighbour(above, 1)) {
    if (above->kind != sector_kind::erased) {
      return false;
    }
  }
  return true;
}

bool file_list::is_newest_data(const sector_record* record) const {
  const sector_record* above = neighbour(record, 1);
  while (above != nullptr && above->kind == sector_kind::directory) {
    above = neighbour(above, 1);
  }
  return is_at_frontier(record) && (above == nullptr || above->kind == sector_kind::erased);
}

const sector_record* file_list::written_behind(const sector_record* record) const {
  const sector_record* next = neighbour(record, 1);
  if (next != nullptr) {
    return is_own_data(next) && next->number == record->number + 1 ? next : nullptr;
  }
  const auto place = list_.find(static_cast<uint16_t>(record->number + 1));
  if (record->number == 0xFFFF || place == list_.end()) {
    return nullptr;
  }
  const sector_record* found = nullptr;
  for (const sector_record* each : place->second) {
    if (each->at.block != record->at.block && is_at_frontier(each) && goes_on_behind(each)) {
      found = found == nullptr ? each : nullptr;
    }
  }
  return found;
}

bool file_list::goes_on_behind(const sector_record* record) const {
  const sector_record* next = neighbour(record, 1);
  return next == nullptr || next->kind == sector_kind::erased || is_own_data(next) ||
         is_own_unfinished(next);
}

const sector_record* file_list::written_before(const sector_record* record) const {
  const sector_record* before = neighbour(record, -1);
  if (is_own_data(before)) {
    return before;
  }
  if (!is_at_frontier(record)) {
    return nullptr;
  }
  const sector_record* found = nullptr;
  for (const sector_record* each : records_.standing) {
    if (each->at.block != record->at.block && neighbour(each, 1) == nullptr &&
        is_at_frontier(each) && list_.contains(each->number)) {
      found = found == nullptr ? each : nullptr;
    }
  }
  return found;
}

// --- what is chosen ---

rescue_decision& file_list::note(const char* code, certainty sure, const sector_record* about,
                                 const std::string& what, const std::string& evidence_text,
                                 const std::string& alternatives) {
  rescue_decision decision = {.code = code, .sure = sure, .fileid = change_.fileid};
  if (about != nullptr) {
    decision.block = about->at.block;
    decision.sector = about->at.sector;
  }
  decision.what = what;
  decision.evidence = evidence_text;
  decision.alternatives = alternatives;
  change_.decisions.push_back(std::move(decision));
  return change_.decisions.back();
}

void file_list::drop(const sector_record* record) {
  change_.drops.push_back(record->at);
}

void file_list::drop_number(uint16_t number) {
  const auto place = list_.find(number);
  if (place == list_.end()) {
    return;
  }
  for (const sector_record* each : place->second) {
    drop(each);
  }
  list_.erase(place);
  forget_write(number);
}

void file_list::forget_write(uint16_t number) {
  std::erase_if(change_.writes, [&](const auto& each) { return each.seq_no == number; });
}

void file_list::drop_behind(uint32_t number) {
  while (!list_.empty() && list_.rbegin()->first > number) {
    drop_number(list_.rbegin()->first);
  }
}

void file_list::drop_all(const std::string& why) {
  if (!list_.empty()) {
    note("list-dropped", certainty::supported, list_.begin()->second.front(),
         "give up all sectors of the file", why);
  }
  while (!list_.empty()) {
    drop_number(list_.rbegin()->first);
  }
  forget_equal();
}

void file_list::forget_equal() {
  for (const sector_record* each : drops_of_equal_) {
    drop(each);
  }
  drops_of_equal_.clear();
}

void file_list::choose(uint16_t number, const sector_record* chosen) {
  const auto standing = list_.find(number);
  bool stands = false;
  if (standing != list_.end()) {
    for (const sector_record* each : standing->second) {
      stands = stands || (is_own_data(each) && equal(each, chosen));
    }
  }
  forget_write(number);
  if (!stands) {
    flashfs_sector copy = *bytes(chosen);
    copy.fileid = change_.fileid;
    copy.seq_no = number;
    sector_set_checksum(&copy);
    change_.writes.push_back(copy);
  }
  if (standing != list_.end()) {
    for (const sector_record* each : standing->second) {
      if (!equal(each, chosen)) {
        drop(each);
      }
    }
  }
  list_[number] = {chosen};
}

// --- what stood before ---

bool file_list::follows(const sector_record* record, int step, const sector_record* wanted) const {
  return wanted != nullptr && neighbour(record, step) == wanted;
}

int file_list::weight_of(const sector_record* option, uint16_t number,
                         const sector_record* replaced) const {
  int weight = 0;
  if (option->kind != sector_kind::obsolete) {
    weight += 100;  // it was being invalidated when the power failed
  }
  if (replaced != nullptr) {
    weight += begins(option, replaced) ? 40 : 0;
    weight += option->at.block == replaced->at.block && option->at < replaced->at ? 5 : 0;
    weight += equal_bytes(option, replaced) * 2 > sector_data_size ? 20 : 0;
  }
  const sector_record* next = chosen_of(static_cast<uint16_t>(number + 1));
  const sector_record* previous =
      number == 0 ? nullptr : chosen_of(static_cast<uint16_t>(number - 1));
  weight += follows(option, 1, next) || follows(option, -1, previous) ? 10 : 0;
  return weight;
}

uint32_t file_list::equal_bytes(const sector_record* one, const sector_record* other) const {
  const uint32_t length = std::min(one->count, other->count);
  uint32_t equal = 0;
  for (uint32_t i = 0; i < length; i++) {
    equal += bytes(one)->data[i] == bytes(other)->data[i] ? 1 : 0;
  }
  return equal;
}

const sector_record* file_list::chosen_of(uint16_t number) const {
  const auto place = list_.find(number);
  return place == list_.end() ? nullptr : place->second.front();
}

const sector_record* file_list::find_old(uint16_t number, const sector_record* replaced,
                                         certainty* sure) const {
  const auto options = records_.old.find(number);
  if (!options_.may_write || options == records_.old.end()) {
    return nullptr;
  }
  weighed best = {nullptr, -1};
  bool other = false;
  for (const sector_record* each : options->second) {
    if (replaced != nullptr && equal(each, replaced)) {
      continue;
    }
    const int weight = weight_of(each, number, replaced);
    if (best.record != nullptr && !equal(best.record, each)) {
      other = true;
    }
    const bool longer = weight == best.weight && replaced != nullptr && begins(each, replaced) &&
                        each->count > best.record->count;
    const bool later = weight == best.weight &&
                       (replaced == nullptr || each->count == best.record->count) &&
                       each->at.block == best.record->at.block && each->at > best.record->at;
    if (weight > best.weight || longer || later) {
      best = {each, weight};
    }
  }
  *sure = other ? certainty::guessed : certainty::supported;
  return best.record;
}

}  // namespace image::rescuing

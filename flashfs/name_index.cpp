// The index of a directory's names.
#include "flashfs/name_index.h"

#include <bit>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t crowded_chain = 4;  // slots of a chain on average

// FNV-1a, with its upper bits folded into those that choose the chain.
uint32_t hash_of(const char* bytes, size_t length) {
  uint32_t hash = 2166136261U;
  for (size_t i = 0; i < length; i++) {
    hash = (hash ^ static_cast<uint8_t>(bytes[i])) * 16777619U;
  }
  return hash ^ hash >> 15;
}

listed_slot* with_hash(listed_slot* slot, uint32_t hash) {
  while (slot != nullptr && slot->name_hash != hash) {
    slot = slot->chained;
  }
  return slot;
}

// Of two entries of a list. Sequence numbers only repeat once all 65,536 have been given.
bool stands_before(const listed_slot* entry, const listed_slot* other) {
  if (entry->seq_no != other->seq_no) {
    return entry->seq_no < other->seq_no;
  }
  const flashfs_sctr_list_ordered* each = entry;
  while (each != nullptr && each != other && each->seq_no == other->seq_no) {
    each = each->next;
  }
  return each == other;
}

}  // namespace

uint32_t name_hash(const char* name) {
  return hash_of(name, strlen(name));
}

uint32_t slot_name_hash(const flashfs_dir_slot& slot) {
  return hash_of(slot.name, strnlen(slot.name, filename_size));
}

std::unique_ptr<name_index> name_index::make(flashfs_sctr_list_ordered* list) {
  std::unique_ptr<name_index> index(new (std::nothrow) name_index);
  if (index == nullptr) {
    return nullptr;
  }
  for (auto* entry = list; entry != nullptr; entry = entry->next) {
    index->num_slots_ += as_listed_slot(entry) != nullptr ? 1 : 0;
  }
  index->num_chains_ = std::bit_floor(index->num_slots_ | 1);
  index->chains_.reset(new (std::nothrow) listed_slot* [index->num_chains_] {});
  if (index->chains_ == nullptr) {
    return nullptr;
  }
  for (auto* entry = list; entry != nullptr; entry = entry->next) {
    if (listed_slot* slot = as_listed_slot(entry); slot != nullptr) {
      listed_slot** link = index->link_of(slot->name_hash);
      slot->chained = *link;
      *link = slot;
    }
  }
  index->reverse_chains();
  return index;
}

// What was put in front came last in the list.
void name_index::reverse_chains() {
  for (uint32_t i = 0; i < num_chains_; i++) {
    listed_slot* rest = chains_[i];
    chains_[i] = nullptr;
    while (rest != nullptr) {
      listed_slot* slot = rest;
      rest = slot->chained;
      slot->chained = chains_[i];
      chains_[i] = slot;
    }
  }
}

void name_index::add(listed_slot* slot) {
  listed_slot** link = link_of(slot->name_hash);
  while (*link != nullptr &&
         ((*link)->name_hash != slot->name_hash || stands_before(*link, slot))) {
    link = &(*link)->chained;
  }
  slot->chained = *link;
  *link = slot;
  num_slots_++;
}

void name_index::remove(const listed_slot* slot) {
  listed_slot** link = link_of(slot->name_hash);
  while (*link != slot) {
    link = &(*link)->chained;
  }
  *link = slot->chained;
  num_slots_--;
}

bool name_index::is_crowded() const {
  return num_slots_ > crowded_chain * num_chains_;
}

listed_slot* name_index::first(uint32_t hash) const {
  return with_hash(*link_of(hash), hash);
}

listed_slot* name_index::next(const listed_slot* slot) {
  return with_hash(slot->chained, slot->name_hash);
}

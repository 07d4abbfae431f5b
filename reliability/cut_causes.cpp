// The causes, each with the words in which its cuts fall.
#include "reliability/cut_causes.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "flashfs/big_endian.h"
#include "flashfs/flash_driver.h"
#include "flashfs/format.h"
#include "reliability/left_flash.h"
#include "sim/flash.h"

namespace reliability {

namespace {

using outcomes = std::set<outcome>;

enum class scope {
  any_operation,  // comes with the word in which the cut falls
  own,            // comes with what certain operations do
};

struct cause_facts {
  cause why;
  const char* name;
  std::set<place> places;
  bool torn_only;  // only while a mutation is half done; not between one and the next
  scope reach;
  outcomes quick;
  outcomes full;
};

// A quick check trusts what it does not validate, so most are its own. The first that applies
// counts: those that need most to be known come first.
const std::vector<cause_facts>& all_causes() {
  static const std::vector<cause_facts> all = {
      {.why = cause::data_read_as_slots,
       .name = "data read as slots",
       .places = {place::sector_claim, place::sector_invalidation},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::check_refuses, outcome::other_changed, outcome::stray_name,
                 outcome::touched_lost, outcome::touched_torn, outcome::relinked,
                 outcome::touched_dropped},
       .full = {}},
      {.why = cause::sectors_outlive_name,
       .name = "sectors outlive their name",
       .places = {place::slot_deletion, place::sector_invalidation, place::erase,
                  place::header_rest},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::relinked},
       .full = {outcome::relinked}},
      {.why = cause::shortened_first,
       .name = "shortened sector first",
       .places = {place::sector_invalidation},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::touched_torn},
       .full = {outcome::touched_torn}},
      {.why = cause::no_spare,
       .name = "no spare",
       .places = {place::erase, place::header_state, place::header_rest, place::copy},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::check_refuses},
       .full = {outcome::check_refuses}},
      {.why = cause::walked_twice,
       .name = "orphan walked twice",
       .places = {place::slot},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::touched_lost},
       .full = {outcome::touched_lost}},
      {.why = cause::half_written_root,
       .name = "half-written root",
       .places = {place::slot},
       .torn_only = false,
       .reach = scope::any_operation,
       .quick = {outcome::other_changed, outcome::fails_in_use, outcome::differs_in_use},
       .full = {}},
      {.why = cause::half_written_slot,
       .name = "half-written slot",
       .places = {place::slot},
       .torn_only = false,
       .reach = scope::any_operation,
       .quick = {outcome::check_refuses, outcome::stray_name, outcome::touched_lost,
                 outcome::fails_in_use, outcome::differs_in_use},
       .full = {}},
      {.why = cause::torn_deletion,
       .name = "torn deletion",
       .places = {place::slot_deletion},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::check_refuses, outcome::stray_name, outcome::other_changed},
       .full = {}},
      {.why = cause::half_claimed_sector,
       .name = "half-claimed sector",
       .places = {place::sector_claim},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::other_changed, outcome::touched_torn, outcome::relinked,
                 outcome::touched_dropped},
       .full = {}},
      {.why = cause::unfinished_sector,
       .name = "unfinished sector",
       .places = {place::sector_rest},
       .torn_only = false,
       .reach = scope::any_operation,
       .quick = {outcome::touched_torn, outcome::touched_dropped},
       .full = {}},
      {.why = cause::torn_invalidation,
       .name = "torn invalidation",
       .places = {place::sector_invalidation},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::other_changed, outcome::touched_torn, outcome::relinked,
                 outcome::touched_dropped},
       .full = {}},
      {.why = cause::checksum_by_chance,
       .name = "checksum by chance",
       .places = {place::sector_claim, place::sector_rest, place::sector_invalidation},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::other_changed, outcome::touched_torn, outcome::relinked,
                 outcome::touched_dropped},
       .full = {outcome::other_changed, outcome::touched_torn, outcome::relinked,
                outcome::touched_dropped}},
      {.why = cause::torn_header,
       .name = "torn header",
       .places = {place::header_state, place::header_rest},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::other_changed, outcome::touched_lost, outcome::touched_torn,
                 outcome::relinked, outcome::touched_dropped},
       .full = {outcome::other_changed, outcome::touched_lost, outcome::touched_torn,
                outcome::relinked, outcome::touched_dropped}},
      {.why = cause::number_handed_out_again,
       .name = "number handed out again",
       .places = {place::slot},
       .torn_only = true,
       .reach = scope::any_operation,
       .quick = {outcome::not_settled},
       .full = {}},
      {.why = cause::damage_not_seen,
       .name = "damage not seen",
       .places = {place::sector_invalidation, place::slot_deletion},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::touched_torn, outcome::touched_lost, outcome::stray_name,
                 outcome::check_refuses},
       .full = {}},
      {.why = cause::image_incomplete,
       .name = "image incomplete",
       .places = {place::erase, place::header_state, place::header_rest, place::copy,
                  place::sector_claim, place::sector_rest, place::sector_invalidation, place::slot,
                  place::slot_deletion},
       .torn_only = false,
       .reach = scope::own,
       .quick = {outcome::check_refuses, outcome::stray_name, outcome::touched_lost,
                 outcome::touched_torn, outcome::relinked, outcome::touched_dropped},
       .full = {outcome::touched_lost, outcome::touched_torn, outcome::relinked,
                outcome::touched_dropped}},
  };
  return all;
}

const cause_facts& facts_of(cause why) {
  return *std::find_if(all_causes().begin(), all_causes().end(),
                       [why](const cause_facts& each) { return each.why == why; });
}

bool falls_in(const cut& each, const cause_facts& facts) {
  if (facts.torn_only && !each.torn) {
    return false;
  }
  if (facts.why == cause::data_read_as_slots && each.left != fileid_root) {
    return false;
  }
  if (facts.why == cause::half_written_root && !each.of_root) {
    return false;
  }
  if (facts.why == cause::checksum_by_chance && !each.checksum_holds) {
    return false;
  }
  if (facts.why == cause::no_spare && !each.only_committed) {
    return false;
  }
  // Once the first word of the repair stands, the damage is not there any more.
  if (facts.why == cause::damage_not_seen && each.mutation != 1) {
    return false;
  }
  // It stands from its claim to its last word, whatever else is written meanwhile.
  if (facts.why == cause::unfinished_sector && each.unfinished) {
    return true;
  }
  return facts.places.count(each.where) != 0;
}

bool applies(const cause_facts& facts, const std::set<cause>& own, const cut& first,
             const std::optional<cut>& second) {
  const bool is_own = facts.reach == scope::any_operation || own.count(facts.why) != 0;
  const bool in_first = is_own && falls_in(first, facts);
  // A check does what comes with words alone, and collects garbage on a full device.
  const bool in_check = facts.reach == scope::any_operation || facts.why == cause::no_spare;
  const bool in_second = is_own && in_check && second && falls_in(*second, facts);
  // One file is named twice by two half-written slots.
  return facts.why == cause::number_handed_out_again ? in_first && in_second
                                                     : in_first || in_second;
}

// What a cause does to touched files, it does to those that stood whole in an image, too; only that
// the image is incomplete is no reason to lose them.
bool has_outcome(const cause_facts& facts, const outcomes& of_check, outcome kind) {
  if (kind != outcome::lost_though_whole) {
    return of_check.count(kind) != 0;
  }
  return facts.why != cause::image_incomplete && (of_check.count(outcome::touched_lost) != 0 ||
                                                  of_check.count(outcome::touched_torn) != 0 ||
                                                  of_check.count(outcome::touched_dropped) != 0);
}

constexpr uint32_t state_word = 12;  // offset of a header's state

size_t slot_around(uint32_t in_sector) {
  return (in_sector - offsetof(flashfs_sector, slots)) / sizeof(flashfs_dir_slot);
}

place place_in_sector(const sim::mutation& mutation, const flashfs_sector& sector,
                      uint32_t in_sector) {
  if (in_sector == 0) {
    return mutation.wanted == fileid_invalidated ? place::sector_invalidation : place::sector_claim;
  }
  if (sector.fileid != fileid_root) {
    return place::sector_rest;
  }
  const uint32_t in_slot = (in_sector - offsetof(flashfs_sector, slots)) % sizeof(flashfs_dir_slot);
  const bool deletes = in_slot == offsetof(flashfs_dir_slot, dir_fileid) && mutation.wanted == 0;
  return deletes ? place::slot_deletion : place::slot;
}

}  // namespace

const char* outcome_name(outcome kind) {
  switch (kind) {
    case outcome::check_refuses:
      return "check refuses";
    case outcome::other_changed:
      return "other file changed";
    case outcome::stray_name:
      return "stray name";
    case outcome::touched_lost:
      return "touched file lost";
    case outcome::touched_torn:
      return "touched file torn";
    case outcome::touched_dropped:
      return "touched file dropped";
    case outcome::relinked:
      return "relinked";
    case outcome::not_settled:
      return "not settled";
    case outcome::lost_though_whole:
      return "lost though whole";
    case outcome::fails_in_use:
      return "fails in use";
    case outcome::differs_in_use:
      return "differs in use";
  }
  return "";
}

cut look_at_cut(uint64_t mutation, sim::cut_kind kind, test_support::ram_flash& device) {
  const sim::mutation& last = device.flash().last_mutation();
  const bool during = kind != sim::cut_kind::before;
  cut made = {mutation, place::erase,
              during,   0,
              false,    has_unfinished_sector(device),
              false,    has_only_committed_copy(device)};
  if (last.is_erase) {
    return made;
  }
  made.left = device.flash().read16(last.offset);
  made.torn = during && made.left != last.held && made.left != (last.held & last.wanted);
  const auto& blocks = device.blocks();
  const auto block = std::find_if(blocks.begin(), blocks.end(), [&](const flash_block_info& each) {
    return last.offset - each.offset < each.size;
  });
  const uint32_t in_block = last.offset - block->offset;
  if (in_block < sizeof(flashfs_blkheader)) {
    made.where = in_block == state_word ? place::header_state : place::header_rest;
    return made;
  }
  const uint8_t* bytes = device.bytes() + block->offset;
  const uint32_t in_sector =
      (in_block - static_cast<uint32_t>(sizeof(flashfs_blkheader))) % sizeof(flashfs_sector);
  const auto& sector = *reinterpret_cast<const flashfs_sector*>(bytes + in_block - in_sector);
  const auto* header = reinterpret_cast<const flashfs_blkheader*>(bytes);
  made.where = blkheader_state(header) == block_in_use ? place_in_sector(last, sector, in_sector)
                                                       : place::copy;
  made.checksum_holds = sector_crc(&sector) == flashfs_good_crc;
  made.of_root =
      made.where == place::slot && sector.slots[slot_around(in_sector)].entry_fileid == fileid_root;
  return made;
}

const char* cause_name(cause why) {
  return facts_of(why).name;
}

bool is_of_use(outcome kind) {
  return kind == outcome::fails_in_use || kind == outcome::differs_in_use;
}

const std::set<outcome>& outcomes_of(cause why, bool quick) {
  return quick ? facts_of(why).quick : facts_of(why).full;
}

std::optional<cause> explain(outcome kind, checks_run checks, const std::set<cause>& own,
                             const cut& first, const std::optional<cut>& second) {
  // What a quick check has made obsolete or relinked stays so; what it only believed does not.
  const bool lasts = kind != outcome::check_refuses && kind != outcome::stray_name &&
                     kind != outcome::touched_lost && kind != outcome::not_settled;
  const bool quick = checks.quick_last || (checks.quick_cut && lasts);
  for (const cause_facts& facts : all_causes()) {
    if (applies(facts, own, first, second) &&
        has_outcome(facts, quick ? facts.quick : facts.full, kind)) {
      return facts.why;
    }
  }
  return std::nullopt;
}

}  // namespace reliability

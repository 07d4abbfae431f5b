// The order of a rescue: what stands is copied before what goes is given up, and blocks are erased
// last. It is gone through again on what it has made until nothing is left to do: the second time
// finds what only then shows.
#include "image/rescue.h"

#include <cstddef>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "image/rescue_blocks.h"
#include "image/rescue_deleted.h"
#include "image/rescue_evidence.h"
#include "image/rescue_flash.h"
#include "image/rescue_lists.h"
#include "image/rescue_names.h"
#include "image/rescue_room.h"

namespace image {

namespace {

using namespace rescuing;  // NOLINT: its own parts

constexpr int max_rounds = 6;
// Directories in one another, in a path that is told.
constexpr size_t max_levels = 64;

class rescue_round {
 public:
  rescue_round(flash_copy* flash, std::span<const flash_block_info> blocks,
               const rescue_options& options, bool may_write, rescue_plan* plan)
      : flash_(flash),
        plan_(plan),
        before_(flash->bytes().begin(), flash->bytes().end()),
        found_(read_evidence(before_, blocks)),
        may_write_(may_write) {
    date_ = options.now != 0 ? options.now : latest_date(found_);
  }

  // Whether everything that was decided could be done.
  bool run() {
    judge_blocks(&found_, &plan_->decisions);
    room space(flash_, found_, date_);
    bool done = space.keep_blocks();
    done = mend_lists(&space) && done;
    done = mend_names(&space) && done;
    drop_bad_sectors(&space);
    if (done || !may_write_) {
      space.erase_condemned();
    }
    return space.establish_spare(&plan_->decisions) && done;
  }

 private:
  bool mend_lists(room* space) {
    bool done = true;
    for (const list_change& change :
         decide_lists(found_, read_names(found_), {.may_write = may_write_})) {
      // A part of them would be a list with a gap.
      bool written = space->make_room_for(change.writes.size());
      for (const flashfs_sector& each : change.writes) {
        written = written && space->write_sector(each);
      }
      if (!written) {
        done = false;
        postponed_.insert(change.fileid);
        continue;
      }
      for (const sector_place place : change.drops) {
        space->drop_sector(place);
        dropped_.insert(place);
      }
      for (const flashfs_sector& each : change.writes) {
        with_data_.insert(each.fileid);
        whole_.insert({each.fileid, each.seq_no});
      }
      plan_->decisions.insert(plan_->decisions.end(), change.decisions.begin(),
                              change.decisions.end());
    }
    for (const sector_record& each : found_.sectors) {
      if (each.kind == sector_kind::data && found_.is_kept(each.at) &&
          !dropped_.contains(each.at)) {
        with_data_.insert(each.owner);
        whole_.insert({each.owner, each.number});
      }
    }
    return done;
  }

  bool mend_names(room* space) {
    const name_changes changes = decide_names(found_, with_data_, date_);
    for (const flashfs_dir_slot& each : changes.writes) {
      if (!space->write_slot(each)) {
        return false;
      }
    }
    for (const slot_place& each : changes.deletions) {
      space->delete_slot(each);
    }
    plan_->decisions.insert(plan_->decisions.end(), changes.decisions.begin(),
                            changes.decisions.end());
    return true;
  }

  // What is neither whole nor erased. What shows that an operation was cut goes last.
  void drop_bad_sectors(room* space) {
    for (const sector_record& each : found_.sectors) {
      const bool bad = each.kind == sector_kind::dirty || each.kind == sector_kind::claimed ||
                       each.kind == sector_kind::unfinished ||
                       each.kind == sector_kind::obsolete_torn || each.kind == sector_kind::damaged;
      if (!bad || !found_.is_kept(each.at) || postponed_.contains(each.owner) ||
          postponed_.contains(each.fitting)) {
        continue;
      }
      space->drop_sector(each.at);
      plan_->decisions.push_back(drop_decision(each));
    }
  }

  // A sector whose checksum does not hold was whole once, and no power cut made it what it is.
  rescue_decision drop_decision(const sector_record& bad) const {
    rescue_decision decision = {.code = "sector-dropped",
                                .block = bad.at.block,
                                .sector = bad.at.sector,
                                .fileid = bad.fitting != 0 ? bad.fitting : bad.owner};
    decision.what = "make the sector obsolete";
    switch (bad.kind) {
      case sector_kind::dirty:
        decision.evidence = "it is free and not erased";
        break;
      case sector_kind::claimed:
        decision.evidence = "it is claimed and holds nothing";
        break;
      case sector_kind::unfinished:
        decision.evidence = "it is half-written";
        break;
      case sector_kind::obsolete_torn:
        decision.evidence = "it was being made obsolete";
        break;
      default:
        decision.evidence = "its checksum does not hold";
        if (whole_.contains({bad.owner, bad.number})) {
          decision.evidence += ", and another one has its number";
        } else {
          decision.code = "sector-lost";
        }
    }
    return decision;
  }

  flash_copy* flash_;
  rescue_plan* plan_;
  std::vector<uint8_t> before_;
  evidence found_;
  bool may_write_;
  uint32_t date_ = 0;
  std::set<uint16_t> with_data_;
  std::set<std::pair<uint16_t, uint16_t>> whole_;  // owners and numbers of what stands
  std::set<uint16_t> postponed_;
  std::set<sector_place> dropped_;
};

// Brings back removed files on a flash that is mended otherwise, as far as there is room.
void return_deleted(flash_copy* flash, std::span<const flash_block_info> blocks,
                    const rescue_options& options, rescue_plan* plan) {
  const std::vector<uint8_t> before(flash->bytes().begin(), flash->bytes().end());
  evidence found = read_evidence(before, blocks);
  judge_blocks(&found, &plan->decisions);
  room space(flash, found, options.now != 0 ? options.now : latest_date(found));
  for (const returned_file& each : find_deleted(found)) {
    rescue_decision decision = each.decision;
    if (space.free_sectors() < each.sectors.size() + 1) {  // one for its slot
      decision.code = no_room_to_return;
      decision.what = "leave it removed";
      decision.evidence += "; there is no room for it";
      plan->decisions.push_back(std::move(decision));
      continue;
    }
    for (const flashfs_sector& sector : each.sectors) {
      plan->complete = space.write_sector(sector) && plan->complete;
    }
    plan->complete = space.write_slot(each.slot) && plan->complete;
    plan->decisions.push_back(std::move(decision));
  }
}

// The paths of what stands, by id.
std::map<uint16_t, std::string> paths_of(const evidence& found) {
  std::map<uint16_t, const slot_record*> slots;
  for (const slot_record& each : found.slots) {
    if (each.kind == slot_kind::good && found.is_kept(each.at)) {
      slots[each.slot.entry_fileid] = &each;
    }
  }
  std::map<uint16_t, std::string> paths = {{fileid_root, "/"}};
  for (const auto& [id, slot] : slots) {
    std::string path;
    size_t levels = 0;
    uint16_t at = id;
    while (at != fileid_root && levels++ < max_levels && slots.contains(at)) {
      path.insert(0, "/" + slots[at]->name());
      at = slots[at]->slot.dir_fileid;
    }
    if (at == fileid_root && id != fileid_root) {
      paths[id] = path;
    }
  }
  return paths;
}

// Bytes into the flash of the place that a decision is about.
uint32_t offset_of(const evidence& found, const rescue_decision& about) {
  const block_record& block = found.blocks[*about.block];
  if (!about.sector) {
    return block.offset;
  }
  const uint32_t sector = offset_in_flash(block, static_cast<uint16_t>(*about.sector));
  return about.slot ? static_cast<uint32_t>(sector + offsetof(flashfs_sector, slots) +
                                            *about.slot * sizeof(flashfs_dir_slot))
                    : sector;
}

// Gives each decision the path of what it is about, as it is in the end, and its offset, and keeps
// one of equal ones: what is gone through twice is decided twice.
void finish_decisions(const evidence& found, std::vector<rescue_decision>* decisions) {
  const std::map<uint16_t, std::string> paths = paths_of(found);
  using place = std::optional<uint32_t>;
  std::set<std::tuple<std::string, place, place, place, uint16_t, std::string>> known;
  std::vector<rescue_decision> kept;
  for (rescue_decision& each : *decisions) {
    if (!known.insert({each.code, each.block, each.sector, each.slot, each.fileid, each.what})
             .second) {
      continue;
    }
    const auto path = paths.find(each.fileid);
    if (path != paths.end()) {
      each.path = path->second;
    } else if (filename_illegal_char(each.path.c_str()) != 0) {
      each.path.clear();  // a name that was never whole
    }
    if (each.block) {
      each.offset = offset_of(found, each);
    }
    kept.push_back(std::move(each));
  }
  *decisions = std::move(kept);
}

}  // namespace

const char* certainty_text(certainty value) {
  switch (value) {
    case certainty::proved:
      return "proved";
    case certainty::supported:
      return "supported";
    case certainty::guessed:
      break;
  }
  return "guessed";
}

rescue_plan plan_rescue(std::span<const uint8_t> bytes, std::span<const flash_block_info> blocks,
                        const rescue_options& options) {
  rescue_plan plan;
  flash_copy flash(bytes);
  bool may_write = true;
  plan.complete = false;
  for (int round = 0; round < max_rounds && !plan.complete; round++) {
    const size_t steps = flash.steps().size();
    const bool done = rescue_round(&flash, blocks, options, may_write, &plan).run();
    const bool changed = flash.steps().size() != steps;
    plan.complete = done && !changed;
    may_write = may_write && (done || changed);
  }
  if (options.deleted && plan.complete) {
    return_deleted(&flash, blocks, options, &plan);
  }
  evidence mended = read_evidence(flash.bytes(), blocks);
  std::vector<rescue_decision> none;
  judge_blocks(&mended, &none);
  finish_decisions(mended, &plan.decisions);
  plan.steps = flash.take_steps();
  plan.mended = flash.take_bytes();
  return plan;
}

}  // namespace image

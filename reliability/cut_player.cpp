// Cuts the power, or cuts it on copies of a flash that is being changed.
#include "reliability/cut_player.h"

#include <cstring>

#include "flashfs/check_flags.h"
#include "reliability/left_flash.h"

namespace reliability {

namespace {

constexpr sim::cut_kind kinds[] = {sim::cut_kind::before, sim::cut_kind::during,
                                   sim::cut_kind::during_noise};
constexpr uint64_t variants_of_torn_words = 8;
// So many mutations are watched in one run; what their cuts leave is held in memory.
constexpr size_t mutations_in_run = 32;

bool decides(place where) {
  return where == place::header_state || where == place::sector_claim ||
         where == place::sector_invalidation || where == place::slot_deletion;
}

uint64_t seed_of(const planned_cut& planned) {
  return planned.mutation + (planned.variant << 32);
}

}  // namespace

cut_player::cut_player(const operation& what) : what_(what), rig_(what.blocks), copy_(what.blocks) {
  rig_.restore({});
  {
    const rig::capture quiet(rig_);
    what.prepare(rig_);
  }
  expected_.before = rig_.walk();
  rig_.unmount();
  if (what.damage) {
    what.damage(rig_);
  }
  start_ = rig_.snapshot();
  play({0, sim::cut_kind::before});
  mutations_ = rig_.supply().mutations();
  expected_.after = rig_.walk();
}

// The prepared flash, mounted unless the operation is a check.
void cut_player::begin() {
  rig_.restore(start_);
  rig_.supply().restore();
  if (what_.damage) {
    rig_.register_only();
  } else {
    rig_.mount(flashfs_check_full);
  }
  rig_.supply().restore();
}

void cut_player::begin_check(const std::vector<uint8_t>& contents) {
  rig_.restore(contents);
  rig_.register_only();
  rig_.supply().restore();
}

void cut_player::play(planned_cut planned) {
  begin();
  cut_during(planned, [&] { what_.act(rig_); });
}

void cut_player::play_check(const std::vector<uint8_t>& contents, uint32_t flags,
                            planned_cut planned) {
  begin_check(contents);
  cut_during(planned, [&] { rig_.check(flags); });
}

void cut_player::cut_during(planned_cut planned, const std::function<void()>& act) {
  const rig::capture quiet(rig_);
  if (planned.mutation == 0) {
    edges_.clear();
    rig_.device().note_edges(&edges_);
    act();
    rig_.device().note_edges(nullptr);
    return;
  }
  rig_.supply().cut_at(planned.mutation, planned.kind, seed_of(planned));
  act();
  rig_.supply().restore();
  rig_.unmount();
}

void cut_player::try_cuts(const std::set<uint64_t>& mutations, std::unordered_set<uint64_t>* seen,
                          const taker& take) {
  watch(mutations, seen, take, [&] {
    begin();
    const rig::capture quiet(rig_);
    what_.act(rig_);
  });
}

void cut_player::try_cuts_of_check(const std::vector<uint8_t>& contents, uint32_t flags,
                                   const std::set<uint64_t>& mutations,
                                   std::unordered_set<uint64_t>* seen, const taker& take) {
  watch(mutations, seen, take, [&] {
    begin_check(contents);
    rig_.check(flags);
  });
}

// Runs as often as it takes; what was left is handed on between two runs, when the rig is free.
void cut_player::watch(const std::set<uint64_t>& mutations, std::unordered_set<uint64_t>* seen,
                       const taker& take, const std::function<void()>& run) {
  for (auto first = mutations.begin(); first != mutations.end();) {
    std::set<uint64_t> watched;
    for (; first != mutations.end() && watched.size() < mutations_in_run; ++first) {
      watched.insert(*first);
    }
    std::vector<cut_flash> left;
    rig_.device().watch([&](const sim::mutation& next) {
      if (watched.count(rig_.supply().mutations() + 1) != 0) {
        cut_copies(next, seen, &left);
      }
    });
    run();
    rig_.device().watch({});
    rig_.supply().restore();
    rig_.unmount();
    for (const cut_flash& each : left) {
      take(each);
    }
  }
}

void cut_player::cut_copies(const sim::mutation& next, std::unordered_set<uint64_t>* seen,
                            std::vector<cut_flash>* left) {
  place where = place::erase;
  for (const sim::cut_kind kind : kinds) {
    if (kind == sim::cut_kind::during_noise && where != place::erase) {
      continue;
    }
    const uint64_t variants =
        kind == sim::cut_kind::during && decides(where) ? variants_of_torn_words : 1;
    for (uint64_t variant = 0; variant < variants; variant++) {
      const planned_cut planned = {rig_.supply().mutations() + 1, kind, variant};
      cut_copy(planned, next);
      const cut made = look_at_cut(planned.mutation, kind, copy_);
      where = made.where;
      // A word that came out whole is the same as a cut before it or before the next one.
      if ((kind == sim::cut_kind::before || made.torn) &&
          seen->insert(hash_of(copy_.bytes(), copy_.flash().size())).second) {
        left->push_back({planned, made, copy_.flash().snapshot()});
      }
    }
  }
}

void cut_player::cut_copy(planned_cut planned, const sim::mutation& next) {
  memcpy(copy_.bytes(), rig_.device().bytes(), copy_.flash().size());
  copy_.supply().restore();
  copy_.supply().cut_at(1, planned.kind, seed_of(planned));
  if (next.is_erase) {
    copy_.erase(next.offset);
  } else {
    copy_.flash().program16(next.offset, next.wanted);
  }
  copy_.supply().restore();
}

}  // namespace reliability

// Plays one operation again and again, with the power cut, and keeps what the cuts leave.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <unordered_set>
#include <vector>

#include "reliability/cut_causes.h"
#include "reliability/judge.h"
#include "reliability/power_cuts.h"
#include "reliability/rig.h"
#include "sim/flash.h"
#include "tests/support/ram_flash.h"

namespace reliability {

// What a cut leaves on flash.
struct cut_flash {
  planned_cut planned;
  cut where;
  std::vector<uint8_t> contents;
};

class cut_player {
 public:
  explicit cut_player(const operation& what);

  // Of the operation without a cut.
  uint64_t mutations() const {
    return mutations_;
  }
  // The first and the last mutation of each of its driver calls.
  const std::set<uint64_t>& edges() const {
    return edges_;
  }
  const states& expected() const {
    return expected_;
  }
  rig& flash() {
    return rig_;
  }

  // Runs the operation on the prepared flash with the power failing at one of its mutations (0: at
  // none). After a cut the flash is unmounted and has its power back.
  void play(planned_cut planned);
  // The same for the check of a flash.
  void play_check(const std::vector<uint8_t>& contents, uint32_t flags, planned_cut planned);

  // Takes what cuts leave, in the order of the mutations, if it does not stand in `seen` yet.
  using taker = std::function<void(const cut_flash&)>;
  // Tries every cut at each of some mutations of the operation: before it, in the middle of an
  // erase in two ways, and in the middle of a word that decides what a record is in several. The
  // operation is not cut for this: its flash is copied just before the mutation, and the copy is
  // cut there.
  void try_cuts(const std::set<uint64_t>& mutations, std::unordered_set<uint64_t>* seen,
                const taker& take);
  // The same for the check of a flash.
  void try_cuts_of_check(const std::vector<uint8_t>& contents, uint32_t flags,
                         const std::set<uint64_t>& mutations, std::unordered_set<uint64_t>* seen,
                         const taker& take);

 private:
  void begin();
  void begin_check(const std::vector<uint8_t>& contents);
  void cut_during(planned_cut planned, const std::function<void()>& act);
  void watch(const std::set<uint64_t>& mutations, std::unordered_set<uint64_t>* seen,
             const taker& take, const std::function<void()>& run);
  void cut_copies(const sim::mutation& next, std::unordered_set<uint64_t>* seen,
                  std::vector<cut_flash>* left);
  void cut_copy(planned_cut planned, const sim::mutation& next);

  const operation& what_;
  rig rig_;
  test_support::ram_flash copy_;
  std::vector<uint8_t> start_;
  states expected_;
  uint64_t mutations_ = 0;
  std::set<uint64_t> edges_;
};

}  // namespace reliability

// The sectors of one file while the rescue decides about them: which stand, in which order they
// were written as far as their places tell, what stood before them, and what is chosen.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_list_change.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

struct file_records {
  std::vector<const sector_record*> standing;    // good, in blocks that are kept
  std::vector<const sector_record*> unfinished;  // claimed or half-written for it, there
  // Obsolete or torn so, in any block, by their numbers.
  std::map<uint16_t, std::vector<const sector_record*>> old;
  std::vector<const sector_record*> damaged;  // whole, and not good
  size_t old_count = 0;
};

// The records that stand for each number: several where they differ, until one is chosen.
class file_list {
 protected:
  file_list(const evidence& found, uint16_t fileid, const file_records& records,
            const list_options& options);

  // --- what is in them ---

  const flashfs_sector* bytes(const sector_record* record) const;
  bool equal(const sector_record* one, const sector_record* other) const;
  // Whether `part` is the beginning of `whole`, and shorter.
  bool begins(const sector_record* part, const sector_record* whole) const;

  // --- places ---

  // The record so many places further on in its block; null beyond its ends.
  const sector_record* neighbour(const sector_record* record, int step) const;
  bool is_own_data(const sector_record* record) const;
  bool is_own_unfinished(const sector_record* record) const;
  // Whether all behind it is erased, but for a claim that may be the file's own, torn.
  bool all_erased_behind(const sector_record* record) const;
  // Whether it can have been the last data written: nothing below it is erased, and nothing but
  // slots, which a check may have written since, stands behind it.
  bool is_newest_data(const sector_record* record) const;
  // The file's sector with the next number where it was written right behind this one: in the next
  // place, or, at the end of a block, where another one goes on. Null when none can be told.
  const sector_record* written_behind(const sector_record* record) const;
  // The file's sector that was written right before this one, as far as it can be told.
  const sector_record* written_before(const sector_record* record) const;

  // --- what is chosen ---

  rescue_decision& note(const char* code, certainty sure, const sector_record* about,
                        const std::string& what, const std::string& evidence_text,
                        const std::string& alternatives = "");
  void drop(const sector_record* record);
  void drop_number(uint16_t number);
  // What was to be put back for the number is not.
  void forget_write(uint16_t number);
  // The highest numbers first: what a cut in between leaves is still a list without gaps.
  void drop_behind(uint32_t number);
  void drop_all(const std::string& why);
  // Drops those that were equal to one that stands.
  void forget_equal();
  // The record that is to stand for a number: one that stands, or a copy of an old one.
  void choose(uint16_t number, const sector_record* chosen);
  // Null when nothing stands for the number.
  const sector_record* chosen_of(uint16_t number) const;

  // --- what stood before ---

  // The old sector of a number that what was found speaks for; null without any. `replaced` is the
  // sector that took its place, if one did.
  const sector_record* find_old(uint16_t number, const sector_record* replaced,
                                certainty* sure) const;

  const evidence& found_;
  const file_records& records_;
  const list_options& options_;
  list_change change_;
  std::map<uint16_t, std::vector<const sector_record*>> list_;

 private:
  void add_standing(const sector_record* record);
  bool is_at_frontier(const sector_record* record) const;
  bool goes_on_behind(const sector_record* record) const;
  bool follows(const sector_record* record, int step, const sector_record* wanted) const;
  int weight_of(const sector_record* option, uint16_t number, const sector_record* replaced) const;
  uint32_t equal_bytes(const sector_record* one, const sector_record* other) const;

  std::vector<const sector_record*> drops_of_equal_;
};

}  // namespace image::rescuing

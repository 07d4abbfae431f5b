// What every operation does on flash that answers, with no cut and no failure: the words that
// change and the blocks that are erased, in order, what it answers and prints, and what then stands
// in memory; the same of the checks before and after it. Compared with what is stored in
// tests/golden/changes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "reliability/faults.h"
#include "reliability/rig_fixture.h"
#include "tests/support/change_record.h"
#include "tests/support/golden.h"

namespace {

using namespace reliability;

class changes : public rig_fixture {
 protected:
  // The rows of one operation: a row for each phase of it.
  void record(const operation& what, std::vector<std::string>* rows) {
    rig_ = std::make_unique<rig>(what.blocks);
    rig_->restore({});
    test_support::change_record record;
    record.watch(rig_->device());
    const auto end_phase = [&](const char* phase) {
      record.add_text(rig_->take_output());
      add_tree(&record);
      record.add_text(rig_->take_output());
      record.add_memory(*rig_->fs());
      rows->push_back(what.name + " | " + phase + " | " + record.take());
    };
    prepare(what);
    end_phase("prepared");
    rig_->unmount();
    if (what.damage) {
      what.damage(*rig_);
      rig_->register_only();
    } else {
      record.add_answer(rig_->mount(flashfs_check_full), errno);
    }
    end_phase("mounted");
    record.add_answer(act(what), errno);
    end_phase("done");
    rig_->unmount();
    const std::vector<uint8_t> left = rig_->snapshot();
    record.add_answer(rig_->mount(flashfs_check_quick), errno);
    end_phase("quick check");
    rig_->unmount();
    rig_->restore(left);
    record.add_answer(rig_->mount(flashfs_check_full), errno);
    end_phase("full check");
  }

 private:
  void prepare(const operation& what) {
    const rig::capture quiet(*rig_);
    what.prepare(*rig_);
  }
  int32_t act(const operation& what) {
    const rig::capture quiet(*rig_);
    errno = 0;
    return what.act(*rig_);
  }
  void add_tree(test_support::change_record* record) {
    for (const auto& [path, node] : rig_->walk()) {
      record->add_text(path);
      record->add_answer(node.mode, 0);
      record->add_answer(static_cast<int32_t>(node.date & INT32_MAX), 0);
      record->add_text(node.content);
    }
  }
};

TEST_F(changes, of_every_operation_are_those_stored) {
  std::vector<std::string> rows;
  for (const fault_operation& each : fault_operations()) {
    record(each.what, &rows);
  }
  test_support::expect_golden_rows("changes/operations.txt", rows);
}

}  // namespace

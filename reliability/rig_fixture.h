// A test that has a rig, mounts what stands on its flash and looks at what that says and leaves.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "reliability/rig.h"
#include "sim/chassis.h"

namespace reliability {

class rig_fixture : public testing::Test {
 protected:
  rig_fixture() {
    constexpr int64_t standing_clock = 1800000000;
    chassis_.clock_hold(standing_clock);
    sim::install_chassis(&chassis_);
  }
  ~rig_fixture() override {
    rig_.reset();
    sim::install_chassis(nullptr);
  }

  // Mounts what the flash holds; what that prints is kept.
  int32_t mount(uint32_t flags) {
    const int32_t result = rig_->mount(flags);
    printed_ = rig_->take_output();
    return result;
  }
  bool printed(const char* text) const {
    return printed_.find(text) != std::string::npos;
  }
  std::string content_of(const char* path) {
    const tree found = rig_->walk();
    const auto node = found.find(path);
    return node == found.end() ? "<absent>" : node->second.content;
  }

  sim::chassis chassis_;
  std::unique_ptr<rig> rig_;
  std::string printed_;
};

}  // namespace reliability

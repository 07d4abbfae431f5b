// Chooses random steps that mostly make sense for the present state of a model.
#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "tests/model/fs_model.h"
#include "tests/model/model_operation.h"

namespace model_test {

enum class fullness {
  loose,  // files come and go
  tight,  // the device is kept 90 to 100 % full
};

class step_generator {
 public:
  step_generator(uint64_t seed, fullness how) : random_(seed), how_(how) {}
  step next(const fs_model& model);

 private:
  int64_t below(int64_t limit) {
    return static_cast<int64_t>(random_() % static_cast<uint64_t>(limit));
  }
  bool chance(int percent) {
    return below(100) < percent;
  }
  step_kind choose_kind(const fs_model& model);
  step_kind choose_kind_for_space(const fs_model& model);
  void fill(const fs_model& model, step* one);
  std::string name();
  std::string with_name(std::string path);
  std::string existing(const fs_model& model, int directory_percent);
  std::string fresh(const fs_model& model);
  std::string odd_path(const fs_model& model);
  std::string some_path(const fs_model& model, int existing_percent, int directory_percent);
  int64_t open_flags();
  int64_t length(const fs_model& model);
  int64_t position(const fs_model& model, uint32_t handle);
  uint32_t open_handle(const fs_model& model);
  // A handle on which a directory is open.
  uint32_t directory_handle(const fs_model& model, uint32_t otherwise);
  uint32_t free_handle(const fs_model& model);

  std::mt19937_64 random_;
  fullness how_;
  step last_;
};

}  // namespace model_test

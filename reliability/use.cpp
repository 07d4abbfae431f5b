// Uses a recovered flash.
#include "reliability/use.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/format.h"
#include "ifs/ifs.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace reliability {

namespace {

constexpr const char* new_path = "use.new";
constexpr size_t new_length = 3000;
constexpr uint32_t new_seed = 77;
// More than there are sectors on any of the flashes.
constexpr int most_rewrites = 100;

bool is_readable_file(const tree_node& node) {
  return is_regular_mode(node.mode) && !node.content.empty() && node.content.front() != '<';
}

class user {
 public:
  explicit user(rig& flash) : flash_(flash), start_(flash.snapshot()), model_(flash.walk()) {}

  use_result run() {
    make_file();
    overwrite();
    remove();
    write_until_reclaimed();
    compare();
    flash_.unmount();
    flash_.restore(start_);
    return result_;
  }

 private:
  // Whether a step was done. Without space it need not be.
  bool done(const char* step, int32_t result) {
    if (result >= 0) {
      return true;
    }
    if (errno == ENOSPC) {
      result_.short_of_room = true;
    } else {
      result_.fails = true;
      result_.story += std::string("  ") + step + ": errno " + std::to_string(errno) + "\n";
    }
    return false;
  }

  void make_file() {
    const std::string content = pattern(new_length, new_seed);
    undated_.insert(new_path);
    if (done("new file", flash_.make_file(new_path, content))) {
      model_[new_path] = {.mode = mode_of(new_path), .content = content};
    } else {
      static_cast<void>(remove_path(new_path));  // if it came so far as to have a name
    }
  }

  void overwrite() {
    for (auto& [path, node] : model_) {
      if (path != new_path && is_readable_file(node)) {
        overwritten_ = path;
        rewrite(path, &node, "overwrite", "UV");
        return;
      }
    }
  }

  void remove() {
    for (auto node = model_.rbegin(); node != model_.rend(); ++node) {
      if (node->first != new_path && node->first != overwritten_ &&
          is_readable_file(node->second)) {
        const std::string path = node->first;
        if (done("removal", remove_path(path))) {
          model_.erase(path);
        }
        return;
      }
    }
  }

  void write_until_reclaimed() {
    const std::string path = model_.count(new_path) != 0 ? new_path : overwritten_;
    const auto node = model_.find(path);
    if (node == model_.end()) {
      return;
    }
    flash_.device().clear_counts();
    for (int i = 0; i < most_rewrites && !result_.reclaimed && !result_.fails; i++) {
      if (!rewrite(path, &node->second, "rewriting", {static_cast<char>('a' + i % 26), '!'})) {
        return;
      }
      result_.reclaimed = flash_.device().counts().erases != 0;
    }
  }

  // Two bytes in the middle.
  bool rewrite(const std::string& path, tree_node* node, const char* step,
               const std::string& bytes) {
    const size_t position = node->content.size() / 2;
    undated_.insert(path);
    if (!done(step, flash_.write(path, bytes, ifs_open_write, static_cast<int32_t>(position)))) {
      return false;
    }
    node->content.replace(position, bytes.size(), bytes);
    return true;
  }

  void compare() {
    expect(flash_.walk(), "in memory");
    flash_.unmount();
    const std::vector<uint8_t> used = flash_.snapshot();
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      const char* where = flags == flashfs_check_quick ? "quick check" : "full check";
      flash_.restore(used);
      if (flash_.mount(flags) != 0) {
        result_.differs = true;
        result_.story += std::string("  ") + where + " refuses\n";
        continue;
      }
      expect(flash_.walk(), where);
      flash_.unmount();
    }
  }

  void expect(const tree& found, const char* where) {
    const std::string difference = difference_of_trees(found, model_, undated_);
    if (!difference.empty()) {
      result_.differs = true;
      result_.story += std::string("  ") + where + ":\n" + difference;
    }
  }

  int32_t remove_path(const std::string& path) {
    const rig::capture quiet(flash_);
    return flash_.files().remove(path);
  }

  uint16_t mode_of(const std::string& path) {
    const rig::capture quiet(flash_);
    ppc_stat status = {};
    return flash_.files().stat(path, &status) == 0 ? status.mode : uint16_t{0};
  }

  rig& flash_;
  const std::vector<uint8_t> start_;
  tree model_;
  std::set<std::string> undated_;
  std::string overwritten_;
  use_result result_;
};

std::string text_of(const tree_node& node) {
  return "mode " + std::to_string(node.mode) + ", date " + std::to_string(node.date) + ", " +
         std::to_string(node.content.size()) + " bytes";
}

}  // namespace

use_result use_flash(rig& flash) {
  return user(flash).run();
}

std::string difference_of_trees(const tree& now, const tree& expected,
                                const std::set<std::string>& undated) {
  std::string text;
  for (const auto& [path, node] : expected) {
    const auto found = now.find(path);
    if (found == now.end()) {
      text += "    " + path + " is gone\n";
    } else if (found->second.mode != node.mode || found->second.content != node.content ||
               (found->second.date != node.date && is_regular_mode(node.mode) &&
                undated.count(path) == 0)) {
      text += "    " + path + " has " + text_of(found->second) + ", not " + text_of(node) + "\n";
    }
  }
  for (const auto& [path, node] : now) {
    if (expected.count(path) == 0) {
      text += "    " + path + " was made by nobody\n";
    }
  }
  return text;
}

}  // namespace reliability

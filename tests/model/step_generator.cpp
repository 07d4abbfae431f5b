// The weights of the steps and where their arguments come from: existing entries, fresh names in
// existing directories, and a share of everything that must be refused.
#include "tests/model/step_generator.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <map>
#include <type_traits>
#include <utility>
#include <vector>

#include "flashfs/flashfs.h"

namespace model_test {

namespace {

struct weighted_kind {
  step_kind kind;
  int weight;
};

constexpr weighted_kind weights[] = {
    {step_kind::open, 160},       {step_kind::open_by_id, 12},    {step_kind::close, 110},
    {step_kind::read, 110},       {step_kind::write, 200},        {step_kind::seek, 80},
    {step_kind::truncate, 40},    {step_kind::getdents, 50},      {step_kind::fstat, 15},
    {step_kind::fverify, 8},      {step_kind::file_name, 8},      {step_kind::file_info, 8},
    {step_kind::file_control, 3}, {step_kind::chmod, 25},         {step_kind::remove, 50},
    {step_kind::rename, 60},      {step_kind::mkdir, 45},         {step_kind::rmdir, 30},
    {step_kind::stat, 30},        {step_kind::istat, 10},         {step_kind::statfs, 12},
    {step_kind::verify, 8},       {step_kind::highest_id, 5},     {step_kind::path_control, 2},
    {step_kind::format, 1},       {step_kind::check, 8},          {step_kind::remount, 6},
    {step_kind::raw_copy, 2},     {step_kind::advance_clock, 25}, {step_kind::compare, 1},
};

const char* const names[] = {"a",  "b",  "c",    "d",          "e",   "f",     "g", "h",
                             "k1", "k2", "k3",   "k4",         "k5",  "k6",    "A", "file.bin",
                             "..", ".",  "....", "lost+found", "x-y", "00002", "~", "#%$&*()"};

const char* const illegal_names[] = {"a b",  "a:b",   "a;b",  "a\\b",     "\"q\"",
                                     "it's", "tab\t", "\x7f", "\x80high", "back`tick"};

std::string slashes(int64_t count) {
  return std::string(static_cast<size_t>(count), '/');
}

}  // namespace

std::string step_generator::name() {
  const int64_t kind = below(100);
  if (kind < 3) {
    return std::string(45, static_cast<char>('p' + below(3)));
  }
  if (kind < 5) {
    return std::string(static_cast<size_t>(46 + below(3)), 'q');
  }
  if (kind < 7) {
    return illegal_names[below(std::size(illegal_names))];
  }
  return names[below(std::size(names))];
}

// A name is drawn behind what it goes into: compilers differ in which of two operands comes first.
std::string step_generator::with_name(std::string path) {
  path += "/";
  return path += name();
}

std::string step_generator::existing(const fs_model& model, int directory_percent) {
  std::vector<uint16_t> candidates;
  const bool directory = chance(directory_percent);
  for (const auto& [fileid, entry] : model.entries()) {
    if (entry.is_directory() == directory) {
      candidates.push_back(fileid);
    }
  }
  if (candidates.empty()) {
    return "/";
  }
  const auto index = static_cast<size_t>(below(static_cast<int64_t>(candidates.size())));
  std::string path = model.path_of(candidates[index]);
  if (chance(30)) {
    path.erase(0, 1);
    if (path.empty()) {
      path = "/";
    }
  }
  return path;
}

std::string step_generator::fresh(const fs_model& model) {
  std::string path = existing(model, chance(95) ? 100 : 0);
  if (path.back() != '/') {
    path += slashes(chance(5) ? 2 : 1);
  }
  path += name();
  return chance(3) ? path + "/" : path;
}

// Paths that no entry has, or that are not to be had.
std::string step_generator::odd_path(const fs_model& model) {
  switch (below(6)) {
    case 0:
      return "";
    case 1:
      return slashes(1 + below(3));
    case 2:
      return with_name(fresh(model));
    case 3:
      return with_name(with_name(name()));
    case 4: {
      // An existing or fresh name behind so many slashes that the path has 319 or 320 bytes.
      const std::string path = chance(50) ? existing(model, 30) : fresh(model);
      const auto wanted = static_cast<size_t>(319 + below(2));
      return path.size() < wanted ? std::string(wanted - path.size(), '/') + path : path;
    }
    default:
      return std::string(static_cast<size_t>(318 + below(4)), 'z');
  }
}

std::string step_generator::some_path(const fs_model& model, int existing_percent,
                                      int directory_percent) {
  const int64_t kind = below(100);
  if (kind < 4) {
    return odd_path(model);
  }
  return kind < 4 + existing_percent ? existing(model, directory_percent) : fresh(model);
}

int64_t step_generator::open_flags() {
  if (chance(25)) {
    // Every combination of the six.
    int64_t flags = 0;
    for (const uint32_t flag : {ifs_open_read, ifs_open_write, ifs_open_append, ifs_open_create,
                                ifs_open_truncate, ifs_open_exclusive}) {
      flags |= chance(50) ? int64_t{flag} : 0;
    }
    return flags;
  }
  constexpr int64_t both = ifs_open_read | ifs_open_write;
  static constexpr int64_t usual[] = {
      ifs_open_read,
      ifs_open_read,
      both | ifs_open_create,
      both,
      both | ifs_open_create | ifs_open_append,
      ifs_open_write | ifs_open_append | ifs_open_create | ifs_open_truncate,
      both | ifs_open_create | ifs_open_truncate,
      both | ifs_open_create | ifs_open_exclusive,
  };
  return usual[below(std::size(usual))];
}

int64_t step_generator::length(const fs_model& model) {
  const int64_t free_bytes =
      std::max<int64_t>(0, model.free_slots() / slots_per_sector * int64_t{sector_data_size});
  static constexpr int64_t edges[] = {0, 1, 2, 2046, 2047, 2048, 2049, 4095, 4096, 4097};
  const int64_t kind = below(100);
  const bool fills = how_ == fullness::tight &&
                     model.free_slots() * 10 > int64_t{model.total_sectors()} * slots_per_sector;
  if (kind < 35 && fills) {
    return std::min<int64_t>(free_bytes, 4 << 20);
  }
  if (kind < 35) {
    return edges[below(std::size(edges))];
  }
  if (kind < 70) {
    return below(600);
  }
  if (kind < 95 || how_ == fullness::loose) {
    return below(std::min<int64_t>(5 * 2048, free_bytes / 2 + 2048) + 1);
  }
  return std::min<int64_t>(free_bytes + below(6000), 4 << 20);
}

int64_t step_generator::position(const fs_model& model, uint32_t handle) {
  const model_descriptor& descriptor = model.descriptor(handle);
  const model_entry* entry = descriptor.is_open ? model.find(descriptor.fileid) : nullptr;
  const auto size = entry == nullptr ? int64_t{0} : int64_t{entry->size()};
  if (entry != nullptr && entry->is_directory() && chance(70)) {
    return below(size / 64 + 2) * 64;
  }
  const int64_t kind = below(100);
  if (kind < 60) {
    return below(size + 1);
  }
  if (kind < 75) {
    const int64_t sector_start = below(size / 2048 + 2) * 2048;
    return sector_start + below(3) - 1;
  }
  if (kind < 85) {
    return below(10) * 64;
  }
  if (kind < 97) {
    return size + below(how_ == fullness::tight ? 9000 : 4000);
  }
  return kind == 97 ? INT32_MAX - below(3) : size + below(200000);
}

uint32_t step_generator::open_handle(const fs_model& model) {
  const auto first = static_cast<uint32_t>(below(handle_count));
  if (chance(97)) {
    for (uint32_t i = 0; i < handle_count; ++i) {
      if (model.descriptor((first + i) % handle_count).is_open) {
        return (first + i) % handle_count;
      }
    }
  }
  return first;
}

uint32_t step_generator::directory_handle(const fs_model& model, uint32_t otherwise) {
  for (uint32_t handle = 0; handle < handle_count; ++handle) {
    const model_descriptor& descriptor = model.descriptor(handle);
    const model_entry* entry = descriptor.is_open ? model.find(descriptor.fileid) : nullptr;
    if (entry != nullptr && entry->is_directory()) {
      return handle;
    }
  }
  return otherwise;
}

uint32_t step_generator::free_handle(const fs_model& model) {
  for (uint32_t handle = 0; handle < handle_count; ++handle) {
    if (!model.descriptor(handle).is_open) {
      return handle;
    }
  }
  return 0;
}

// Steers a tight run: takes space in large pieces while a tenth is free, then in small ones, and
// near the end wavers between taking and giving.
step_kind step_generator::choose_kind_for_space(const fs_model& model) {
  const int64_t all = int64_t{model.total_sectors()} * slots_per_sector;
  if (model.free_slots() * 10 > all && model.free_slots() > 3 * int64_t{slots_per_sector}) {
    return chance(80) ? step_kind::write : step_kind::open;
  }
  static constexpr step_kind near_the_end[] = {
      step_kind::remove, step_kind::truncate, step_kind::mkdir, step_kind::mkdir,
      step_kind::mkdir,  step_kind::open,     step_kind::open,  step_kind::write,
      step_kind::chmod,  step_kind::rename};
  return near_the_end[below(std::size(near_the_end))];
}

step_kind step_generator::choose_kind(const fs_model& model) {
  const int open = model.open_count();
  if (open == static_cast<int>(handle_count) || (!model.ready() && open > 0 && chance(60))) {
    return step_kind::close;
  }
  if (model.down() && open == 0 && chance(50)) {
    return chance(50) ? step_kind::check : step_kind::remount;
  }
  if (how_ == fullness::tight && model.ready() && open > 0 && chance(40)) {
    return choose_kind_for_space(model);
  }
  int total = 0;
  for (const weighted_kind& each : weights) {
    total += each.weight;
  }
  int64_t point = below(total);
  for (const weighted_kind& each : weights) {
    point -= each.weight;
    if (point < 0) {
      return each.kind;
    }
  }
  return step_kind::compare;
}

step step_generator::next(const fs_model& model) {
  step one;
  one.kind = choose_kind(model);
  // Descriptors that stay open keep checks and formats away.
  if (model.open_count() > 5 && chance(20)) {
    one.kind = step_kind::close;
  }
  if (one.kind == step_kind::format && chance(70)) {
    one.kind = step_kind::check;
  }
  // Places that a descriptor remembers are tried by going on, and by going elsewhere.
  const bool stays = (last_.kind == step_kind::getdents || last_.kind == step_kind::seek) &&
                     model.descriptor(last_.handle).is_open && chance(50);
  if (stays) {
    static constexpr step_kind going_on[] = {step_kind::getdents, step_kind::getdents,
                                             step_kind::seek, step_kind::read, step_kind::write};
    one.kind = going_on[below(std::size(going_on))];
  }
  fill(model, &one);
  if (stays) {
    one.handle = last_.handle;
    if (one.kind == step_kind::seek) {
      one.a = position(model, one.handle);
      one.b = 0;
    }
  }
  last_ = one;
  return one;
}

void step_generator::fill(const fs_model& model, step* one) {
  one->handle = open_handle(model);
  if (chance(one->kind == step_kind::getdents ? 70 : one->kind == step_kind::seek ? 20 : 0)) {
    one->handle = directory_handle(model, one->handle);
  }
  switch (one->kind) {
    case step_kind::open:
      one->handle = free_handle(model);
      one->a = open_flags();
      one->b = below(0x10000);
      one->path = some_path(model, 60, 20);
      if (chance(1)) {
        one->path = chance(50) ? "..." : "/...";
        one->a = 1;  // opened for writing it erases everything: raw_copy does that
      }
      break;
    case step_kind::open_by_id:
      one->handle = free_handle(model);
      one->a = chance(95) ? below(int64_t{model.entries().rbegin()->first} + 2) : 65534 + below(4);
      one->b = chance(60) ? 1 : open_flags();
      break;
    case step_kind::write:
      one->a = chance(1) ? INT32_MAX - below(3000) : length(model);
      one->b = below(1 << 20);
      break;
    case step_kind::read:
      one->a = chance(20) ? below(60000) : length(model);
      break;
    case step_kind::seek:
      one->b = chance(97) ? below(3) : below(8) - 3;
      one->a = one->b == 0 ? position(model, one->handle) : below(6000) - 3000;
      one->a -= chance(2) ? 100000 : 0;
      break;
    case step_kind::truncate:
      one->a = chance(15) ? 0 : position(model, one->handle);
      break;
    case step_kind::getdents:
      one->a = chance(70) ? 76 * (1 + below(3)) : below(800);
      break;
    case step_kind::file_control:
      one->a = 2 + below(4);
      break;
    case step_kind::path_control:
      one->a = 99 + below(3);
      break;
    case step_kind::chmod:
      one->path = some_path(model, 90, 30);
      one->a = below(0x10000);
      break;
    case step_kind::remove:
      one->path = some_path(model, 88, 8);
      break;
    case step_kind::rename:
      one->path = some_path(model, 92, 35);
      one->second_path = some_path(model, 8, 50);
      break;
    case step_kind::mkdir:
      one->path = some_path(model, 5, 50);
      one->a = below(0x10000);
      break;
    case step_kind::rmdir:
      one->path = some_path(model, 90, 92);
      break;
    case step_kind::istat:
      one->path = chance(95) ? "/" : "";
      one->a = below(int64_t{model.entries().rbegin()->first} + 1) + 1;
      if (model.find(static_cast<uint16_t>(one->a)) == nullptr && chance(80)) {
        one->a = 1;
      }
      break;
    case step_kind::stat:
    case step_kind::statfs:
    case step_kind::verify:
    case step_kind::highest_id:
      one->path = some_path(model, 85, 40);
      break;
    case step_kind::format:
      one->a = chance(50) ? 6 : 10;
      break;
    case step_kind::check:
    case step_kind::remount:
      one->a = below(4);
      break;
    case step_kind::raw_copy:
      one->a = chance(50) ? 1 << 20 : 1000 + below(40000);
      break;
    case step_kind::advance_clock:
      one->a = 1 + below(100);
      break;
    default:
      break;
  }
}

}  // namespace model_test

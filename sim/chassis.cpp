// What the nodes share: power, the opening and mapping of devices, and the sums.
#include "sim/chassis.h"

#include <cerrno>
#include <cstring>

namespace sim {

namespace {

struct node_address {
  const char* path;
  uint32_t offset;  // of the window in the device
};

constexpr node_address node_addresses[node_count] = {
    {"/dev/vexmor1", 0x10150000},
    {"/dev/vexmor2", 0x10170000},
};

chassis* current_chassis = nullptr;

}  // namespace

chassis::chassis() : clock_(supply_), nodes_{{supply_, clock_}, {supply_, clock_}} {}

chassis::~chassis() {
  if (current_chassis == this) {
    current_chassis = nullptr;
  }
}

void chassis::power_on() {
  supply_.restore();
  for (cpld& node : nodes_) {
    node.reset();
  }
}

access_counts chassis::counts() const {
  access_counts sum;
  for (const cpld& node : nodes_) {
    sum += node.counts();
  }
  return sum;
}

deviation_counts chassis::deviations() const {
  deviation_counts sum;
  for (const cpld& node : nodes_) {
    sum += node.deviations();
  }
  return sum;
}

void chassis::clear_counts() {
  for (cpld& node : nodes_) {
    node.clear_counts();
  }
  clock_.clear_counts();
}

int chassis::open(const char* path) {
  if (open_error_ != 0) {
    errno = open_error_;
    return -1;
  }
  for (int node = 0; node < node_count; ++node) {
    if (std::strcmp(path, node_addresses[node].path) == 0) {
      node_open_[node] = true;
      opens_++;
      return first_descriptor_ + node;
    }
  }
  errno = ENOENT;
  return -1;
}

int chassis::lock(int fd, bool wait) {
  const int node = fd - first_descriptor_;
  return lock_ && node >= 0 && node < node_count ? lock_(node, wait) : 0;
}

window_base chassis::map(int fd, size_t length, uint32_t offset) {
  const auto failed = reinterpret_cast<window_base>(UINTPTR_MAX);
  if (map_error_ != 0) {
    errno = map_error_;
    return failed;
  }
  const int node = fd - first_descriptor_;
  if (node < 0 || node >= node_count || !node_open_[node]) {
    errno = EBADF;
    return failed;
  }
  if (length != chassis_window_size || offset != node_addresses[node].offset) {
    errno = EINVAL;
    return failed;
  }
  if (map_null_) {
    return nullptr;
  }
  mapped_++;
  return &nodes_[node];
}

int chassis::unmap(window_base base, size_t length) {
  const bool known = base == &nodes_[0] || base == &nodes_[1];
  if (!known || length != chassis_window_size || mapped_ == 0) {
    errno = EINVAL;
    return -1;
  }
  mapped_--;
  return 0;
}

void install_chassis(chassis* installed) {
  current_chassis = installed;
}

chassis* installed_chassis() {
  return current_chassis;
}

}  // namespace sim

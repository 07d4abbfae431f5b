// The simulated chassis: two device nodes (sim/cpld.h) with six flashes behind them, their power
// and the clock, and what the window functions reach of it. The clock and the rules of the
// registers have headers of their own.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "sim/clock.h"
#include "sim/counts.h"
#include "sim/cpld.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "window/window.h"

namespace sim {

constexpr int first_ppc = 3;
constexpr int last_ppc = 8;
constexpr int ppc_count = 6;
constexpr int node_count = 2;
constexpr uint32_t chassis_window_size = 32768;  // bytes

class chassis {
 public:
  chassis();
  ~chassis();  // uninstalls itself
  chassis(const chassis&) = delete;
  chassis& operator=(const chassis&) = delete;

  // The node of a complex, 3 to 8, and the complex's place on it.
  cpld& node_of(int ppc) {
    return nodes_[(ppc - first_ppc) / flashes_per_node];
  }
  static int index_of(int ppc) {
    return (ppc - first_ppc) % flashes_per_node;
  }
  nor_flash& flash(int ppc) {
    return node_of(ppc).flash(index_of(ppc));
  }
  // The window of a complex's node, without opening and mapping it.
  window_base window_of(int ppc) {
    return &node_of(ppc);
  }

  void set_running(int ppc, bool running) {
    node_of(ppc).set_running(index_of(ppc), running);
  }
  void set_ready_never(int ppc, uint64_t after_cycles = 0) {
    node_of(ppc).set_ready_never(index_of(ppc), after_cycles);
  }
  void set_ready_low(int ppc, uint32_t status_reads) {
    node_of(ppc).set_ready_low(index_of(ppc), status_reads);
  }

  // The power of all six flashes and both nodes: plan a cut with supply().cut_at(). When it has
  // failed, every read of a window gives ones, and every read of the clock finds a second gone.
  power& supply() {
    return supply_;
  }
  // Power on after a cut: the flashes live, the nodes are reset.
  void power_on();

  // --- the clock (sim/clock.h; real at first) ---

  void clock_real() {
    clock_.be_real();
  }
  void clock_hold(int64_t seconds) {
    clock_.hold(seconds);
  }
  void clock_step(int64_t seconds, uint32_t reads) {
    clock_.step(seconds, reads);
  }
  // Seconds; counts as a read.
  int64_t clock() {
    return clock_.read();
  }
  uint64_t clock_reads() const {
    return clock_.reads();
  }

  // --- counts, summed over both nodes ---

  access_counts counts() const;
  deviation_counts deviations() const;
  void clear_counts();

  // --- opening and mapping ---

  // The next and all later calls fail with the errno value; 0: they work.
  void fail_open(int error) {
    open_error_ = error;
  }
  void fail_map(int error) {
    map_error_ = error;
  }
  // The descriptor that opening the first node gives; the second node's is the next one.
  void set_first_descriptor(int fd) {
    first_descriptor_ = fd;
  }
  // Mapping gives the null pointer.
  void map_null() {
    map_null_ = true;
  }

  // How a node is locked, as window_lock says; a chassis of its own has nobody to share with and
  // needs none.
  using lock_source = std::function<int(int node, bool wait)>;
  void set_lock(lock_source lock) {
    lock_ = std::move(lock);
  }

  // --- for the window functions: as those of window/window.h ---

  [[nodiscard]] int open(const char* path);
  [[nodiscard]] int lock(int fd, bool wait);
  [[nodiscard]] window_base map(int fd, size_t length, uint32_t offset);
  [[nodiscard]] int unmap(window_base base, size_t length);
  // Windows mapped and not unmapped.
  int mapped() const {
    return mapped_;
  }
  // Calls that have succeeded.
  int opens() const {
    return opens_;
  }

 private:
  power supply_;
  chassis_clock clock_;
  cpld nodes_[node_count];
  lock_source lock_;
  bool node_open_[node_count] = {};
  int open_error_ = 0;
  int map_error_ = 0;
  int first_descriptor_ = 3;  // the first that a program finds free
  bool map_null_ = false;
  int mapped_ = 0;
  int opens_ = 0;
};

// Makes a chassis the one that window_open finds; null takes it away. Without one, window_open
// loads the chassis folder (sim/folder.h).
void install_chassis(chassis* installed);
chassis* installed_chassis();

}  // namespace sim

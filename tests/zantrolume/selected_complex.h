// A simulated chassis with one complex selected for the CPLD driver, as a run of the program would
// select it, and the expected accesses of its command cycles.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/chassis.h"
#include "zantrolume/zantrolume_cpld.h"

namespace zantrolume_test {

using trace = std::vector<sim::traced_access>;

class selected_complex {
 public:
  explicit selected_complex(int ppc) : ppc_(ppc) {
    sim::install_chassis(&chassis_);
    chassis_.clock_hold(1800000000);
    vexmor_mapped_ptr = chassis_.window_of(ppc);
    cpld_flash_access_selection = data(0);
    flash_status_bit = mask();
    verbose_mode = 0;
  }
  selected_complex(const selected_complex&) = delete;
  selected_complex& operator=(const selected_complex&) = delete;

  sim::chassis& chassis() {
    return chassis_;
  }
  sim::cpld& node() {
    return chassis_.node_of(ppc_);
  }
  sim::nor_flash& flash() {
    return chassis_.flash(ppc_);
  }
  uint32_t index() const {
    return static_cast<uint32_t>(sim::chassis::index_of(ppc_));
  }
  uint32_t mask() const {
    return 2U << index();
  }
  // Window offset of a byte of the data window.
  uint32_t data(uint32_t offset) const {
    return 0x4000 + 0x1000 * index() + offset;
  }

  sim::traced_access page(uint32_t number) const {
    return sim::write32(0x20, number);
  }
  sim::traced_access store(uint32_t offset, uint16_t value) const {
    return sim::write16(data(offset), value);
  }
  sim::traced_access load(uint32_t offset, uint16_t value) const {
    return sim::read16(data(offset), value);
  }
  // A read of the status that finds all flashes ready, and one that finds all but this ready.
  sim::traced_access ready() const {
    return sim::read32(0x34, 0xE);
  }
  sim::traced_access busy() const {
    return sim::read32(0x34, 0xE & ~mask());
  }

 private:
  int ppc_;
  sim::chassis chassis_;
};

// Runs a test body on every complex of both nodes.
template <typename body>
void on_each_complex(body&& test) {
  for (int ppc = sim::first_ppc; ppc <= sim::last_ppc; ++ppc) {
    SCOPED_TRACE("PPC " + std::to_string(ppc));
    selected_complex complex(ppc);
    test(complex);
  }
}

}  // namespace zantrolume_test

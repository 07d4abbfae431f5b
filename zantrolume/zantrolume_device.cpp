// Nodes, the selection of a complex, and the standard descriptors.
#include "zantrolume/zantrolume_device.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

#include "zantrolume/zantrolume_cpld.h"

namespace {

constexpr cpld_node first_node = {"/dev/vexmor1", 0x10150000, 3};
constexpr cpld_node second_node = {"/dev/vexmor2", 0x10170000, 6};

}  // namespace

bool zantrolume_is_ppc(int32_t number) {
  return static_cast<uint32_t>(number) - zantrolume_first_ppc < zantrolume_ppc_count;
}

const cpld_node& zantrolume_node_of(int32_t ppc_number) {
  return ppc_number < second_node.first_ppc ? first_node : second_node;
}

uint32_t zantrolume_select_ppc(int32_t ppc_number) {
  const auto index = static_cast<uint32_t>(ppc_number - zantrolume_node_of(ppc_number).first_ppc);
  cpld_flash_access_selection = cpld_data_window + (index << flash_page_shift);
  flash_status_bit = uint32_t{2} << index;
  return index + 1;
}

bool zantrolume_occupy_output_descriptors() {
  for (const int wanted : {STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(wanted, F_GETFD) >= 0) {
      continue;
    }
    // Gives descriptor 0 when that is closed too, which stays as it was.
    const int opened = open("/dev/null", O_RDWR);
    if (opened < 0) {
      return false;
    }
    if (opened != wanted) {
      const bool placed = dup2(opened, wanted) == wanted;
      close(opened);
      if (!placed) {
        return false;
      }
    }
  }
  return true;
}

// The memory of a mount: fills the device, mounts it as a run does, looks a file up, whose
// directory gets its index of names with that, and prints how many bytes of heap that took at most,
// the heap's own part of every piece included.
//
//   bench_memory small|large [<limit>]   small: one-sector files, as many as go in; large: 64 KiB
//                                        files. Exit status 1 beyond the limit in bytes.
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "bench/rig.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "tests/support/image_builder.h"

namespace {

constexpr int blocks = 216;
constexpr int sectors_of_block = 63;

// Every sector in use but the spare's: directory sectors in front, then files of one sector each.
void fill_with_small_files(bench::rig& rig) {
  test_support::image_builder image(rig.flash().bytes(), blocks, 0x20000);
  image.headers(blocks - 1);
  constexpr int sectors = (blocks - 1) * sectors_of_block;
  constexpr int files = (sectors - 1) * 32 / 33 - 32;
  test_support::image_slot root;
  root.dir_fileid = 1;
  root.entry_fileid = 1;
  root.mode = 0x4600;
  image.slot(0, 0, 0, root);
  constexpr int first_data = files / 32 + 1;
  for (int i = 0; i < files; ++i) {
    const auto fileid = static_cast<uint16_t>(2 + i);
    test_support::image_slot slot;
    slot.seq_no = static_cast<uint16_t>(i + 1);
    slot.entry_fileid = fileid;
    slot.name = "f" + std::to_string(i);
    const int place = (i + 1) / 32;
    image.slot(place / sectors_of_block, place % sectors_of_block, (i + 1) % 32, slot);
    const int data = first_data + i;
    image.data_sector(data / sectors_of_block, data % sectors_of_block, fileid, 0, "x");
  }
}

size_t live_bytes;
size_t peak_bytes;

size_t bytes_of(void* piece) {
  return malloc_usable_size(piece) + sizeof(size_t);
}

void* counted_new(size_t bytes) {
  void* piece = malloc(bytes);
  if (piece != nullptr) {
    live_bytes += bytes_of(piece);
    peak_bytes = std::max(peak_bytes, live_bytes);
  }
  return piece;
}

void counted_delete(void* piece) {
  if (piece != nullptr) {
    live_bytes -= bytes_of(piece);
    free(piece);
  }
}

}  // namespace

// The product has no other way to the heap.
void* operator new(size_t bytes) {
  void* piece = counted_new(bytes);
  if (piece == nullptr) {
    abort();
  }
  return piece;
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return counted_new(bytes);
}
void* operator new[](size_t bytes) {
  return operator new(bytes);
}
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
  return counted_new(bytes);
}
void operator delete(void* piece) noexcept {
  counted_delete(piece);
}
void operator delete(void* piece, size_t) noexcept {
  counted_delete(piece);
}
void operator delete[](void* piece) noexcept {
  counted_delete(piece);
}
void operator delete[](void* piece, size_t) noexcept {
  counted_delete(piece);
}

int main(int argc, char* argv[]) {
  bench::rig rig;
  const bool small = argc > 1 && strcmp(argv[1], "small") == 0;
  // What a run has before it mounts: nothing registered, nothing mapped.
  rig.flash().fill_erased();
  {
    const bench::quiet silence;
    if (small) {
      fill_with_small_files(rig);
    } else {
      rig.make_new();
      rig.fill(95);
      rig.unmount();
    }
    peak_bytes = live_bytes;
  }
  const size_t before = live_bytes;
  {
    const bench::quiet silence;
    rig.mount();
    ppc_stat status;
    if (ifs_stat("bootflash:/", &status) != 0 || ifs_stat("bootflash:none", &status) == 0) {
      return 1;
    }
  }
  const flashfs* fs = flashfs_get_fsp("bootflash:");
  printf("%u files: %zu bytes at most, %zu afterwards\n", static_cast<unsigned>(fs->num_files),
         peak_bytes - before, live_bytes - before);
  return argc > 2 && peak_bytes - before > strtoul(argv[2], nullptr, 10) ? 1 : 0;
}

// The checksum is linear in the bits that it covers: each bit of a word adds what it would alone.
// So the sixteen bits of the wanted word are the solution of sixteen equations, which depend on
// nothing but the word's place in the record.
#include "image/record_fit.h"

#include <array>
#include <utility>
#include <vector>

namespace image {

namespace {

constexpr uint32_t word_bits = 16;

class word_solver {
 public:
  word_solver(uint32_t record_bytes, uint32_t word_offset) {
    std::vector<uint8_t> record(record_bytes, 0);
    const uint32_t nothing = generate_crc(record_bytes, record.data());
    std::array<equation, word_bits> equations = {};
    for (uint32_t bit = 0; bit < word_bits; ++bit) {
      uint8_t& byte = record[word_offset + (bit < 8 ? 1 : 0)];
      byte = static_cast<uint8_t>(1U << (bit % 8));
      equations[bit] = {static_cast<uint16_t>(generate_crc(record_bytes, record.data()) ^ nothing),
                        static_cast<uint16_t>(1U << bit)};
      byte = 0;
    }
    solve(equations);
  }

  // What changes the checksum's register by this.
  uint16_t word_for(uint32_t change) const {
    uint16_t word = 0;
    for (uint32_t bit = 0; bit < word_bits; ++bit) {
      if ((change >> bit & 1) != 0) {
        word ^= words_[bit];
      }
    }
    return word;
  }

 private:
  // A change of the register, and the word that brings it about.
  struct equation {
    uint16_t change;
    uint16_t word;
  };

  // Until each changes one bit of its own. There are always enough: no two words have one effect.
  void solve(std::array<equation, word_bits>& equations) {
    for (uint32_t bit = 0; bit < word_bits; ++bit) {
      for (uint32_t other = bit; other < word_bits; ++other) {
        if ((equations[other].change >> bit & 1) != 0) {
          std::swap(equations[bit], equations[other]);
          break;
        }
      }
      for (uint32_t other = 0; other < word_bits; ++other) {
        if (other != bit && (equations[other].change >> bit & 1) != 0) {
          equations[other].change ^= equations[bit].change;
          equations[other].word ^= equations[bit].word;
        }
      }
    }
    for (uint32_t bit = 0; bit < word_bits; ++bit) {
      words_[bit] = equations[bit].word;
    }
  }

  std::array<uint16_t, word_bits> words_ = {};
};

}  // namespace

uint16_t fitting_owner(const flashfs_sector& sector) {
  static const word_solver solver(sizeof(flashfs_sector), offsetof(flashfs_sector, fileid));
  return solver.word_for(sector_crc(&sector) ^ flashfs_good_crc) ^ sector.fileid;
}

uint16_t fitting_directory(const flashfs_dir_slot& slot) {
  static const word_solver solver(sizeof(flashfs_dir_slot), offsetof(flashfs_dir_slot, dir_fileid));
  return solver.word_for(dir_slot_crc(&slot) ^ flashfs_good_crc) ^ slot.dir_fileid;
}

}  // namespace image

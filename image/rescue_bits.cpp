#include "image/rescue_bits.h"

#include <cstdint>
#include <map>

#include "image/rescue_evidence.h"

namespace image::rescuing {

namespace {

constexpr uint32_t bits_of_byte = 8;
constexpr uint32_t polynomial = 0x1021;

// What a changed bit does to the checksum, by how many bits stand behind it.
std::map<uint16_t, uint32_t> effects_of_bits(uint32_t record_size) {
  std::map<uint16_t, uint32_t> effects;
  uint32_t effect = polynomial;  // of the last bit
  for (uint32_t behind = 0; behind < record_size * bits_of_byte; behind++) {
    effects.emplace(static_cast<uint16_t>(effect), behind);
    effect = ((effect << 1) ^ ((effect & 0x8000) != 0 ? polynomial : 0)) & 0xFFFF;
  }
  return effects;
}

// Changes the one bit for which a record's checksum holds. False when there is none.
bool change_bit(const std::map<uint16_t, uint32_t>& effects, uint32_t crc, uint8_t* record,
                uint32_t record_size) {
  const auto found = effects.find(static_cast<uint16_t>(crc ^ flashfs_good_crc));
  if (found == effects.end()) {
    return false;
  }
  const uint32_t bit = record_size * bits_of_byte - 1 - found->second;
  record[bit / bits_of_byte] ^= static_cast<uint8_t>(0x80U >> bit % bits_of_byte);
  return true;
}

}  // namespace

std::optional<flashfs_dir_slot> mended_slot(const flashfs_dir_slot& slot) {
  static const std::map<uint16_t, uint32_t> effects = effects_of_bits(sizeof(flashfs_dir_slot));
  flashfs_dir_slot mended = slot;
  const uint32_t crc = dir_slot_crc(&slot);
  if (crc == flashfs_good_crc) {
    mended.mode = static_cast<uint16_t>((slot.mode & ~ppc_mode_type_mask) | ppc_mode_regular);
    dir_slot_set_checksum(&mended);
  } else if (!change_bit(effects, crc, reinterpret_cast<uint8_t*>(&mended), sizeof(mended))) {
    return std::nullopt;
  }
  return is_sound_slot(mended, mended.dir_fileid) ? std::optional(mended) : std::nullopt;
}

std::optional<flashfs_sector> mended_sector(const flashfs_sector& sector, uint16_t owner) {
  static const std::map<uint16_t, uint32_t> effects = effects_of_bits(sizeof(flashfs_sector));
  flashfs_sector mended = sector;
  mended.fileid = owner;
  const bool changed =
      change_bit(effects, sector_crc(&mended), reinterpret_cast<uint8_t*>(&mended), sizeof(mended));
  return changed && mended.fileid == owner && mended.seq_no == sector.seq_no &&
                 mended.count <= sector_data_size
             ? std::optional(mended)
             : std::nullopt;
}

}  // namespace image::rescuing

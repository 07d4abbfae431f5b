// The operations whose power cuts are tried: each with the flash it begins on, what it touches, and
// what the order of its writes is known to leave.
#include <cstring>

#include "reliability/power_cuts.h"
#include "tests/support/image_builder.h"

namespace reliability {

namespace {

using test_support::image_builder;
using test_support::ram_block;

using outcomes = std::set<outcome>;

// What the order in which records are written leaves, by cause; docs/power-cuts.md tells each one's
// story. The quick check trusts what it does not validate, so most are its own.
//
// A slot of which only the first words were programmed, by the operation or by the check that
// relinks what it left without a name.
const outcomes half_written_slot = {outcome::check_refuses, outcome::stray_name};
// An id that was being programmed to 0 and reads as another one.
const outcomes torn_invalidation = {outcome::other_changed, outcome::touched_lost,
                                    outcome::touched_torn, outcome::relinked};
// A new data sector that has its file id, or part of it, but not its sequence number or checksum.
const outcomes unfinished_sector = {outcome::other_changed, outcome::touched_lost,
                                    outcome::touched_torn, outcome::relinked};
// Every other block is in use, and the spare is committed: nothing can serve as the spare.
const outcomes no_spare = {outcome::check_refuses};
// A state or header word half programmed: the check erases the block, live or not.
const outcomes damaged_header = {outcome::other_changed, outcome::touched_lost,
                                 outcome::touched_torn};
// The name goes before the sectors, so a cut leaves sectors without a name.
const outcomes sectors_outlive_name = {outcome::relinked};
// The last sector is shortened before those behind it go.
const outcomes shortened_first = {outcome::touched_torn};
const outcomes nothing = {};

outcomes operator+(const outcomes& some, const outcomes& others) {
  outcomes all = some;
  all.insert(others.begin(), others.end());
  return all;
}

constexpr uint32_t ioctl_format = 6;

std::vector<ram_block> equal_blocks(size_t count, uint32_t sectors) {
  return test_support::ram_blocks(count, block_of_sectors(sectors));
}

// The flash that most operations begin on: some files, two directories, free space.
void prepare_files(rig& flash) {
  flash.mount(quick_check);
  flash.make_file("keep", pattern(5000, 1));
  flash.make_file("file", pattern(5000, 2));
  ifs_mkdir("bootflash:d", 0);
  flash.make_file("d/inner", pattern(3000, 3));
  ifs_mkdir("bootflash:e", 0);
}

// Fills the rest of the device with one file's sectors, makes most of it obsolete again and uses up
// what is free, so that the next allocation must collect garbage.
void prepare_full(rig& flash) {
  prepare_files(flash);
  flash.make_file("filler", pattern(200000, 4));
  flash.truncate("filler", 2048 * 3);
  while (flash.fs()->num_available_sectors > 0) {
    flash.write("filler", "Z", ifs_open_write, 2048);
  }
}

// Only deleted slots are left to collect: no sector is free or obsolete.
void prepare_deleted_slots(rig& flash) {
  prepare_files(flash);
  for (int i = 0; i < 40; i++) {
    ifs_mkdir(("bootflash:d/m" + std::to_string(i)).c_str(), 0);
  }
  flash.make_file("filler", pattern(200000, 4));
  for (int i = 0; i < 40; i++) {
    ifs_rmdir(("bootflash:d/m" + std::to_string(i)).c_str());
  }
}

void overwrite_file_byte(rig& flash) {
  flash.write("file", "XY", ifs_open_write, 3000);
}

operation on_files(const char* name, const std::set<std::string>& touched,
                   const outcomes& explained_quick, const outcomes& explained_full,
                   std::function<void(rig&)> act) {
  operation made;
  made.name = name;
  made.blocks = equal_blocks(6, 6);
  made.prepare = prepare_files;
  made.act = std::move(act);
  made.touched = touched;
  made.explained_quick = explained_quick;
  made.explained_full = explained_full;
  return made;
}

// A check of a damaged flash; the damage is done to the flash that prepare_files leaves.
operation repair(const char* name, const std::set<std::string>& touched,
                 const outcomes& explained_quick, std::function<void(rig&, image_builder&)> damage,
                 uint32_t check_flags = full_check) {
  operation made;
  made.name = name;
  made.blocks = equal_blocks(6, 6);
  made.prepare = prepare_files;
  made.damage = [damage = std::move(damage)](rig& flash) {
    image_builder image(flash.device());
    damage(flash, image);
  };
  made.act = [check_flags](rig& flash) { flash.check(check_flags); };
  made.touched = touched;
  made.explained_quick = explained_quick;
  return made;
}

// The first sector of the flash that belongs to the file id; {-1, 0} when there is none.
flashfs_sctr_ptr find_sector(image_builder& image, uint16_t fileid, uint16_t seq_no) {
  for (int b = 0; b < image.block_count(); b++) {
    for (int s = 0; s < image.sector_count(b); s++) {
      const auto* sector = reinterpret_cast<const flashfs_sector*>(image.sector_at(b, s));
      if (sector->fileid == fileid && sector->seq_no == seq_no) {
        return {static_cast<int16_t>(b), static_cast<uint16_t>(s)};
      }
    }
  }
  return {no_block, 0};
}

// The first erased sector of a block in use, or a sector of a given owner.
flashfs_sctr_ptr find_erased_sector(image_builder& image) {
  for (int b = 0; b < image.block_count(); b++) {
    const auto* header = reinterpret_cast<const flashfs_blkheader*>(image.header_at(b));
    for (int s = 0; blkheader_state(header) == block_in_use && s < image.sector_count(b); s++) {
      if (is_erased(image.sector_at(b, s), sizeof(flashfs_sector))) {
        return {static_cast<int16_t>(b), static_cast<uint16_t>(s)};
      }
    }
  }
  return {no_block, 0};
}

int find_block(image_builder& image, block_state state, int after = -1) {
  for (int b = after + 1; b < image.block_count(); b++) {
    if (blkheader_state(reinterpret_cast<const flashfs_blkheader*>(image.header_at(b))) == state) {
      return b;
    }
  }
  return -1;
}

void set_state(image_builder& image, int block, block_state state) {
  blkheader_set_state(reinterpret_cast<flashfs_blkheader*>(image.header_at(block)), state);
}

constexpr uint16_t fileid_file = 3;

flashfs_dir_slot* find_slot(image_builder& image, uint16_t entry_fileid) {
  for (int b = 0; b < image.block_count(); b++) {
    for (int s = 0; s < image.sector_count(b); s++) {
      auto* sector = reinterpret_cast<flashfs_sector*>(image.sector_at(b, s));
      for (flashfs_dir_slot& slot : sector->slots) {
        if (sector->fileid == fileid_root && slot.dir_fileid != fileid_invalidated &&
            slot.dir_fileid != fileid_available && slot.entry_fileid == entry_fileid) {
          return &slot;
        }
      }
    }
  }
  return nullptr;
}

void add_file_operations(std::vector<operation>* all) {
  all->push_back(on_files("create", {"new"}, half_written_slot, nothing,
                          [](rig& flash) { flash.make_file("new", ""); }));
  all->push_back(on_files("create with content", {"new"}, half_written_slot + unfinished_sector,
                          nothing, [](rig& flash) { flash.make_file("new", pattern(5000, 9)); }));
  all->push_back(on_files(
      "append", {"file"}, half_written_slot + unfinished_sector, nothing,
      [](rig& flash) { flash.write("file", pattern(3000, 9), ifs_open_write | ifs_open_append); }));
  all->push_back(on_files("overwrite in the middle", {"file"},
                          half_written_slot + unfinished_sector + torn_invalidation, nothing,
                          overwrite_file_byte));
  all->push_back(on_files("extend over a hole", {"file"}, half_written_slot + unfinished_sector,
                          nothing,
                          [](rig& flash) { flash.write("file", "tail", ifs_open_write, 11000); }));
  all->push_back(on_files("truncate to nothing", {"file"}, torn_invalidation + half_written_slot,
                          nothing, [](rig& flash) { flash.truncate("file", 0); }));
  all->push_back(on_files("truncate to a length", {"file"}, unfinished_sector + torn_invalidation,
                          shortened_first, [](rig& flash) { flash.truncate("file", 2500); }));
  all->push_back(
      on_files("truncate at open", {"file"}, half_written_slot + torn_invalidation, nothing,
               [](rig& flash) { flash.write("file", "", ifs_open_write | ifs_open_truncate); }));
}

void add_name_operations(std::vector<operation>* all) {
  all->push_back(on_files("rename in place", {"file", "renamed"}, half_written_slot, nothing,
                          [](rig&) { ifs_rename("bootflash:file", "bootflash:renamed"); }));
  all->push_back(on_files("move across directories", {"file", "d/moved"}, half_written_slot,
                          nothing,
                          [](rig&) { ifs_rename("bootflash:file", "bootflash:d/moved"); }));
  all->push_back(on_files("mkdir", {"made"}, half_written_slot, nothing,
                          [](rig&) { ifs_mkdir("bootflash:made", 0); }));
  all->push_back(
      on_files("rmdir", {"e"}, half_written_slot, nothing, [](rig&) { ifs_rmdir("bootflash:e"); }));
  all->push_back(on_files("remove", {"file"}, half_written_slot + torn_invalidation,
                          sectors_outlive_name, [](rig&) { ifs_remove("bootflash:file"); }));
  all->push_back(on_files("chmod", {"file"}, half_written_slot, nothing,
                          [](rig&) { ifs_chmod("bootflash:file", 0x1FF); }));
  all->push_back(on_files("date update", {"file"}, half_written_slot, nothing, [](rig& flash) {
    flashfs_touch(flash.fs(), filemap_lookup(flash.fs(), fileid_file), 1234567890);
  }));
}

void add_space_operations(std::vector<operation>* all) {
  operation service =
      on_files("block into service", {"new"}, half_written_slot + unfinished_sector, nothing,
               [](rig& flash) { flash.make_file("new", pattern(2048 * 8, 9)); });
  all->push_back(service);

  operation reclaim = on_files("reclaim a full-size block", {"file"},
                               half_written_slot + unfinished_sector + torn_invalidation + no_spare,
                               no_spare + damaged_header, overwrite_file_byte);
  reclaim.prepare = prepare_full;
  all->push_back(reclaim);

  operation smaller = reclaim;
  smaller.name = "reclaim a smaller block";
  smaller.blocks = equal_blocks(1, 8);
  for (int i = 0; i < 5; i++) {
    smaller.blocks.push_back({block_of_sectors(6), false});
  }
  all->push_back(smaller);

  operation compaction =
      on_files("slot compaction", {"new"}, half_written_slot + no_spare + damaged_header,
               no_spare + damaged_header, [](rig& flash) {
                 flashfs_sctr_ptr pointer;
                 flashfs_alloc_sector(flash.fs(), &pointer, 0);
               });
  compaction.prepare = prepare_deleted_slots;
  all->push_back(compaction);
}

void add_whole_device_operations(std::vector<operation>* all) {
  operation format =
      on_files("format", {"keep", "file", "d", "e"}, half_written_slot + sectors_outlive_name,
               sectors_outlive_name, [](rig&) {
                 uint32_t argument = 0;
                 ifs_ioctl("bootflash:", ioctl_format, &argument);
               });
  all->push_back(format);
  all->push_back(
      on_files("check, quick", {}, nothing, nothing, [](rig& flash) { flash.check(quick_check); }));
  all->push_back(
      on_files("check, full", {}, nothing, nothing, [](rig& flash) { flash.check(full_check); }));
  all->push_back(on_files("check, reclaiming all", {}, no_spare + damaged_header,
                          no_spare + damaged_header,
                          [](rig& flash) { flash.check(full_check | reclaiming_check); }));
  all->push_back(on_files("check, quick, reclaiming all", {}, no_spare + damaged_header,
                          no_spare + damaged_header,
                          [](rig& flash) { flash.check(quick_check | reclaiming_check); }));
}

void add_header_repairs(std::vector<operation>* all) {
  all->push_back(repair("repair: bad block number", {}, nothing, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.block_num = 77});
  }));
  all->push_back(repair("repair: bad header checksum", {}, nothing, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.good_checksum = false});
  }));
  all->push_back(
      repair("repair: block caught as invalid1", {}, nothing, [](rig&, image_builder& image) {
        set_state(image, find_block(image, block_available), block_invalid1);
      }));
  all->push_back(
      repair("repair: block caught as invalid2", {}, nothing, [](rig&, image_builder& image) {
        set_state(image, find_block(image, block_available), block_invalid2);
      }));
  all->push_back(
      repair("repair: block caught as committed", {}, nothing, [](rig&, image_builder& image) {
        image_builder& spare = image;
        set_state(spare, find_block(image, block_available), block_committed);
      }));
  all->push_back(repair("repair: unknown block state", {}, nothing, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.state = 2});
  }));
  all->push_back(repair("repair: spare not erased", {}, nothing, [](rig&, image_builder& image) {
    image.sector_at(find_block(image, block_available), 1)[100] = 0;
  }));
}

void add_record_repairs(std::vector<operation>* all) {
  all->push_back(repair("repair: bad data checksum", {"file"},
                        torn_invalidation + half_written_slot, [](rig&, image_builder& image) {
                          const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
                          image.sector_at(at.block_num, at.sctr_num)[50] ^= 1;
                        }));
  all->push_back(repair("repair: gap in a file", {"file"}, torn_invalidation + half_written_slot,
                        [](rig&, image_builder& image) {
                          const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
                          memset(image.sector_at(at.block_num, at.sctr_num), 0, sizeof(be16));
                        }));
  all->push_back(repair(
      "repair: bad slot checksum", {"file", "lost+found"}, half_written_slot + torn_invalidation,
      [](rig&, image_builder& image) { find_slot(image, fileid_file)->name[0] ^= 1; }));
  all->push_back(
      repair("repair: dirty available sector", {}, nothing, [](rig&, image_builder& image) {
        const flashfs_sctr_ptr at = find_erased_sector(image);
        image.sector_at(at.block_num, at.sctr_num)[900] = 0x7F;
      }));
  all->push_back(
      repair("repair: dirty available slot", {}, half_written_slot, [](rig&, image_builder& image) {
        const flashfs_sctr_ptr at = find_sector(image, fileid_root, 0xFFFF);
        auto* sector =
            reinterpret_cast<flashfs_sector*>(image.sector_at(at.block_num, at.sctr_num));
        for (flashfs_dir_slot& slot : sector->slots) {
          if (is_erased(&slot, sizeof(slot))) {
            slot.name[5] = 0;
            break;
          }
        }
      }));
  all->push_back(repair("repair: two copies of a sector", {"file"},
                        torn_invalidation + half_written_slot, [](rig&, image_builder& image) {
                          const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
                          const flashfs_sctr_ptr copy = find_erased_sector(image);
                          memcpy(image.sector_at(copy.block_num, copy.sctr_num),
                                 image.sector_at(at.block_num, at.sctr_num),
                                 sizeof(flashfs_sector));
                        }));
  all->push_back(
      repair("repair: two copies of a slot", {"file"}, nothing, [](rig&, image_builder& image) {
        const flashfs_dir_slot copy = *find_slot(image, fileid_file);
        const flashfs_sctr_ptr at = find_sector(image, fileid_root, 0xFFFF);
        auto* sector =
            reinterpret_cast<flashfs_sector*>(image.sector_at(at.block_num, at.sctr_num));
        for (flashfs_dir_slot& slot : sector->slots) {
          if (is_erased(&slot, sizeof(slot))) {
            slot = copy;
            break;
          }
        }
      }));
  all->push_back(repair("relink an orphan", {"file", "lost+found"}, half_written_slot,
                        [](rig&, image_builder& image) {
                          memset(&find_slot(image, fileid_file)->dir_fileid, 0, sizeof(be16));
                        }));
}

}  // namespace

std::vector<operation> power_cut_operations() {
  std::vector<operation> all;
  add_file_operations(&all);
  add_name_operations(&all);
  add_space_operations(&all);
  add_whole_device_operations(&all);
  add_header_repairs(&all);
  add_record_repairs(&all);
  return all;
}

}  // namespace reliability

// The operations whose power cuts are tried: each with the flash it begins on, what it touches, and
// what the order of its writes is known to leave.
#include <cstring>

#include "flashfs/alloc.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "reliability/power_cuts.h"
#include "tests/support/image_builder.h"

namespace reliability {

namespace {

using test_support::image_builder;
using test_support::ram_block;

// Reads the whole device and writes it back, as an image that is restored.
int32_t write_image(rig& flash) {
  const std::vector<uint8_t> image = flash.snapshot();
  return flash.files().write_file(
      "...", {reinterpret_cast<const char*>(image.data()), image.size()}, ifs_open_write);
}

std::vector<ram_block> equal_blocks(size_t count, uint32_t sectors) {
  return test_support::ram_blocks(count, block_of_sectors(sectors));
}

// The flash that most operations begin on: some files, two directories, free space. Results are not
// looked at here and below: the cuts are tried on whatever flash this leaves.
void prepare_files(rig& flash) {
  flash.mount(flashfs_check_quick);
  flash.make_file("keep", pattern(5000, 1));
  flash.make_file("file", pattern(5000, 2));
  (void)ifs_mkdir("bootflash:d", 0);
  flash.make_file("d/inner", pattern(3000, 3));
  (void)ifs_mkdir("bootflash:e", 0);
}

// Fills the rest of the device with the sectors of two files by turns, removes one of them and uses
// up what is free, so that the next allocation must collect a block in which every other sector
// lives.
void prepare_full(rig& flash) {
  prepare_files(flash);
  uint32_t written = 0;
  while (flash.write(written % 2 == 0 ? "odd" : "even", pattern(sector_data_size, written),
                     ifs_open_write | ifs_open_create | ifs_open_append) == 0) {
    written++;
  }
  (void)ifs_remove("bootflash:even");
  while (flash.fs()->num_available_sectors > 0) {
    flash.write("odd", "Z", ifs_open_write, 100);
  }
}

// Only deleted slots are left to collect: no sector is free or obsolete.
void prepare_deleted_slots(rig& flash) {
  prepare_files(flash);
  for (int i = 0; i < 40; i++) {
    (void)ifs_mkdir(("bootflash:d/m" + std::to_string(i)).c_str(), 0);
  }
  flash.make_file("filler", pattern(200000, 4));
  for (int i = 0; i < 40; i++) {
    (void)ifs_rmdir(("bootflash:d/m" + std::to_string(i)).c_str());
  }
}

int32_t overwrite_file_byte(rig& flash) {
  return flash.write("file", "XY", ifs_open_write, 3000);
}

operation on_files(const char* name, const std::set<std::string>& touched,
                   std::function<int32_t(rig&)> act, const std::set<cause>& own_causes = {}) {
  operation made;
  made.name = name;
  made.blocks = equal_blocks(6, 6);
  made.prepare = prepare_files;
  made.act = std::move(act);
  made.touched = touched;
  made.own_causes = own_causes;
  return made;
}

// A check of a damaged flash; the damage is done to the flash that prepare_files leaves.
operation repair(const char* name, const std::set<std::string>& touched,
                 std::function<void(rig&, image_builder&)> damage,
                 uint32_t check_flags = flashfs_check_full) {
  operation made;
  made.name = name;
  made.blocks = equal_blocks(6, 6);
  made.prepare = prepare_files;
  made.damage = [damage = std::move(damage)](rig& flash) {
    image_builder image(flash.device());
    damage(flash, image);
  };
  made.act = [check_flags](rig& flash) { return flash.check(check_flags); };
  made.own_causes = {cause::damage_not_seen};
  made.touched = touched;
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
constexpr uint16_t fileid_d = 4;

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
  all->push_back(
      on_files("create", {"new"}, [](rig& flash) { return flash.make_file("new", ""); }));
  all->push_back(on_files("create with content", {"new"},
                          [](rig& flash) { return flash.make_file("new", pattern(5000, 9)); }));
  all->push_back(on_files("append", {"file"}, [](rig& flash) {
    return flash.write("file", pattern(3000, 9), ifs_open_write | ifs_open_append);
  }));
  all->push_back(on_files("overwrite in the middle", {"file"}, overwrite_file_byte));
  all->push_back(on_files("extend over a hole", {"file"}, [](rig& flash) {
    return flash.write("file", "tail", ifs_open_write, 11000);
  }));
  all->push_back(on_files("truncate to nothing", {"file"},
                          [](rig& flash) { return flash.truncate("file", 0); }));
  all->push_back(on_files("truncate to a length", {"file"},
                          [](rig& flash) { return flash.truncate("file", 2500); },
                          {cause::shortened_first}));
  all->push_back(on_files("truncate at open", {"file"}, [](rig& flash) {
    return flash.write("file", "", ifs_open_write | ifs_open_truncate);
  }));
}

// An entry of a directory whose id has several bits, any of which may be cleared alone.
operation in_directory(const char* name, const std::set<std::string>& touched,
                       std::function<int32_t(rig&)> act, const std::set<cause>& own_causes = {}) {
  operation made = on_files(name, touched, std::move(act), own_causes);
  made.prepare = [](rig& flash) {
    prepare_files(flash);
    flash.make_file("e/deep", pattern(3000, 5));
  };
  return made;
}

void add_name_operations(std::vector<operation>* all) {
  all->push_back(on_files("rename in place", {"file", "renamed"},
                          [](rig&) { return ifs_rename("bootflash:file", "bootflash:renamed"); }));
  all->push_back(on_files("move across directories", {"file", "d/moved"},
                          [](rig&) { return ifs_rename("bootflash:file", "bootflash:d/moved"); }));
  all->push_back(on_files("mkdir", {"made"}, [](rig&) { return ifs_mkdir("bootflash:made", 0); }));
  all->push_back(on_files("rmdir", {"e"}, [](rig&) { return ifs_rmdir("bootflash:e"); }));
  all->push_back(on_files("remove", {"file"}, [](rig&) { return ifs_remove("bootflash:file"); },
                          {cause::sectors_outlive_name}));
  all->push_back(in_directory("rename in a directory", {"e/deep", "e/renamed"}, [](rig&) {
    return ifs_rename("bootflash:e/deep", "bootflash:e/renamed");
  }));
  all->push_back(in_directory("remove in a directory", {"e/deep"},
                              [](rig&) { return ifs_remove("bootflash:e/deep"); },
                              {cause::sectors_outlive_name}));
  all->push_back(
      on_files("chmod", {"file"}, [](rig&) { return ifs_chmod("bootflash:file", 0x1FF); }));
  all->push_back(on_files("date update", {"file"}, [](rig& flash) {
    return flashfs_touch(flash.fs(), filemap_lookup(flash.fs(), fileid_file), 1234567890);
  }));
}

void add_space_operations(std::vector<operation>* all) {
  all->push_back(on_files("block into service", {"new"},
                          [](rig& flash) { return flash.make_file("new", pattern(2048 * 8, 9)); }));

  operation reclaim =
      on_files("reclaim a full-size block", {"file"}, overwrite_file_byte, {cause::no_spare});
  reclaim.prepare = prepare_full;
  all->push_back(reclaim);

  operation smaller = reclaim;
  smaller.name = "reclaim a smaller block";
  smaller.blocks = equal_blocks(1, 8);
  for (int i = 0; i < 5; i++) {
    smaller.blocks.push_back({block_of_sectors(6), false});
  }
  all->push_back(smaller);

  operation compaction = on_files("slot compaction", {"new"},
                                  [](rig& flash) {
                                    flashfs_sctr_ptr pointer;
                                    return -flashfs_alloc_sector(flash.fs(), &pointer, 0);
                                  },
                                  {cause::no_spare});
  compaction.prepare = prepare_deleted_slots;
  all->push_back(compaction);
}

void add_whole_device_operations(std::vector<operation>* all) {
  all->push_back(on_files("format", {"keep", "file", "d", "e"},
                          [](rig& flash) { return flash.files().format(); },
                          {cause::sectors_outlive_name}));
  all->push_back(
      on_files("raw write", {"keep", "file", "d", "e"}, write_image, {cause::image_incomplete}));
  all->push_back(
      on_files("check, quick", {}, [](rig& flash) { return flash.check(flashfs_check_quick); }));
  all->push_back(
      on_files("check, full", {}, [](rig& flash) { return flash.check(flashfs_check_full); }));
  all->push_back(on_files(
      "check, reclaiming all", {},
      [](rig& flash) { return flash.check(flashfs_check_full | flashfs_check_reclaim_all); },
      {cause::no_spare}));
  all->push_back(on_files(
      "check, quick, reclaiming all", {},
      [](rig& flash) { return flash.check(flashfs_check_quick | flashfs_check_reclaim_all); },
      {cause::no_spare}));
}

void add_header_repairs(std::vector<operation>* all) {
  all->push_back(repair("repair: bad block number", {}, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.block_num = 77});
  }));
  all->push_back(repair("repair: bad header checksum", {}, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.good_checksum = false});
  }));
  all->push_back(repair("repair: block caught as invalid1", {}, [](rig&, image_builder& image) {
    set_state(image, find_block(image, block_available), block_invalid1);
  }));
  all->push_back(repair("repair: block caught as invalid2", {}, [](rig&, image_builder& image) {
    set_state(image, find_block(image, block_available), block_invalid2);
  }));
  all->push_back(repair("repair: block caught as committed", {}, [](rig&, image_builder& image) {
    image_builder& spare = image;
    set_state(spare, find_block(image, block_available), block_committed);
  }));
  all->push_back(repair("repair: unknown block state", {}, [](rig&, image_builder& image) {
    image.header(find_block(image, block_available), {.state = 2});
  }));
  all->push_back(repair("repair: spare not erased", {}, [](rig&, image_builder& image) {
    image.sector_at(find_block(image, block_available), 1)[100] = 0;
  }));
}

void add_record_repairs(std::vector<operation>* all) {
  all->push_back(repair("repair: bad data checksum", {"file"}, [](rig&, image_builder& image) {
    const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
    image.sector_at(at.block_num, at.sctr_num)[50] ^= 1;
  }));
  all->push_back(repair("repair: gap in a file", {"file"}, [](rig&, image_builder& image) {
    const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
    memset(image.sector_at(at.block_num, at.sctr_num), 0, sizeof(be16));
  }));
  all->push_back(
      repair("repair: bad slot checksum", {"file", "lost+found"},
             [](rig&, image_builder& image) { find_slot(image, fileid_file)->name[0] ^= 1; }));
  all->push_back(
      repair("repair: bad file type", {"file", "lost+found"}, [](rig&, image_builder& image) {
        flashfs_dir_slot* slot = find_slot(image, fileid_file);
        slot->mode = 0x1700;
        dir_slot_set_checksum(slot);
      }));
  all->push_back(
      repair("repair: illegal name", {"file", "lost+found"}, [](rig&, image_builder& image) {
        flashfs_dir_slot* slot = find_slot(image, fileid_file);
        slot->name[0] = ' ';
        dir_slot_set_checksum(slot);
      }));
  all->push_back(repair("repair: no slot of the root", {}, [](rig&, image_builder& image) {
    memset(&find_slot(image, fileid_root)->dir_fileid, 0, sizeof(be16));
  }));
  all->push_back(repair("repair: dirty available sector", {}, [](rig&, image_builder& image) {
    const flashfs_sctr_ptr at = find_erased_sector(image);
    image.sector_at(at.block_num, at.sctr_num)[900] = 0x7F;
  }));
  all->push_back(repair("repair: dirty available slot", {}, [](rig&, image_builder& image) {
    const flashfs_sctr_ptr at = find_sector(image, fileid_root, 0xFFFF);
    auto* sector = reinterpret_cast<flashfs_sector*>(image.sector_at(at.block_num, at.sctr_num));
    for (flashfs_dir_slot& slot : sector->slots) {
      if (is_erased(&slot, sizeof(slot))) {
        slot.name[5] = 0;
        break;
      }
    }
  }));
  all->push_back(repair("repair: two copies of a sector", {"file"}, [](rig&, image_builder& image) {
    const flashfs_sctr_ptr at = find_sector(image, fileid_file, 1);
    const flashfs_sctr_ptr copy = find_erased_sector(image);
    memcpy(image.sector_at(copy.block_num, copy.sctr_num),
           image.sector_at(at.block_num, at.sctr_num), sizeof(flashfs_sector));
  }));
  all->push_back(repair("repair: two copies of a slot", {"file"}, [](rig&, image_builder& image) {
    const flashfs_dir_slot copy = *find_slot(image, fileid_file);
    const flashfs_sctr_ptr at = find_sector(image, fileid_root, 0xFFFF);
    auto* sector = reinterpret_cast<flashfs_sector*>(image.sector_at(at.block_num, at.sctr_num));
    for (flashfs_dir_slot& slot : sector->slots) {
      if (is_erased(&slot, sizeof(slot))) {
        slot = copy;
        break;
      }
    }
  }));
  all->push_back(repair("relink an orphan", {"file", "lost+found"}, [](rig&, image_builder& image) {
    memset(&find_slot(image, fileid_file)->dir_fileid, 0, sizeof(be16));
  }));
  all->push_back(
      repair("relink an orphan directory", {"d", "lost+found"}, [](rig&, image_builder& image) {
        memset(&find_slot(image, fileid_d)->dir_fileid, 0, sizeof(be16));
      }));
  all->back().own_causes.insert(cause::walked_twice);
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

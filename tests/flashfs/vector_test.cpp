// The table of operations.
#include "flashfs/vector.h"

#include <gtest/gtest.h>

#include <memory>

#include "flashfs/control.h"
#include "flashfs/file.h"
#include "flashfs/listing.h"
#include "flashfs/namespace.h"
#include "flashfs/write.h"

TEST(operations_vector, every_slot_but_destroy_is_filled) {
  const ifs_operations& vector = flashfs_operations;
  EXPECT_EQ(vector.read, flashfs_vctr_read);
  EXPECT_EQ(vector.write, flashfs_vctr_write);
  EXPECT_EQ(vector.open, flashfs_vctr_open);
  EXPECT_EQ(vector.close, flashfs_vctr_close);
  EXPECT_EQ(vector.lseek, flashfs_vctr_lseek);
  EXPECT_EQ(vector.chmod, flashfs_vctr_chmod);
  EXPECT_EQ(vector.remove, flashfs_vctr_remove);
  EXPECT_EQ(vector.rename, flashfs_vctr_rename);
  EXPECT_EQ(vector.mkdir, flashfs_vctr_mkdir);
  EXPECT_EQ(vector.rmdir, flashfs_vctr_rmdir);
  EXPECT_EQ(vector.getdents, flashfs_vctr_getdents);
  EXPECT_EQ(vector.stat, flashfs_vctr_stat);
  EXPECT_EQ(vector.fstat, flashfs_vctr_fstat);
  EXPECT_EQ(vector.istat, flashfs_vctr_istat);
  EXPECT_EQ(vector.statfs, flashfs_vctr_statfs);
  EXPECT_EQ(vector.destroy, nullptr);
  EXPECT_EQ(vector.ioctl, flashfs_vctr_ioctl);
  EXPECT_EQ(vector.fioctl, flashfs_vctr_fioctl);
  EXPECT_EQ(vector.open_by_fileid, flashfs_vctr_open_by_fileid);
}

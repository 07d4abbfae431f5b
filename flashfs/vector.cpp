// The operations vector.
#include "flashfs/vector.h"

#include "flashfs/control.h"
#include "flashfs/file.h"
#include "flashfs/listing.h"
#include "flashfs/namespace.h"
#include "flashfs/write.h"

const ifs_operations flashfs_operations = {
    .read = flashfs_vctr_read,
    .write = flashfs_vctr_write,
    .open = flashfs_vctr_open,
    .close = flashfs_vctr_close,
    .lseek = flashfs_vctr_lseek,
    .chmod = flashfs_vctr_chmod,
    .remove = flashfs_vctr_remove,
    .rename = flashfs_vctr_rename,
    .mkdir = flashfs_vctr_mkdir,
    .rmdir = flashfs_vctr_rmdir,
    .getdents = flashfs_vctr_getdents,
    .stat = flashfs_vctr_stat,
    .fstat = flashfs_vctr_fstat,
    .istat = flashfs_vctr_istat,
    .statfs = flashfs_vctr_statfs,
    .destroy = nullptr,
    .ioctl = flashfs_vctr_ioctl,
    .fioctl = flashfs_vctr_fioctl,
    .open_by_fileid = flashfs_vctr_open_by_fileid,
};

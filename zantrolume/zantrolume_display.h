// Dumps of raw flash and of in-memory structures, and the sizes of the program's types.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Dumps a buffer in lines of 32 bytes, labelled from a flash byte address; it must hold the length
// rounded up to a multiple of 32.
void zantrolume_display_buffer(uint32_t address, const void* buffer, int32_t length);
// Reads and dumps raw flash. Address 0 prints nothing.
void zantrolume_display_flash(uint32_t address, int32_t length);
// Reads and dumps the beginning of one 128 KiB sector.
void zantrolume_display_flash_sector(uint32_t sector, int32_t length);
void zantrolume_display_sizes();
void zantrolume_display_file_map(const flashfs_sctr_map* entry);
void zantrolume_display_sctr_list_ordered(const flashfs_sctr_list_ordered* list);

// The table of registered file systems: prefixes and their look-up, registration, destruction that
// waits for the last user, and the accessors by fsid.
#include "ifs/fstab.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "ifs/tables.h"

namespace {

// Index: fsid. Null: free.
ifs_filesystem* ifs_fstab[ifs_max_filesystems];

constexpr uint32_t longest_prefix = ifs_prefix_size - 1;

// As ifs_fsid_get_entry, leaving errno alone.
ifs_filesystem* find_filesystem(ppc_fsid_t fsid) {
  const auto index = static_cast<uint16_t>(fsid);
  return index < ifs_max_filesystems ? ifs_fstab[index] : nullptr;
}

// A record of the name's first 31 characters, or null when there is no memory.
ifs_prefix* new_prefix(const char* name, ifs_prefix* next) {
  auto* record = new (std::nothrow) ifs_prefix{};
  if (record == nullptr) {
    return nullptr;
  }
  record->next = next;
  while (record->length < longest_prefix && name[record->length] != '\0') {
    record->name[record->length] = name[record->length];
    ++record->length;
  }
  return record;
}

void delete_filesystem(ifs_filesystem* entry) {
  while (entry->prefixes != nullptr) {
    ifs_prefix* next = entry->prefixes->next;
    delete entry->prefixes;
    entry->prefixes = next;
  }
  delete entry;
}

bool begins_with_prefix(const char* name, const ifs_prefix* record, int need_colon) {
  if (strncmp(name, record->name, record->length) != 0) {
    return false;
  }
  return need_colon == 0 || name[record->length] == ':';
}

// The first free fsid, or -1.
int32_t find_free_slot() {
  for (int32_t slot = 0; slot < ifs_max_filesystems; ++slot) {
    if (ifs_fstab[slot] == nullptr) {
      return slot;
    }
  }
  return -1;
}

void adjust_open_count(ifs_filesystem* entry, int by) {
  entry->open_count = static_cast<int16_t>(entry->open_count + by);
}

// Whether the file system's own hook lets it go.
bool agrees_to_destruction(ppc_fsid_t fsid, const ifs_filesystem* entry) {
  const auto destroy = entry->operations->destroy;
  return destroy == nullptr || destroy(fsid, fsid) == 0;
}

}  // namespace

void ifs_clear_filesystems() {
  for (ifs_filesystem*& entry : ifs_fstab) {
    if (entry != nullptr) {
      delete_filesystem(entry);
      entry = nullptr;
    }
  }
}

int32_t ifs_create(const char* prefix, const ifs_operations* operations, uint16_t type,
                   uint32_t flags, uint16_t feature, void* context) {
  if (prefix == nullptr || ifs_lookup_prefix_internal(prefix, nullptr, 1, 0) >= 0) {
    return -1;
  }
  const int32_t slot = find_free_slot();
  if (slot < 0 || strlen(prefix) > longest_prefix) {
    return -1;
  }
  auto* entry = new (std::nothrow) ifs_filesystem{};
  if (entry == nullptr) {
    return -1;
  }
  entry->prefixes = new_prefix(prefix, nullptr);
  if (entry->prefixes == nullptr) {
    delete_filesystem(entry);
    return -1;
  }
  entry->operations = operations;
  entry->flags = flags;
  entry->type = type;
  entry->feature = feature;
  entry->context = context;
  ifs_fstab[slot] = entry;
  return slot;
}

// The name is looked up as given and stored cut, so a long one can be added twice.
int32_t ifs_add_prefix(ppc_fsid_t fsid, const char* prefix) {
  if (prefix == nullptr || ifs_lookup_prefix_internal(prefix, nullptr, 1, 0) >= 0) {
    return -1;
  }
  ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  if (entry == nullptr) {
    return -1;
  }
  ifs_prefix* record = new_prefix(prefix, entry->prefixes);
  if (record == nullptr) {
    return -1;
  }
  entry->prefixes = record;
  return 0;
}

int32_t ifs_destroy(ppc_fsid_t fsid, int force) {
  ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  if (entry == nullptr || (entry->open_count != 0 && force == 0)) {
    return -1;
  }
  // The destruction is itself a user, so that the one place where users leave does the removal.
  ifs_open_file_increment(fsid);
  entry->flags |= ifs_flag_destroy;
  ifs_open_file_decrement(fsid);
  return 0;
}

// Ties go to the later slot and, in a slot, to the record added earlier.
int32_t ifs_lookup_prefix_internal(const char* name, const ifs_prefix** record, int exact,
                                   int need_colon) {
  if (name == nullptr) {
    return -1;
  }
  int32_t found = -1;
  uint32_t best_length = 0;
  for (int32_t slot = 0; slot < ifs_max_filesystems; ++slot) {
    const ifs_filesystem* entry = ifs_fstab[slot];
    if (entry == nullptr || (entry->flags & ifs_flag_destroy) != 0) {
      continue;
    }
    for (const ifs_prefix* at = entry->prefixes; at != nullptr; at = at->next) {
      const bool matches =
          exact != 0 ? strcmp(name, at->name) == 0
                     : at->length >= best_length && begins_with_prefix(name, at, need_colon);
      if (!matches) {
        continue;
      }
      found = slot;
      best_length = at->length;
      if (record != nullptr) {
        *record = at;
      }
    }
  }
  return found;
}

int32_t ifs_lookup_prefix(const char* name) {
  return ifs_lookup_prefix_internal(name, nullptr, 0, 1);
}

int32_t ifs_lookup_prefix_and_strip(const char** name) {
  const ifs_prefix* record = nullptr;
  const int32_t fsid = ifs_lookup_prefix_internal(*name, &record, 0, 1);
  if (fsid < 0) {
    return -1;
  }
  if ((ifs_fstab[fsid]->flags & ifs_flag_keep_prefix) == 0) {
    *name += record->length + 1;  // the look-up has seen the colon
  }
  return fsid;
}

void ifs_open_file_increment(ppc_fsid_t fsid) {
  ifs_filesystem* entry = find_filesystem(fsid);
  if (entry != nullptr) {
    adjust_open_count(entry, 1);
  }
}

void ifs_open_file_decrement(ppc_fsid_t fsid) {
  ifs_filesystem* entry = find_filesystem(fsid);
  if (entry == nullptr) {
    return;
  }
  adjust_open_count(entry, -1);
  if (entry->open_count > 0 || (entry->flags & ifs_flag_destroy) == 0) {
    return;
  }
  // The operation that ends here reports its own errno, whatever the hook does.
  const int saved_errno = errno;
  if (agrees_to_destruction(fsid, entry)) {
    ifs_fstab[fsid] = nullptr;
    delete_filesystem(entry);
  }
  errno = saved_errno;
}

int ifs_fsid_is_valid(ppc_fsid_t fsid) {
  if (find_filesystem(fsid) == nullptr) {
    errno = EBADF;
    return 0;
  }
  return 1;
}

ifs_filesystem* ifs_fsid_get_entry(ppc_fsid_t fsid) {
  return ifs_fsid_is_valid(fsid) != 0 ? ifs_fstab[fsid] : nullptr;
}

void* ifs_fsid_get_fs_context(ppc_fsid_t fsid) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  return entry != nullptr ? entry->context : nullptr;
}

uint16_t ifs_fsid_get_type(ppc_fsid_t fsid) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  return entry != nullptr ? entry->type : uint16_t{0};
}

uint32_t ifs_fsid_get_flags(ppc_fsid_t fsid) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  return entry != nullptr ? entry->flags : 0;
}

uint16_t ifs_fsid_get_feature(ppc_fsid_t fsid) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  return entry != nullptr ? entry->feature : uint16_t{0};
}

void ifs_fsid_set_flags(ppc_fsid_t fsid, uint32_t flags) {
  ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  if (entry != nullptr) {
    entry->flags = flags;
  }
}

const char* ifs_fsid_get_prefix(ppc_fsid_t fsid) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  return entry != nullptr ? entry->prefixes->name : nullptr;
}

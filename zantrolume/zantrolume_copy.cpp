// The copy command: one file to another path, buffer by buffer, through the file-system switch.
// The command line does not reach it.
#include "zantrolume/zantrolume_copy.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "ifs/ifs.h"
#include "zantrolume/zantrolume_number.h"
#include "zantrolume/zantrolume_signals.h"
#include "zantrolume/zantrolume_startup.h"

namespace {

constexpr int32_t default_buffer_size = 4096;  // bytes
constexpr uint32_t destination_flags =
    ifs_open_write | ifs_open_append | ifs_open_create | ifs_open_truncate;
static_assert(destination_flags == 778);

using copy_buffer = std::unique_ptr<uint8_t[]>;

constexpr char copying_step[] = "a step of the copying";

struct copy_request {
  const char* source;
  const char* destination;
  int32_t buffer_size;  // bytes
};

bool parse_copy(int argc, char* argv[], copy_request* request) {
  request->buffer_size = default_buffer_size;
  int index = 1;
  for (; index < argc && argv[index][0] == '-'; index += 2) {
    if (strcmp(argv[index], "-b") != 0 || index + 1 == argc) {
      return false;
    }
    request->buffer_size = parse_number(argv[index + 1], 10);
    if (request->buffer_size == 0) {
      puts("Invalid buffer size specified");
      return false;
    }
  }
  if (argc - index != 2) {
    return false;
  }
  request->source = argv[index];
  request->destination = argv[index + 1];
  return true;
}

// Null when there is no memory or the size is negative.
copy_buffer allocate_buffer(int32_t size) {
  if (size < 0) {
    return nullptr;
  }
  return copy_buffer(new (std::nothrow) uint8_t[static_cast<uint32_t>(size)]);
}

// Tells the destination how much will come. False when it cannot hold that.
bool reserve_space(int32_t source_fd, int32_t destination_fd, const char* destination) {
  zantrolume_next_step(copying_step);
  const int32_t size = ifs_fd_get_size(source_fd);
  if (size <= 0) {
    return true;
  }
  zantrolume_next_step(copying_step);
  const int32_t free_bytes = ifs_get_free_bytes(destination);
  if (free_bytes >= 0 && size > free_bytes) {
    return false;
  }
  zantrolume_next_step(copying_step);
  ifs_fd_set_size(destination_fd, static_cast<uint32_t>(size));
  return true;
}

// Copies until the source ends. False after a message.
bool copy_data(const copy_request& request, int32_t source_fd, int32_t destination_fd,
               uint8_t* buffer) {
  for (;;) {
    zantrolume_next_step(copying_step);
    const int32_t got =
        ifs_read_until(source_fd, buffer, static_cast<uint32_t>(request.buffer_size));
    if (got < 0) {
      report_error(request.source, errno);
      return false;
    }
    if (got == 0) {
      return true;
    }
    process_suspend();
    zantrolume_next_step(copying_step);
    if (ifs_write_until(destination_fd, buffer, static_cast<uint32_t>(got)) != got) {
      report_error(request.destination, errno);
      return false;
    }
    process_suspend();
    putchar('.');
  }
}

int copy_between(const copy_request& request, int32_t source_fd, int32_t destination_fd,
                 uint8_t* buffer) {
  const bool fits = reserve_space(source_fd, destination_fd, request.destination);
  bool copied = false;
  if (fits) {
    copied = copy_data(request, source_fd, destination_fd, buffer);
    putchar('\n');
  } else {
    puts("Not enough space on device");
  }
  zantrolume_next_step(copying_step);
  ifs_close(source_fd);
  zantrolume_next_step(copying_step);
  ifs_close(destination_fd);
  if (!copied) {
    zantrolume_next_step(copying_step);
    // What failed has been told; a destination that cannot be removed either stays.
    (void)ifs_remove(request.destination);
    return 1;
  }
  // The descriptors are closed by now, so that a type is never found. That order is kept.
  const int32_t type = ifs_fd_get_type(source_fd);
  if (type >= 0) {
    ifs_fd_set_type(destination_fd, static_cast<uint32_t>(type));
  }
  printf("File \"%s\" successfully copied to \"%s\"\n", request.source, request.destination);
  return 0;
}

}  // namespace

int copy_cmd(int argc, char* argv[]) {
  if (!start_or_abort()) {
    return 1;
  }
  copy_request request = {};
  if (!parse_copy(argc, argv, &request)) {
    return -1;
  }
  const copy_buffer buffer = allocate_buffer(request.buffer_size);
  if (buffer == nullptr) {
    printf("Unable to allocate %d bytes for buffer\n", request.buffer_size);
    return 1;
  }
  zantrolume_next_step(copying_step);
  const int32_t source_fd = ifs_open(request.source, ifs_open_read, 0);
  if (source_fd < 0) {
    report_error(request.source, errno);
    return 1;
  }
  zantrolume_next_step(copying_step);
  const int32_t destination_fd = ifs_open(request.destination, destination_flags, 0);
  if (destination_fd < 0) {
    report_error(request.destination, errno);
    zantrolume_next_step(copying_step);
    ifs_close(source_fd);
    return 0;
  }
  return copy_between(request, source_fd, destination_fd, buffer.get());
}

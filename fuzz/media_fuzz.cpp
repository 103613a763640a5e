// Any bytes as a media file: every parser in the dispatch order sees them,
// once for metadata only and once with seek data built.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "media/MediaStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("media", 0);
  if (fd < 0) return 0;
  if (size == 0 || write(fd, data, size) == static_cast<ssize_t>(size)) {
    MediaStream_new(fd, 0, static_cast<int64_t>(size), true);
    MediaStream_new(fd, 0, static_cast<int64_t>(size), false);
  }
  close(fd);
  return 0;
}

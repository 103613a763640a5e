// The one entry to the format parsers: MediaStream_new tries them in a
// fixed order on an open descriptor; the first that recognises the content
// fills the record.
#pragma once

#include <cstdint>
#include <memory>

#include "media/MediaRecord.h"

void MediaStream_delete(MediaStream* stream);

struct MediaStreamDeleter {
  void operator()(MediaStream* stream) const { MediaStream_delete(stream); }
};
using MediaStreamPtr = std::unique_ptr<MediaStream, MediaStreamDeleter>;

// Probes `length` bytes of media data starting at `offset` in `fd`. Null when
// no parser recognises the content. The descriptor's position is not restored.
MediaStreamPtr MediaStream_new(int fd, int64_t offset, int64_t length, bool metadataOnly);


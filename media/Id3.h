// Reader for ID3v2 tags (versions 2.2, 2.3 and 2.4). MP3 files carry the tag
// at their start; WAV and AVI files may embed one in an "id3 " chunk.
#pragma once

#include <cstdint>

#include "media/MediaRecord.h"

// Looks for an ID3v2 tag at `start` within `length` bytes of data and fills
// the record's texts, date and cover location from its frames. True when a
// tag header was found, whether or not its frames could be read; the
// descriptor is then positioned just behind the tag.
bool Id3_ReadTag(int fd, int64_t start, int64_t length, MediaStream& stream);

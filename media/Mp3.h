// Seek data that the MPEG audio parser leaves in the record when asked for
// more than metadata: where the audio starts, how long it is, and either the
// "Xing" table of contents or the constant frame length.
#pragma once

#include <array>
#include <cstdint>

#include "media/MediaRecord.h"

struct Mp3SeekInfo final : MediaSeekInfo {
  int64_t firstFrameOffset = 0;    // from the start of the file
  int64_t audioLength = 0;         // bytes from the first frame on
  uint32_t samplesPerFrame = 0;
  uint32_t frameLength = 0;        // 0 when `toc` holds a table of contents
  std::array<uint8_t, 100> toc{};  // percent of the file at each percent of the time
};

// The seek data the FLAC parser builds when asked for more than metadata: where
// the audio frames lie and the seek points of the file's seek table.
#pragma once

#include <cstdint>
#include <vector>

#include "media/MediaRecord.h"

struct FlacSeekPoint {
  uint64_t sampleNumber = 0;  // first sample of the target frame
  uint64_t byteOffset = 0;    // of the target frame, from the first audio frame
  uint16_t sampleCount = 0;   // samples in the target frame
};

struct FlacSeekInfo : MediaSeekInfo {
  int64_t audioOffset = 0;  // first audio frame, from the start of the file
  int64_t audioLength = 0;  // bytes from there to the end of the data
  std::vector<FlacSeekPoint> points;
};

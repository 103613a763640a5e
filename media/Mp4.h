// The seek data that the MP4 parser builds when asked for more than metadata:
// where each kept track's sample tables lie in the file, for time seeking.
#pragma once

#include <cstdint>
#include <vector>

#include "media/MediaRecord.h"

// A box payload inside the file; length 0 when the box was absent.
struct Mp4Span {
  int64_t position = 0;
  int64_t length = 0;
};

// The sample tables of one track, in the order of MediaStream::streamInfo.
struct Mp4SampleTables {
  uint32_t trackId = 0;
  uint32_t timescale = 0;
  Mp4Span references;          // tref
  Mp4Span timeToSample;        // stts
  Mp4Span sampleToChunk;       // stsc
  Mp4Span sampleSizes;         // stsz
  Mp4Span chunkOffsets;        // stco, or co64 when chunkOffsets64
  Mp4Span compositionOffsets;  // ctts
  Mp4Span syncSamples;         // stss
  bool chunkOffsets64 = false;
};

struct Mp4SeekInfo final : MediaSeekInfo {
  int64_t dataStart = 0;
  int64_t dataLength = 0;
  std::vector<Mp4SampleTables> tracks;
};

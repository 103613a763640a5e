// Probing fixture bytes inside a test: PROBE(bytes) gives the record by value,
// or records a failure at the calling line and gives an empty record when no
// parser recognised the bytes, so one line can probe and check a field.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/fixtures/MediaProbe.h"

inline MediaStream ProbeCheck(const char* file, int line, const std::vector<uint8_t>& bytes,
                              bool metadataOnly = true) {
  MediaStreamPtr stream = MediaProbe_Bytes(bytes, metadataOnly);
  if (!stream) {
    ADD_FAILURE_AT(file, line) << "fixture not recognised";
    return {};
  }
  return std::move(*stream);
}

#define PROBE(...) ProbeCheck(__FILE__, __LINE__, __VA_ARGS__)

// A stream's fields as "number kind enabled duration/timescale rate channels
// bits widthxheight bpp", so that one comparison pins all of them.
inline std::string StreamText(const StreamInfo& s) {
  return std::to_string(s.streamNumber) + " " + std::to_string(s.streamKind) + " " + std::to_string(s.enabled) +
         " " + std::to_string(s.duration) + "/" + std::to_string(s.timescale) + " " + std::to_string(s.sampleRate) +
         " " + std::to_string(s.channels) + " " + std::to_string(s.bitsPerSample) + " " + std::to_string(s.width) +
         "x" + std::to_string(s.height) + " " + std::to_string(s.bitsPerPixel);
}

// Probing fixture bytes inside a test: PROBE(bytes) gives the record by value,
// or records a failure at the calling line and gives an empty record when no
// parser recognised the bytes, so one line can probe and check a field.
#pragma once

#include <gtest/gtest.h>

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

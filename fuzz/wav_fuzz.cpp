// Any bytes as a file handed straight to the RIFF parser, which reads both
// WAV and AVI; this harness's corpus grows from WAV files.
#include "fuzz/FuzzSupport.h"
#include "media/MediaParsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ParseWith(data, size, MediaParse_Riff);
  return 0;
}

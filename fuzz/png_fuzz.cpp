// Any bytes as a file handed straight to the PNG parser, which the dispatch
// would only let see what the parsers before it refused.
#include "fuzz/FuzzSupport.h"
#include "media/MediaParsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ParseWith(data, size, MediaParse_Png);
  return 0;
}

// Any bytes to the ID3v2 tag reader alone, as MP3 files carry a tag at their
// start and WAV and AVI files inside a chunk: at the start of the file and,
// when the input is long enough, behind a first byte.
#include "fuzz/FuzzSupport.h"
#include "media/Id3.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::MemoryFile file(fuzz::Text(data, size));
  if (file.fd() < 0) return 0;
  MediaStream stream;
  Id3_ReadTag(file.fd(), 0, static_cast<int64_t>(size), stream);
  if (size < 2) return 0;
  MediaStream inner;
  Id3_ReadTag(file.fd(), 1, static_cast<int64_t>(size) - 1, inner);
  return 0;
}

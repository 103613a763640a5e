// Format dispatch for media files. The parsers are tried in a fixed order,
// loosest test last, so that a file is claimed by the format whose signature
// it really carries.
#include "media/MediaStream.h"

#include <array>
#include <new>

#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

struct ParserSlot {
  const char* format;  // for readers of this table
  MediaParser parse;
};

// MP3 stays last: its search for a frame header is the loosest test.
constexpr std::array<ParserSlot, 9> kParsers{{
    {"riff", MediaParse_Riff},
    {"png", MediaParse_Png},
    {"gif", MediaParse_Gif},
    {"flac", MediaParse_Flac},
    {"mp4", MediaParse_Mp4},
    {"matroska", MediaParse_Matroska},
    {"tiff", MediaParse_Tiff},
    {"jpeg", MediaParse_Jpeg},
    {"mp3", MediaParse_Mp3},
}};

template <size_t N>
void dropIfNotUtf8(std::optional<std::string>& text, const char (&note)[N]) {
  if (!text || MediaStream_IsUtf8(text->c_str())) return;
  text.reset();
  MediaNote_Shortcut(note);
}

}  // namespace

void MediaStream_delete(MediaStream* stream) { delete stream; }

MediaStreamPtr MediaStream_new(int fd, int64_t offset, int64_t length, bool metadataOnly) {
  if (fd < 0 || length <= 0) return nullptr;
  MediaStreamPtr stream(new (std::nothrow) MediaStream);
  if (!stream) return nullptr;
  MediaReadWindow window(fd);
  try {
    for (const ParserSlot& slot : kParsers) {
      *stream = MediaStream{};
      if (!slot.parse(fd, offset, length, *stream, metadataOnly)) continue;
      dropIfNotUtf8(stream->title, "tags: the title is not UTF-8 (Latin-1?) and is dropped");
      dropIfNotUtf8(stream->artist, "tags: the artist is not UTF-8 (Latin-1?) and is dropped");
      dropIfNotUtf8(stream->album, "tags: the album is not UTF-8 (Latin-1?) and is dropped");
      dropIfNotUtf8(stream->genre, "tags: the genre is not UTF-8 (Latin-1?) and is dropped");
      return stream;
    }
  } catch (const std::bad_alloc&) {
    // The file is not read this time; the reason overrides any parser's.
    if (mediaNotes) mediaNotes->reason = "out of memory while the file was read";
  }
  return nullptr;
}

// The format dispatch as a whole: a parser claims a file by the signature at
// the given offset and keeps it even when the rest is damaged, offsets and
// lengths bound what is read, and tag texts that are not UTF-8 of at most
// three bytes per character are dropped on the way out.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/FlacFixture.h"
#include "tests/fixtures/GifFixture.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/PngFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

// Bytes that no parser takes for a signature or a frame header.
std::vector<uint8_t> neutralBytes(size_t count) {
  return std::vector<uint8_t>(count, 0x20);
}

TEST(MediaDispatch, FirstClaimingParserKeepsDamagedFiles) {
  // A PNG without its header chunk, a FLAC with only a marker, a GIF with an
  // empty screen: each is claimed by its format and left without a stream,
  // rather than handed on to a later parser.
  ByteWriter png;
  png.bytes(PngFixture_File({PngFixture_Text("Title", "no header")})).bytes(FlacFixture_Song("", "", "", "", ""));
  MediaStream stream = PROBE(png.data());
  EXPECT_STREQ(stream.mimeType, "image/png");
  EXPECT_EQ(stream.streamCount(), 0);
  EXPECT_EQ(stream.title, "no header");

  ByteWriter flac;
  flac.text("fLaC").u32be(0x7F000000).bytes(GifFixture_Picture("89a", 4, 4, 2));
  stream = PROBE(flac.data());
  EXPECT_STREQ(stream.mimeType, "audio/flac");
  EXPECT_EQ(stream.mediaType, MediaType_Audio);
  EXPECT_EQ(stream.duration, 1u);
  EXPECT_EQ(stream.streamCount(), 0);

  stream = PROBE(GifFixture_Picture("87a", 0, 0, 1));
  EXPECT_STREQ(stream.mimeType, "image/gif");
  EXPECT_EQ(stream.streamCount(), 0);

  // Unknown content is refused as a whole.
  EXPECT_EQ(MediaProbe_Bytes(neutralBytes(2000)), nullptr);
}

TEST(MediaDispatch, SignaturesCountOnlyAtTheOffset) {
  const auto song = FlacFixture_Song("Offset song", "", "", "", "2009");
  ByteWriter file;
  file.bytes(neutralBytes(100)).bytes(song).bytes(neutralBytes(50));
  FixtureFile fixture(file.data());
  ASSERT_GE(fixture.fd(), 0);

  // Embedded behind other bytes the FLAC is not found...
  EXPECT_EQ(MediaStream_new(fixture.fd(), 0, fixture.size(), true), nullptr);
  // ...but is from its own offset, and the cover is located from the start
  // of the file, not of the data.
  auto stream = MediaStream_new(fixture.fd(), 100, int64_t(song.size()), true);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Offset song");
  const auto jpeg = JpegFixture_Cover();
  ASSERT_EQ(stream->coverLength, int64_t(jpeg.size()));
  EXPECT_EQ(file.data()[stream->coverOffset], 0xFF);
  EXPECT_EQ(file.data()[stream->coverOffset + 1], 0xD8);
  EXPECT_EQ(file.data()[stream->coverOffset + stream->coverLength - 1], 0xD9);

  // The length bounds the walk: blocks past it are not read even though the
  // file goes on.
  stream = MediaStream_new(fixture.fd(), 100, 4 + 4 + 34, true);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->streamCount(), 1);
  EXPECT_EQ(stream->title, std::nullopt);
  EXPECT_EQ(stream->coverLength, 0);

  stream = MediaStream_new(fixture.fd(), 100 + int64_t(song.size()) + 50, 10, true);
  EXPECT_EQ(stream, nullptr);  // past the end of the file
}

TEST(MediaDispatch, TagsThatAreNotUtf8AreDropped) {
  MediaStream stream = PROBE(FlacFixture_File({
      FlacFixture_StreamInfo(44100, 2, 16, 44100),
      FlacFixture_Comments({
          "TITLE=smile \xF0\x9F\x98\x80 please",  // four-byte form
          "ARTIST=caf\xE9 au lait",               // Latin-1
          "ALBUM=caf\xC3\xA9 \xE2\x82\xAC",       // two- and three-byte forms
          "GENRE=cut \xE2\x82",                   // cut short by the end
      }),
  }));
  EXPECT_EQ(stream.title, std::nullopt);
  EXPECT_EQ(stream.artist, std::nullopt);
  EXPECT_EQ(stream.album, "caf\xC3\xA9 \xE2\x82\xAC");
  EXPECT_EQ(stream.genre, std::nullopt);
  // The rest of the record stands.
  EXPECT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.date, 0);

  // PNG text chunks are Latin-1 by nature: such a title does not survive.
  stream = PROBE(PngFixture_Picture(2, 2, "Caf\xE9", "2009-06-15 10:20:30"));
  EXPECT_EQ(stream.title, std::nullopt);
  EXPECT_NE(stream.date, 0);
  stream = PROBE(PngFixture_Picture(2, 2, "plain ASCII", ""));
  EXPECT_EQ(stream.title, "plain ASCII");
}

}  // namespace

namespace {

// Probes `bytes` from a temporary file whose descriptor was left at its end.
MediaStreamPtr probeFromEnd(const std::vector<uint8_t>& bytes) {
  FILE* file = std::tmpfile();
  if (!file) return nullptr;
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fflush(file);
  MediaStreamPtr stream = MediaStream_new(fileno(file), 0, static_cast<int64_t>(bytes.size()), true);
  std::fclose(file);
  return stream;
}

TEST(MediaDispatch, ProbesStartFreshAndNeedASeekableDescriptor) {
  // Back to back on one thread, each probe sees its own file, whatever the
  // descriptor's position, and nothing of the file probed before.
  const std::vector<uint8_t> gif = GifFixture_Picture("89a", 4, 4, 2);
  const std::vector<uint8_t> png = PngFixture_File({PngFixture_Text("Title", "second")});
  MediaStreamPtr first = probeFromEnd(gif);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->mimeType, "image/gif");
  MediaStreamPtr second = probeFromEnd(png);
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->mimeType, "image/png");
  EXPECT_EQ(second->title, "second");

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], gif.data(), gif.size()), static_cast<ssize_t>(gif.size()));
  ::close(ends[1]);
  EXPECT_EQ(MediaStream_new(ends[0], 0, static_cast<int64_t>(gif.size()), true), nullptr);
  ::close(ends[0]);
}

}  // namespace

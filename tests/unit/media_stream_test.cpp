// The shared readers of the media module and the UTF-8 rules applied to tags.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "media/MediaStream.h"

namespace {

TEST(MediaStream, RejectsBadDescriptorAndLength) {
  EXPECT_EQ(MediaStream_new(-1, 0, 100, true), nullptr);
  EXPECT_EQ(MediaStream_new(0, 0, 0, true), nullptr);
  EXPECT_EQ(MediaStream_new(0, 0, -5, true), nullptr);
  MediaStream_delete(nullptr);
}

TEST(MediaStream, Utf8Rules) {
  EXPECT_TRUE(MediaStream_IsUtf8("plain"));
  EXPECT_TRUE(MediaStream_IsUtf8("caf\xC3\xA9 \xE2\x82\xAC"));
  EXPECT_TRUE(MediaStream_IsUtf8("\xC0\x80"));  // overlong forms pass
  EXPECT_FALSE(MediaStream_IsUtf8(nullptr));
  EXPECT_FALSE(MediaStream_IsUtf8("caf\xE9 au lait"));      // Latin-1
  EXPECT_FALSE(MediaStream_IsUtf8("smile \xF0\x9F\x98\x80"));  // four-byte form
  EXPECT_FALSE(MediaStream_IsUtf8("cut \xE2\x82"));          // cut by the end
}

TEST(MediaStream, ReadersAreExactAndLeaveTargetsOnShortRead) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  const unsigned char bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0x11};
  ASSERT_EQ(std::fwrite(bytes, 1, sizeof bytes, file), sizeof bytes);
  std::fflush(file);
  int fd = fileno(file);

  uint16_t u16 = 0;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U16BE(fd, u16));
  EXPECT_EQ(u16, 0x1234);
  ASSERT_TRUE(MediaRead_U16LE(fd, u16));
  EXPECT_EQ(u16, 0x7856);
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U32LE(fd, u32));
  EXPECT_EQ(u32, 0x78563412u);
  ASSERT_TRUE(MediaRead_U32BE(fd, u32));
  EXPECT_EQ(u32, 0x9ABCDEF0u);
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U64BE(fd, u64));
  EXPECT_EQ(u64, 0x123456789ABCDEF0ull);

  u32 = 7;
  EXPECT_FALSE(MediaRead_U32BE(fd, u32));  // one byte left
  EXPECT_EQ(u32, 7u);
  std::fclose(file);
}

TEST(MediaStream, BitReaderAndWriterAgree) {
  uint8_t buffer[6] = {0xA5, 0x0F, 0xF0, 0x00, 0x00, 0x00};
  EXPECT_EQ(MediaBits_Get(buffer, 0, 4), 0xAu);
  EXPECT_EQ(MediaBits_Get(buffer, 4, 8), 0x50u);
  EXPECT_EQ(MediaBits_Get(buffer, 12, 8), 0xFFu);
  EXPECT_EQ(MediaBits_GetSigned(buffer, 0, 4), -6);
  EXPECT_EQ(MediaBits_GetSigned(buffer, 4, 4), 5);

  uint8_t out[6] = {};
  MediaBits_Put(out, 3, 13, 0x1ABC);
  EXPECT_EQ(MediaBits_Get(out, 3, 13), 0x1ABCu);
  EXPECT_EQ(out[0], 0x1A);
  MediaBits_Put(out, 16, 32, 0xDEADBEEF);
  EXPECT_EQ(MediaBits_Get(out, 16, 32), 0xDEADBEEFu);
}

TEST(MediaStream, Utf8EncoderWidths) {
  char out[4];
  EXPECT_EQ(MediaUtf8_Encode(0x41, out), 1u);
  EXPECT_EQ(out[0], 'A');
  EXPECT_EQ(MediaUtf8_Encode(0xE9, out), 2u);
  EXPECT_EQ(std::string(out, 2), "\xC3\xA9");
  EXPECT_EQ(MediaUtf8_Encode(0x20AC, out), 3u);
  EXPECT_EQ(std::string(out, 3), "\xE2\x82\xAC");
  EXPECT_EQ(MediaUtf8_Encode(0xD83D, out), 3u);  // lone surrogate unit, encoded as is
}

}  // namespace

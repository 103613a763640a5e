// The shared readers of the media module and the UTF-8 rules applied to tags.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

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

TEST(MediaStream, LittleEndianDecoders) {
  const uint8_t bytes[4] = {0xEF, 0xBE, 0xAD, 0xDE};
  EXPECT_EQ(Bytes_U16LE(bytes), 0xBEEFu);
  EXPECT_EQ(Bytes_U16LE(bytes + 2), 0xDEADu);
  EXPECT_EQ(Bytes_U32LE(bytes), 0xDEADBEEFu);
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

TEST(MediaStream, IntegerScanFollowsScanfRules) {
  // The count of conversions and the values, with room for `capacity` values.
  auto scan = [](const char* text, const char* format, int capacity) {
    std::vector<int> v(static_cast<size_t>(capacity), 42);
    const int count = MediaScan_Ints(text, format, v.data(), capacity);
    return std::pair(count, v);
  };
  using Result = std::pair<int, std::vector<int>>;
  EXPECT_EQ(scan("2009-06-15", "%d-%d-%d", 3), Result(3, {2009, 6, 15}));
  // Conversions skip leading white space; a space in the format matches any
  // run, also none; other characters must match exactly.
  EXPECT_EQ(scan(" 2009:06:15   1:02:03", "%d:%d:%d %d:%d:%d", 6), Result(6, {2009, 6, 15, 1, 2, 3}));
  EXPECT_EQ(scan("2009-06-15T10:20:30", "%d-%d-%d %d:%d:%d", 6).first, 3);
  EXPECT_EQ(scan("2009-06-15T10:20:30", "%d-%d-%dT%d:%d:%d", 6), Result(6, {2009, 6, 15, 10, 20, 30}));
  EXPECT_EQ(scan("2009:06:15", "%d-%d-%d", 3).first, 1);
  EXPECT_EQ(scan("-7-+8", "%d-%d", 2), Result(2, {-7, 8}));
  for (const char* text : {"x2009", "", "-"}) EXPECT_EQ(scan(text, "%d", 1).first, 0) << text;
  EXPECT_EQ(scan("99999999999999999999 -99999999999999999999", "%d %d", 2), Result(2, {INT_MAX, INT_MIN}));
  // Counted, but stored only up to the capacity.
  int v[2] = {0, 42};
  EXPECT_EQ(MediaScan_Ints("1 2", "%d %d", v, 1), 2);
  EXPECT_EQ(v[1], 42);
}

TEST(MediaStream, DatesAreUtcAndFitThirtyTwoBits) {
  EXPECT_EQ(MediaDate_Make(2009, 1, 1, 0, 0, 0), 1230768000);
  EXPECT_EQ(MediaDate_Make(2009, 6, 15, 10, 20, 30), 1245061230);
  EXPECT_EQ(MediaDate_Make(2009, 13, 1, 0, 0, 0), 1262304000);  // rolls over into 2010
  EXPECT_EQ(MediaDate_Make(1970, 1, 1, 0, 0, 0), 0);
  EXPECT_EQ(MediaDate_Make(1969, 12, 31, 23, 59, 59), std::nullopt);  // -1 reads as failure
  EXPECT_EQ(MediaDate_Make(2038, 1, 19, 3, 14, 7), INT32_MAX);
  EXPECT_EQ(MediaDate_Make(2038, 1, 19, 3, 14, 8), std::nullopt);
  EXPECT_EQ(MediaDate_Make(INT_MAX, INT_MIN, INT_MAX, 0, 0, 0), std::nullopt);
}

TEST(MediaStream, DateTextsTakeTheFormatThatReadsMost) {
  // Missing fields default to 1 January, midnight.
  EXPECT_EQ(MediaDate_Scan("2009", {"%d-%d-%d"}, 1), 1230768000);
  EXPECT_EQ(MediaDate_Scan("2009-06-15", {"%d-%d-%d"}, 1), 1245024000);
  // A second format counts only when it reads more numbers than the first.
  EXPECT_EQ(MediaDate_Scan("2009:06:15", {"%d-%d-%d"}, 1), 1230768000);
  EXPECT_EQ(MediaDate_Scan("2009:06:15", {"%d-%d-%d", "%d:%d:%d"}, 1), 1245024000);
  EXPECT_EQ(MediaDate_Scan("June", {"%d-%d-%d"}, 1), std::nullopt);
  EXPECT_EQ(MediaDate_Scan("2100-01-01", {"%d-%d-%d"}, 1), std::nullopt);  // beyond 32-bit seconds
  // Time stamps need all six numbers, in any of the three forms.
  EXPECT_EQ(MediaDate_ScanStamp("2009:06:15 10:20:30"), 1245061230);
  EXPECT_EQ(MediaDate_ScanStamp("2009-06-15 10:20:30"), 1245061230);
  EXPECT_EQ(MediaDate_ScanStamp("2009-06-15T10:20:30"), 1245061230);
  EXPECT_EQ(MediaDate_ScanStamp("2009-06-15 10:20"), std::nullopt);
  EXPECT_EQ(MediaDate_ScanStamp("2009-06-15"), std::nullopt);
}

}  // namespace

// The shared readers of the media module: positioned integers of both byte
// orders, bit fields, UTF-8 encoding, the integer scan and UTC dates.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "media/MediaStream.h"

namespace {

TEST(MediaStream, ReadersAreExactAndLeaveTargetsOnShortRead) {
  FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  const unsigned char bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0x11};
  ASSERT_EQ(std::fwrite(bytes, 1, sizeof bytes, file), sizeof bytes);
  std::fflush(file);
  const int fd = fileno(file);
  uint16_t u16a = 0, u16b = 0;
  uint32_t u32a = 0, u32b = 0;
  uint64_t u64 = 0;
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U16BE(fd, u16a) && MediaRead_U16LE(fd, u16b));
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U32LE(fd, u32a) && MediaRead_U32BE(fd, u32b));
  ASSERT_EQ(MediaSeek(fd, 0, SEEK_SET), 0);
  ASSERT_TRUE(MediaRead_U64BE(fd, u64));
  EXPECT_EQ(std::tuple(u16a, u16b, u32a, u32b, u64),
            std::tuple(uint16_t(0x1234), uint16_t(0x7856), 0x78563412u, 0x9ABCDEF0u, 0x123456789ABCDEF0ull));
  u32a = 7;
  EXPECT_FALSE(MediaRead_U32BE(fd, u32a));  // one byte left
  EXPECT_EQ(u32a, 7u);
  std::fclose(file);

  const uint8_t le[4] = {0xEF, 0xBE, 0xAD, 0xDE};
  EXPECT_EQ(std::pair(Bytes_U16LE(le + 2), Bytes_U32LE(le)), std::pair(uint16_t(0xDEAD), 0xDEADBEEFu));
}

TEST(MediaStream, BitFieldsAndUtf8Encoding) {
  uint8_t buffer[6] = {0xA5, 0x0F, 0xF0, 0x00, 0x00, 0x00};
  EXPECT_EQ(std::tuple(MediaBits_Get(buffer, 4, 8), MediaBits_Get(buffer, 12, 8), MediaBits_GetSigned(buffer, 0, 4),
                       MediaBits_GetSigned(buffer, 4, 4)),
            std::tuple(0x50u, 0xFFu, -6, 5));
  uint8_t out[6] = {};
  MediaBits_Put(out, 3, 13, 0x1ABC);
  MediaBits_Put(out, 16, 32, 0xDEADBEEF);
  EXPECT_EQ(std::tuple(out[0], MediaBits_Get(out, 3, 13), MediaBits_Get(out, 16, 32)),
            std::tuple(uint8_t(0x1A), 0x1ABCu, 0xDEADBEEFu));

  // A lone surrogate unit is encoded as it is.
  for (auto [code, text] : {std::pair<uint32_t, std::string>{0x41, "A"}, {0xE9, "\xC3\xA9"}, {0x20AC, "\xE2\x82\xAC"},
                            {0xD83D, "\xED\xA0\xBD"}}) {
    char encoded[4];
    EXPECT_EQ(std::string(encoded, MediaUtf8_Encode(code, encoded)), text);
  }
}

TEST(MediaStream, IntegerScanFollowsScanfRules) {
  auto scan = [](const char* text, const char* format, int capacity) {
    std::vector<int> v(static_cast<size_t>(capacity), 42);
    const int count = MediaScan_Ints(text, format, v.data(), capacity);
    return std::pair(count, v);
  };
  using Result = std::pair<int, std::vector<int>>;
  // Conversions skip leading white space; a space in the format matches any
  // run, also none; other characters must match exactly.
  EXPECT_EQ(scan(" 2009:06:15   1:02:03", "%d:%d:%d %d:%d:%d", 6), Result(6, {2009, 6, 15, 1, 2, 3}));
  EXPECT_EQ(scan("2009-06-15T10:20:30", "%d-%d-%d %d:%d:%d", 6).first, 3);
  EXPECT_EQ(scan("-7-+8", "%d-%d", 2), Result(2, {-7, 8}));
  for (const char* text : {"x2009", "", "-"}) EXPECT_EQ(scan(text, "%d", 1).first, 0) << text;
  EXPECT_EQ(scan("99999999999999999999 -99999999999999999999", "%d %d", 2), Result(2, {INT_MAX, INT_MIN}));
  EXPECT_EQ(scan("1 2", "%d %d", 1), Result(2, {1}));  // counted, but stored only up to the capacity
}

TEST(MediaStream, DatesAreUtcAndFitThirtyTwoBits) {
  EXPECT_EQ(MediaDate_Make(2009, 6, 15, 10, 20, 30), 1245061230);
  EXPECT_EQ(MediaDate_Make(2009, 13, 1, 0, 0, 0), 1262304000);  // rolls over into 2010
  EXPECT_EQ(MediaDate_Make(1969, 12, 31, 23, 59, 59), std::nullopt);  // -1 reads as failure
  EXPECT_EQ(MediaDate_Make(2038, 1, 19, 3, 14, 7), INT32_MAX);
  EXPECT_EQ(MediaDate_Make(2038, 1, 19, 3, 14, 8), std::nullopt);
  EXPECT_EQ(MediaDate_Make(INT_MAX, INT_MIN, INT_MAX, 0, 0, 0), std::nullopt);
  // A second format counts only when it reads more numbers than the first.
  EXPECT_EQ(MediaDate_Scan("2009:06:15", {"%d-%d-%d"}, 1), 1230768000);
  EXPECT_EQ(MediaDate_Scan("2009:06:15", {"%d-%d-%d", "%d:%d:%d"}, 1), 1245024000);
  EXPECT_EQ(MediaDate_Scan("June", {"%d-%d-%d"}, 1), std::nullopt);
  // Time stamps need all six numbers, in any of the three forms.
  for (const char* stamp : {"2009:06:15 10:20:30", "2009-06-15 10:20:30", "2009-06-15T10:20:30"}) {
    EXPECT_EQ(MediaDate_ScanStamp(stamp), 1245061230) << stamp;
  }
  EXPECT_EQ(MediaDate_ScanStamp("2009-06-15 10:20"), std::nullopt);
}

}  // namespace

// UUID layout and the strictness of the text parser.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "upnp/UUID.h"

namespace {

TEST(Uuid, GeneratedLayoutAndUniqueness) {
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    UUID uuid{};
    UUID_Generate(uuid);
    EXPECT_EQ(uuid[6], 0x10);
    EXPECT_EQ(uuid[8], 0x80);
    char text[UUID_TextSize];
    ASSERT_EQ(UUID_Unparse(uuid, text), 36);
    EXPECT_EQ(std::string(text).substr(14, 2), "10");
    EXPECT_EQ(std::string(text).substr(19, 2), "80");
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 50u);
}

TEST(Uuid, TextRoundTripsInBothCases) {
  const UUID original = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x10, 0x00,
                         0x80, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  char upper[UUID_TextSize];
  char lower[UUID_TextSize];
  UUID_Unparse(original, upper);
  UUID_UnparseLower(original, lower);
  EXPECT_STREQ(upper, "DEADBEEF-0102-1000-8000-AABBCCDDEEFF");
  EXPECT_STREQ(lower, "deadbeef-0102-1000-8000-aabbccddeeff");
  for (const char* text : {upper, lower}) {
    UUID parsed{};
    ASSERT_EQ(UUID_Parse(text, parsed), 0);
    EXPECT_EQ(UUID_Compare(parsed, original), 0);
  }
}

TEST(Uuid, ParseRejectsNearMisses) {
  UUID uuid{};
  EXPECT_EQ(UUID_Parse("DEADBEEF-0102-1000-8000-AABBCCDDEEFF ", uuid), -1);  // trailing text
  EXPECT_EQ(UUID_Parse("DEADBEEF-0102-1000-8000-AABBCCDDEEF", uuid), -1);    // 35 characters
  EXPECT_EQ(UUID_Parse("DEADBEEF-0102-1000-AABBCCDDEEFF", uuid), -1);        // missing group
  EXPECT_EQ(UUID_Parse(nullptr, uuid), -1);
  EXPECT_TRUE(UUID_IsNull(uuid));  // untouched by the failures
}

}  // namespace

// The UUID text forms and the strictness of the parser (generated UUIDs are
// seen on the wire as the SIDs of subscriptions).
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "upnp/UUID.h"

namespace {

TEST(Uuid, TextRoundTripsInBothCases) {
  const UUID original = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x10, 0x00,
                         0x80, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  char upper[UUID_TextSize], lower[UUID_TextSize];
  UUID_Unparse(original, upper);
  UUID_UnparseLower(original, lower);
  EXPECT_EQ(std::string(upper) + lower, "DEADBEEF-0102-1000-8000-AABBCCDDEEFFdeadbeef-0102-1000-8000-aabbccddeeff");
  for (const char* text : {upper, lower}) {
    UUID parsed{};
    EXPECT_EQ((std::pair{UUID_Parse(text, parsed), UUID_Compare(parsed, original)}), std::pair(0, 0)) << text;
  }
}

TEST(Uuid, ParseRejectsNearMisses) {
  UUID uuid{};
  // Trailing text, 35 characters, a missing group, nothing.
  for (const char* text : {"DEADBEEF-0102-1000-8000-AABBCCDDEEFF ", "DEADBEEF-0102-1000-8000-AABBCCDDEEF",
                           "DEADBEEF-0102-1000-AABBCCDDEEFF", static_cast<const char*>(nullptr)})
    EXPECT_EQ(UUID_Parse(text, uuid), -1);
  EXPECT_TRUE(UUID_IsNull(uuid));  // untouched by the failures
}

}  // namespace

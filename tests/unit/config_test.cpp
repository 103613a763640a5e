// The configuration lookup is a bare substring search with loose quotes;
// these are the quirks existing files depend on.
#include <gtest/gtest.h>

#include <tuple>

#include "app/Config.h"

namespace {

TEST(Config, FirstOccurrenceOfTheBareKeyWins) {
  const std::string text =
      "dmsModelName = \"Box\"\nmodelNumber = \"7\"\nmodelDescription = \"my xpath tool\"\npath = \"/media\"\n";
  // "path" first occurs inside the description's value: the next quoted text wins.
  EXPECT_EQ(std::tuple(DMSInfo_Lookup(text, "dmsModelName"), DMSInfo_Lookup(text, "modelNumber"),
                       DMSInfo_Lookup(text, "path"), DMSInfo_Lookup(text, "deviceName")),
            std::tuple("Box", "7", "\npath = ", std::nullopt));
}

TEST(Config, QuotesAreNotTiedToTheKey) {
  EXPECT_EQ(DMSInfo_Lookup("deviceName = Box\nmanufacturer = \"Acme\"\n", "deviceName"), "Acme");
  EXPECT_EQ(DMSInfo_Lookup("deviceName = \"Box", "deviceName"), std::nullopt);
  EXPECT_EQ(DMSInfo_Lookup("deviceName = Box", "deviceName"), std::nullopt);
  EXPECT_EQ(DMSInfo_Lookup("deviceName = \"\"\n", "deviceName"), "");
  EXPECT_EQ(DMSInfo_Lookup("path = \"/a\nb\"", "path"), "/a\nb");  // values may span lines
}

TEST(Config, TextEndsAtTheFirstZeroByte) {
  const std::string text("deviceName\0 = \"Hidden\"", 23);
  EXPECT_EQ(DMSInfo_Lookup(text, "deviceName"), std::nullopt);
}

}  // namespace

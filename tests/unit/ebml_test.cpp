// The EBML reader: ID and size encodings, unknown sizes, limits set by the
// enclosing element, the value types and the child walker.
#include "media/Ebml.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/MatroskaFixture.h"

namespace {

bool headerOf(const std::vector<uint8_t>& bytes, EbmlElement& element, int64_t limit = -1) {
  FixtureFile file(bytes);
  return EbmlRead_Header(file.fd(), 0, limit < 0 ? file.size() : limit, element);
}

TEST(Ebml, IdsKeepMarkerBitsAndSizesTakeEveryLength) {
  struct Case {
    std::vector<uint8_t> bytes;
    uint32_t id;
    int64_t dataStart;
    int64_t size;
  };
  const std::vector<Case> cases = {
      {{0xEC, 0x82, 0, 0}, 0xEC, 2, 2},
      {{0x42, 0x86, 0x81, 1}, 0x4286, 3, 1},
      {{0x2A, 0xD7, 0xB1, 0x40, 0x03, 1, 2, 3}, 0x2AD7B1, 5, 3},
      {{0x1A, 0x45, 0xDF, 0xA3, 0x20, 0x00, 0x01, 9}, 0x1A45DFA3, 7, 1},
      {{0xA3, 0x01, 0, 0, 0, 0, 0, 0, 0x02, 7, 7}, 0xA3, 9, 2},
      {{0xBF, 0x80}, 0xBF, 2, 0},
  };
  for (const Case& c : cases) {
    EbmlElement element;
    ASSERT_TRUE(headerOf(c.bytes, element)) << std::hex << c.id;
    EXPECT_EQ(element.id, c.id);
    EXPECT_EQ(element.dataStart, c.dataStart);
    EXPECT_EQ(element.size, c.size);
    EXPECT_FALSE(element.unknownSize);
  }
}

TEST(Ebml, MalformedHeadersAreRefused) {
  EbmlElement element;
  element.id = 77;
  EXPECT_FALSE(headerOf({0x08, 0x11, 0x22, 0x33, 0x44, 0x80}, element));  // 5-byte ID
  EXPECT_FALSE(headerOf({0x00, 0x80, 0x00}, element));                    // no length marker
  EXPECT_FALSE(headerOf({0xFF, 0x80}, element));                          // reserved: all ones
  EXPECT_FALSE(headerOf({0x80, 0x80}, element));                          // reserved: all zero
  EXPECT_FALSE(headerOf({0x40, 0x00, 0x80}, element));                    // two-byte ID, zero data
  EXPECT_FALSE(headerOf({0xEC, 0x00, 0, 0, 0, 0, 0, 0, 0, 0}, element));  // 9-byte size
  EXPECT_FALSE(headerOf({0x1A, 0x45, 0xDF}, element));                    // cut inside the ID
  EXPECT_FALSE(headerOf({0xEC, 0x40}, element));                          // cut inside the size
  EXPECT_EQ(element.id, 77u);
}

TEST(Ebml, PayloadMustFitTheEnclosingElement) {
  EbmlElement element;
  const std::vector<uint8_t> bytes = {0xEC, 0x84, 1, 2, 3, 4, 5, 6};
  EXPECT_TRUE(headerOf(bytes, element, 6));   // exactly up to the limit
  EXPECT_FALSE(headerOf(bytes, element, 5));  // one byte beyond
  EXPECT_FALSE(headerOf(bytes, element, 1));  // not even the header fits
}

TEST(Ebml, UnknownSizeReachesTheEnclosingEnd) {
  EbmlElement element;
  ASSERT_TRUE(headerOf({0xA3, 0xFF, 1, 2, 3, 4, 5}, element, 5));
  EXPECT_TRUE(element.unknownSize);
  EXPECT_EQ(element.size, 3);
  ASSERT_TRUE(headerOf(
      {0x18, 0x53, 0x80, 0x67, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}, element));
  EXPECT_TRUE(element.unknownSize);
  EXPECT_EQ(element.dataStart, 12);
  EXPECT_EQ(element.size, 2);
  // The all-ones pattern of a longer form is unknown too; 0x7FFF is not all ones.
  ASSERT_TRUE(headerOf({0xA3, 0x7F, 0xFF, 9}, element));
  EXPECT_TRUE(element.unknownSize);
  ASSERT_FALSE(headerOf({0xA3, 0x7F, 0xFE, 9}, element));
}

// The children of a file holding `elements`, with the descriptor kept open.
struct Children {
  explicit Children(std::initializer_list<std::vector<uint8_t>> elements) : file(EbmlFixture_Join(elements)) {
    EbmlWalker walker(file.fd(), 0, file.size(), 16);
    EbmlElement element;
    while (walker.next(element)) list.push_back(element);
  }
  // The value read by `read`, or nullopt (and the target untouched) on failure.
  template <typename T, typename Read>
  std::optional<T> value(size_t index, Read read, T start = T(5)) {
    T out = start;
    if (read(file.fd(), list.at(index), out)) return out;
    EXPECT_EQ(out, start);
    return std::nullopt;
  }
  FixtureFile file;
  std::vector<EbmlElement> list;
};

TEST(Ebml, IntegerValues) {
  Children e({
      EbmlFixture_Element(0x81, {}),                  // empty
      EbmlFixture_Element(0x82, {0x01, 0x02, 0x03}),  // three bytes
      EbmlFixture_Element(0x83, {0xFF}),              // -1 signed
      EbmlFixture_Element(0x84, {0x80, 0x00}),        // -32768 signed
      EbmlFixture_Element(0x85, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}),
      EbmlFixture_Element(0x86, {1, 2, 3, 4, 5, 6, 7, 8, 9}),  // too long
  });
  ASSERT_EQ(e.list.size(), 6u);
  const std::optional<uint64_t> unsignedValues[] = {0, 0x010203, 0xFF, 0x8000, 0xFFFFFFFFFFFFFFFEull, std::nullopt};
  const std::optional<int64_t> signedValues[] = {0, 0x010203, -1, -32768, -2, std::nullopt};
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(e.value<uint64_t>(i, EbmlRead_Unsigned), unsignedValues[i]) << i;
    EXPECT_EQ(e.value<int64_t>(i, EbmlRead_Signed), signedValues[i]) << i;
  }
}

TEST(Ebml, FloatAndTextValues) {
  ByteWriter single;
  float f = 1.5f;
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  single.u32be(bits);
  Children e({EbmlFixture_Element(0x81, single.data()), EbmlFixture_Float(0x82, 48000.25),
              EbmlFixture_Element(0x83, {}), EbmlFixture_Element(0x84, {0x40, 0x00})});
  ASSERT_EQ(e.list.size(), 4u);
  const std::optional<double> values[] = {1.5, 48000.25, 0.0, std::nullopt};  // four or eight bytes
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(e.value<double>(i, EbmlRead_Float, 7.0), values[i]) << i;

  // Text is cut at a zero byte and at the limit.
  Children t({EbmlFixture_Element(0x81, {'w', 'e', 'b', 'm', 0, 0, 'x'}), EbmlFixture_Text(0x82, "matroska"),
              EbmlFixture_Text(0x83, "")});
  ASSERT_EQ(t.list.size(), 3u);
  auto text = [&](size_t index, size_t limit) {
    std::string out = "old";
    EXPECT_TRUE(EbmlRead_Text(t.file.fd(), t.list[index], limit, out));
    return out;
  };
  EXPECT_EQ(text(0, 63), "webm");
  EXPECT_EQ(text(1, 5), "matro");
  EXPECT_EQ(text(2, 63), "");
}

TEST(Ebml, WalkerStopsAtLimitEndAndBadChild) {
  const auto parent =
      EbmlFixture_Master(0xA0, {EbmlFixture_Unsigned(0x81, 1), EbmlFixture_Unsigned(0x82, 2),
                                EbmlFixture_Unsigned(0x83, 3)});
  FixtureFile file(EbmlFixture_Join({parent, EbmlFixture_Unsigned(0x84, 4)}));
  EbmlElement element;
  ASSERT_TRUE(EbmlRead_Header(file.fd(), 0, file.size(), element));

  std::vector<uint32_t> ids;
  EbmlElement child;
  EbmlWalker all(file.fd(), element, 16);
  while (all.next(child)) ids.push_back(child.id);
  EXPECT_EQ(ids, (std::vector<uint32_t>{0x81, 0x82, 0x83}));  // the sibling after it is not a child
  EXPECT_FALSE(all.failed());

  ids.clear();
  EbmlWalker two(file.fd(), element, 2);
  while (two.next(child)) ids.push_back(child.id);
  EXPECT_EQ(ids, (std::vector<uint32_t>{0x81, 0x82}));

  // A child that claims more than its parent holds stops the walk as a failure.
  FixtureFile bad(EbmlFixture_Element(0xA0, {0x81, 0x81, 0x01, 0x82, 0x85, 0x00}));
  ASSERT_TRUE(EbmlRead_Header(bad.fd(), 0, bad.size(), element));
  EbmlWalker broken(bad.fd(), element, 16);
  ASSERT_TRUE(broken.next(child));
  EXPECT_EQ(child.id, 0x81u);
  EXPECT_FALSE(broken.next(child));
  EXPECT_TRUE(broken.failed());
  EXPECT_FALSE(broken.next(child));
}

}  // namespace

// The content tree: recursive removal with references and their update ids,
// and the id text forms (lookups, order and child counts are browsed on the
// wire).
#include <gtest/gtest.h>

#include <tuple>

#include "dms/DmsObject.h"

namespace {

const char* cls(DmsMediaClass c) { return dlnaMediaClasses[c]; }

class ContentTree : public ::testing::Test {
 protected:
  void TearDown() override { DmsObject_Free({0, 0}); }
  DmsObject* root = DmsObject_New({0, 0}, "Root", cls(DmsClass_Container), DmsKind_Container, nullptr, nullptr);
};

TEST_F(ContentTree, RecursiveRemovalTakesReferencesAlong) {
  DmsObject* view = DmsObject_New({0, 10}, "All", cls(DmsClass_Container), DmsKind_Container, root, nullptr);
  DmsObject* folder = DmsObject_New({0, 1}, "/media", cls(DmsClass_StorageVolume), DmsKind_Container, root, nullptr);
  DmsObject* sub = DmsObject_New({3, 9}, "sub", cls(DmsClass_StorageFolder), DmsKind_Container, folder, nullptr);
  DmsObject* item = DmsObject_New({3, 10}, "song.mp3", cls(DmsClass_AudioItem), DmsKind_Item, sub, nullptr,
                                  nullptr, 0, 1);
  DmsObject_LinkReference(DmsObject_Reference(item, 0), 2, view, nullptr);
  EXPECT_EQ(std::tuple(DmsObject_GetPath(item), DmsNode_Find({3 | (2ull << 32), 10})->target()),
            std::tuple("/media/sub/song.mp3", item));

  const uint32_t viewUpdate = view->updateId, folderUpdate = folder->updateId;
  DmsObject_Free(sub->id);
  for (DmsObjectId gone : {DmsObjectId{3, 9}, DmsObjectId{3, 10}, DmsObjectId{3 | (2ull << 32), 10}})
    EXPECT_EQ(DmsNode_Find(gone), nullptr);
  EXPECT_EQ(std::tuple(view->firstChild, view->childCount, view->updateId, folder->childCount, folder->updateId),
            std::tuple(nullptr, 0, viewUpdate + 1, 0, folderUpdate + 1));
}

TEST(DmsObjectId, TextForms) {
  char text[DmsObjectId_TextSize];
  DmsObjectId_Format({18446744073709551615ull, 18446744073709551615ull}, text);
  EXPECT_STREQ(text, "18446744073709551615.18446744073709551615");
  DmsObjectId id;
  ASSERT_TRUE(DmsObjectId_Parse("2049.131", id));
  EXPECT_EQ(id, (DmsObjectId{2049, 131}));
  for (const char* text : {"2049", "1.2x", ""}) EXPECT_FALSE(DmsObjectId_Parse(text, id)) << text;
}

}  // namespace

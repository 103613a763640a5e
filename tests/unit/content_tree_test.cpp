// The content tree: the id table, recursive removal with references and
// their update ids, and the id text forms (order and child counts are
// browsed on the wire).
#include <gtest/gtest.h>

#include "dms/DmsObject.h"

namespace {

const char* cls(DmsMediaClass c) { return dlnaMediaClasses[c]; }

class ContentTree : public ::testing::Test {
 protected:
  void TearDown() override { DmsObject_Free({0, 0}); }
  DmsObject* root = DmsObject_New({0, 0}, "Root", cls(DmsClass_Container), DmsKind_Container, nullptr, nullptr);
};

TEST_F(ContentTree, IdTableSeparatesIdsSharingABucket) {
  // 5 and 256 fall into the same of 251 buckets; 7.5 differs only in the high part.
  DmsObject* first = DmsObject_New({0, 5}, "five", cls(DmsClass_Item), DmsKind_Item, root, nullptr);
  DmsObject* second = DmsObject_New({0, 256}, "256", cls(DmsClass_Item), DmsKind_Item, root, nullptr);
  DmsObject* third = DmsObject_New({7, 5}, "7.5", cls(DmsClass_Item), DmsKind_Item, root, nullptr);
  EXPECT_EQ(DmsObject_Find({0, 5}), first);
  EXPECT_EQ(DmsObject_Find({0, 256}), second);
  EXPECT_EQ(DmsObject_Find({7, 5}), third);
  EXPECT_EQ(DmsObject_Find({7, 256}), nullptr);
  DmsObject_Free({0, 256});
  EXPECT_EQ(DmsObject_Find({0, 256}), nullptr);
  EXPECT_EQ(DmsObject_Find({0, 5}), first);
  EXPECT_EQ(DmsObject_Find({7, 5}), third);
}

TEST_F(ContentTree, RecursiveRemovalTakesReferencesAlong) {
  DmsObject* view = DmsObject_New({0, 10}, "All", cls(DmsClass_Container), DmsKind_Container, root, nullptr);
  DmsObject* folder = DmsObject_New({0, 1}, "/media", cls(DmsClass_StorageVolume), DmsKind_Container, root, nullptr);
  DmsObject* sub = DmsObject_New({3, 9}, "sub", cls(DmsClass_StorageFolder), DmsKind_Container, folder, nullptr);
  DmsObject* item = DmsObject_New({3, 10}, "song.mp3", cls(DmsClass_AudioItem), DmsKind_Item, sub, nullptr);
  DmsObject* reference = DmsObject_New({3 | (2ull << 32), 10}, nullptr, item->upnpClass(), DmsKind_Reference, view, nullptr);
  reference->item = item;
  item->references = reference;
  EXPECT_EQ(DmsObject_GetPath(item), "/media/sub/song.mp3");

  const uint32_t viewUpdate = view->updateId;
  const uint32_t folderUpdate = folder->updateId;
  DmsObject_Free(sub->id);
  EXPECT_EQ(DmsObject_Find({3, 9}), nullptr);
  EXPECT_EQ(DmsObject_Find({3, 10}), nullptr);
  EXPECT_EQ(DmsObject_Find({3 | (2ull << 32), 10}), nullptr);
  EXPECT_EQ(view->firstChild, nullptr);
  EXPECT_EQ(view->childCount, 0);
  EXPECT_EQ(view->updateId, viewUpdate + 1);
  EXPECT_EQ(folder->childCount, 0);
  EXPECT_EQ(folder->updateId, folderUpdate + 1);
}

TEST(DmsObjectId, TextForms) {
  char text[DmsObjectId_TextSize];
  DmsObjectId_Format({18446744073709551615ull, 18446744073709551615ull}, text);
  EXPECT_STREQ(text, "18446744073709551615.18446744073709551615");
  DmsObjectId id;
  ASSERT_TRUE(DmsObjectId_Parse("2049.131", id));
  EXPECT_EQ(id, (DmsObjectId{2049, 131}));
  EXPECT_FALSE(DmsObjectId_Parse("2049", id));
  EXPECT_FALSE(DmsObjectId_Parse("1.2x", id));
  EXPECT_FALSE(DmsObjectId_Parse("", id));
}

}  // namespace

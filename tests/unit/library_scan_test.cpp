// The incremental scan over real temporary directories: what appears, in
// which order, what a rename or a hard link does, and the Moments view's
// days (the other views are browsed on the wire).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "dms/DmsLibrary.h"
#include "dms/DmsObject.h"
#include "dms/DmsServer.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/MediaFixtures.h"

namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> song(const std::string& title) { return Mp4Fixture_Song(title, "", "", ""); }

std::vector<std::string> titles(const DmsObject* container) {
  std::vector<std::string> out;
  for (const DmsNode* child = container->firstChild; child; child = child->nextSibling) {
    out.push_back(child->target()->title());
  }
  return out;
}

const DmsObject* childTitled(const DmsObject* container, const std::string& title) {
  for (const DmsNode* child = container->firstChild; child; child = child->nextSibling) {
    if (child->target()->title() == title) return child->target();
  }
  return nullptr;
}

class LibraryScan : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/dms-scan-XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    dir = name;
    ASSERT_TRUE(DmsServer_BuildTree("root", dir.c_str()));
    volume = DmsObject_Find(DmsId_MediaDirectory);
    allMusic = DmsObject_Find({0, 10});
    moments = DmsObject_Find({0, 31});
  }
  void TearDown() override {
    DmsObject_Free(DmsId_Root);
    fs::remove_all(dir);
  }

  void write(const std::string& relative, const std::vector<uint8_t>& bytes) {
    fs::create_directories((fs::path(dir) / relative).parent_path());
    ASSERT_TRUE(Fixture_WriteFile(dir + "/" + relative, bytes));
  }

  // Runs the pass to its end: on a loaded machine one step may not suffice.
  void scan(int32_t pass) {
    for (int64_t spent = 0; DmsLibrary_Scan(volume, pass, &spent) == 0; spent = 0) {
    }
  }

  std::string dir;
  DmsObject *volume = nullptr, *allMusic = nullptr, *moments = nullptr;
};

TEST_F(LibraryScan, MirrorsFoldersInOrderAndSkipsWhatIsNotMedia) {
  write("b song.m4a", song("Bee"));
  write("A song.M4A", song("Ay"));
  write("Sub/c.m4a", song("Sea"));
  write(".hidden.m4a", song("Hidden"));
  write("notes.txt", song("Text"));
  write("broken.m4a", {1, 2, 3, 4});
  fs::create_directories(dir + "/Empty/Deeper");
  write("Pictureless/readme.txt", {'x'});
  const struct timespec in2040[2] = {{0, UTIME_OMIT}, {2208988800, 0}};  // past a 32-bit time_t
  for (const char* late : {"/Sub", "/Sub/c.m4a"}) ASSERT_EQ(::utimensat(AT_FDCWD, (dir + late).c_str(), in2040, 0), 0);

  const uint32_t before = DmsContent_SystemUpdateId();
  scan(0);
  EXPECT_EQ(titles(volume), (std::vector<std::string>{"A song.M4A", "b song.m4a", "Sub"}));
  const DmsObject* sub = childTitled(volume, "Sub");
  ASSERT_NE(sub, nullptr);
  EXPECT_EQ(std::tuple(sub->upnpClass(), titles(sub)),
            std::tuple(dlnaMediaClasses[DmsClass_StorageFolder], std::vector<std::string>{"c.m4a"}));

  struct stat info {};
  ASSERT_EQ(::stat((dir + "/Sub/c.m4a").c_str(), &info), 0);
  const DmsObject* item = DmsObject_Find({static_cast<uint64_t>(info.st_dev) + 1, info.st_ino});
  ASSERT_NE(item, nullptr);
  // One update id per folder that changed.
  EXPECT_EQ(std::tuple(item->parent, std::string(item->mimeType), item->upnpClass(), DmsContent_SystemUpdateId()),
            std::tuple(sub, "audio/mp4", dlnaMediaClasses[DmsClass_AudioItem], before + 2));

  // Nothing changed on disk: a new pass keeps every object and raises nothing.
  scan(1);
  EXPECT_EQ(std::tuple(DmsObject_Find(item->id), DmsContent_SystemUpdateId()), std::tuple(item, before + 2));
}

TEST_F(LibraryScan, RenameInPlaceRecreatesWithTheSameId) {
  write("old.m4a", song("Song"));
  scan(0);
  const DmsObjectId id = volume->firstChild->target()->id;
  fs::rename(dir + "/old.m4a", dir + "/new.m4a");
  scan(1);
  ASSERT_NE(volume->firstChild, nullptr);
  const DmsObject* renamed = volume->firstChild->target();
  EXPECT_EQ(std::tuple(renamed->title(), renamed->id, titles(volume), titles(allMusic)),
            std::tuple("new.m4a", id, std::vector<std::string>{"new.m4a"}, std::vector<std::string>{"new.m4a"}));
}

// A step ends within its budget also while it takes away what went from disk.
TEST_F(LibraryScan, RemovalsStopAtTheStepBudget) {
  for (const char* name : {"a.m4a", "b.m4a"}) write(name, song(name));
  scan(0);
  for (const char* name : {"/a.m4a", "/b.m4a"}) fs::remove(dir + name);
  int64_t spent = DmsLibrary_StepBudget;  // reading the volume uses up the rest
  EXPECT_EQ(DmsLibrary_Scan(volume, 1, &spent), 0);
  EXPECT_EQ(titles(volume), std::vector<std::string>{"b.m4a"});
  scan(1);
  EXPECT_EQ(volume->firstChild, nullptr);
}

TEST_F(LibraryScan, HardLinkStaysWhereFirstSeen) {
  write("A/song.m4a", song("Linked"));
  fs::create_directories(dir + "/B");
  ASSERT_EQ(::link((dir + "/A/song.m4a").c_str(), (dir + "/B/again.m4a").c_str()), 0);
  scan(0);
  const DmsObject* a = childTitled(volume, "A");
  ASSERT_NE(a, nullptr);
  // B's only entry was the second name.
  EXPECT_EQ(std::tuple(titles(a), childTitled(volume, "B"), titles(allMusic).size()),
            std::tuple(std::vector<std::string>{"song.m4a"}, nullptr, size_t(1)));
}

TEST_F(LibraryScan, MomentsByUtcDayNewestFirstWithModificationTimeFallback) {
  write("dated.jpg", JpegFixture_Photo({.dateOriginal = "2020:02:29 23:59:59"}));
  write("later.jpg", JpegFixture_Photo({.dateOriginal = "2021:01:01 00:00:00"}));
  write("undated.jpg", JpegFixture_Cover());
  const struct timespec times[2] = {{0, UTIME_OMIT}, {1262304000 + 3600, 0}};  // 2010-01-01 01:00 UTC
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir + "/undated.jpg").c_str(), times, 0), 0);
  scan(0);
  EXPECT_EQ(titles(moments), (std::vector<std::string>{"2021-01-01", "2020-02-29", "2010-01-01"}));
  EXPECT_EQ(moments->firstChild->target()->upnpClass(), dlnaMediaClasses[DmsClass_PhotoAlbum]);
}

}  // namespace

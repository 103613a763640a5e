// Writes the small demo library that `make run` publishes: a few generated
// files of every format the server reads, in nested folders. Every file comes
// from the same byte builders as the test fixtures.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/MediaFixtures.h"

namespace {

struct DemoFile {
  const char* path;  // relative to the library root
  std::vector<uint8_t> (*build)();
};

const std::vector<DemoFile>& demoFiles() {
  static const std::vector<DemoFile> files = {
      {"Videos/Demo Clip.mp4", Mp4Fixture_Video},
      {"Videos/Demo Movie.mov", Mp4Fixture_Mov},
      {"Music/Demo Artist/Demo Album/Demo Song.m4a",
       Mp4Fixture_M4a},
      {"Pictures/Holiday/harbour.jpg",
       [] {
         return JpegFixture_Photo({.description = "Harbour at dawn",
                                   .artist = "Demo Photographer",
                                   .dateTime = "2021:08:14 09:12:00",
                                   .dateOriginal = "2021:08:14 06:45:30"});
       }},
      {"Pictures/Scans/letter.tif",
       [] {
         const TiffFixturePage page{24, 16, "Scanned letter", "2019:03:02 17:20:00"};
         return TiffFixture_Pages({page, {24, 16, "", "2019:03:02 17:20:00"}});
       }},
      {"Videos/Demo Clip.mkv", MatroskaFixture_VideoWithCover},
      {"Music/Night Drive.mka", MatroskaFixture_AudioWithTitle},
      {"Music/Demo Artist/Demo Album/01 Demo Song.flac",
       [] { return FlacFixture_Song("Demo Song", "Demo Artist", "Demo Album", "Jazz", "2009-06-15"); }},
      {"Pictures/Gradient.png", [] { return PngFixture_Picture(32, 24, "Demo Gradient", "2009:06:15 10:20:30"); }},
      {"Pictures/Stripes.gif", [] { return GifFixture_Picture("89a", 32, 24, 4); }},
      {"Music/Demo Artist/Demo Album/01 Demo Song.mp3", Mp3Fixture_Demo},
      {"Music/Demo Artist/tone.wav", RiffFixture_DemoWav},
      {"Videos/clip.avi", RiffFixture_DemoAvi},
  };
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::filesystem::path root = argv[1];
  std::error_code error;
  std::filesystem::create_directories(root, error);
  for (const char* folder : {"Music", "Pictures", "Videos"}) {
    std::filesystem::create_directories(root / folder, error);
  }
  for (const DemoFile& file : demoFiles()) {
    const auto target = root / file.path;
    std::filesystem::create_directories(target.parent_path(), error);
    if (!Fixture_WriteFile(target.string(), file.build())) {
      std::fprintf(stderr, "%s: cannot write\n", target.c_str());
      return 1;
    }
  }
  return 0;
}

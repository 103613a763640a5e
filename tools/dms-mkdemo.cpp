// Writes the small demo library that `make run` publishes: a few generated
// files of every format the server reads, in nested folders. Every file comes
// from the same byte builders as the test fixtures.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/Mp3Fixture.h"
#include "tests/fixtures/RiffFixture.h"

namespace {

struct DemoFile {
  const char* path;  // relative to the library root
  std::vector<uint8_t> (*build)();
};

const std::vector<DemoFile>& demoFiles() {
  static const std::vector<DemoFile> files = {
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

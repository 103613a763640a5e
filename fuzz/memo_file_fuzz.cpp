// Any bytes as the memo file of a library published at "/media": the input,
// closed by its own checksum so that the loader looks past it, is loaded,
// and the memos of a few files of the demo library (the seeds are memo files
// of it) are looked up for a regular file whose size and times are all 0.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dms/DmsMemoFile.h"

namespace {

const std::string& CacheDirectory() {
  static const std::string directory = [] {
    char name[] = "/tmp/dms-memo-fuzz-XXXXXX";
    return std::string(mkdtemp(name) ? name : "/tmp");
  }();
  return directory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> file(data, data + size);
  uint64_t checksum = 14695981039346656037ull;  // FNV-1a, as the file's own
  for (const uint8_t byte : file) checksum = (checksum ^ byte) * 1099511628211ull;
  for (int at = 0; at < 8; ++at, checksum >>= 8) file.push_back(static_cast<uint8_t>(checksum));
  const std::string path = CacheDirectory() + "/" + DmsMemoFile_Name;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return 0;
  const bool written = write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size());
  close(fd);
  if (!written) return 0;
  DmsMemoFile_Load(CacheDirectory(), "/media");
  struct stat regular {};
  regular.st_mode = S_IFREG;
  const std::string_view lookups[][2] = {{"/media", "a.mp3"},
                                          {"/media/Pictures", "Gradient.png"},
                                          {"/media/Music/Demo Artist/Demo Album", "01 Demo Song.mp3"}};
  for (const auto& [folder, name] : lookups) DmsMemoFile_Take(folder, name, regular);
  DmsMemoFile_Unload();
  return 0;
}

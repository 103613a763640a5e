// The check behind the one start-up line about an unusable media folder and
// dms-probe's answer for a folder: the same two steps the scan takes, opening
// the folder for reading and entering it. Also the names the scan looks at.
#include "dms/DmsFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/Text.h"
#include "base/UniqueFd.h"

namespace {

constexpr std::array<std::string_view, 27> kExtensions = {
    ".jpeg", ".jpg", ".png",  ".bmp", ".tiff", ".tif", ".gif", ".avi",  ".wave", ".wav", ".mp3", ".mov", ".mp4", ".m4v",
    ".m4a",  ".m4p", ".m4b",  ".m4r", ".mkv",  ".mka", ".webm", ".3gpp", ".3gp", ".aac", ".flac", ".fla", ".flc"};

}  // namespace

const char* DmsFolder_Problem(const char* path) {
  const UniqueFd folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) return std::strerror(errno);
  // Reading the names is not enough: the scan changes into the folder.
  if (::access(path, X_OK) != 0) return std::strerror(errno);
  return nullptr;
}

bool DmsFolder_IsHiddenName(const char* name) { return name[0] == '.'; }

bool DmsFolder_HasMediaExtension(std::string_view name) {
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  std::string_view extension = name.substr(dot);
  for (std::string_view accepted : kExtensions) {
    if (Text_EqualsNoCase(extension, accepted)) return true;
  }
  return false;
}

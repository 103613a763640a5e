// The file-name rules of the scan: dot-names are passed over, and only files
// with one of the media extensions below (in any case) are probed.
#include "dms/DmsNames.h"

#include <array>

#include "base/Text.h"

namespace {

constexpr std::array<std::string_view, 27> kExtensions = {
    ".jpeg", ".jpg", ".png",  ".bmp", ".tiff", ".tif", ".gif", ".avi",  ".wave", ".wav", ".mp3", ".mov", ".mp4", ".m4v",
    ".m4a",  ".m4p", ".m4b",  ".m4r", ".mkv",  ".mka", ".webm", ".3gpp", ".3gp", ".aac", ".flac", ".fla", ".flc"};

}  // namespace

bool DmsNames_IsHidden(const char* name) { return name[0] == '.'; }

bool DmsNames_HasMediaExtension(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view extension = name.substr(dot);
  for (std::string_view accepted : kExtensions) {
    if (Text_EqualsNoCase(extension, accepted)) return true;
  }
  return false;
}

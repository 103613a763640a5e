// The configuration file reader: finds `dmsConfig` in the directory of the
// running executable, keeps its text for the life of the process, and answers
// key lookups from it.
#include "app/Config.h"

#include <libgen.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kPathBufferSize = 4096;
constexpr char kConfigName[] = "/dmsConfig";

std::optional<std::string> configText;

std::optional<std::string> readConfigFile() {
  char link[kPathBufferSize] = {};
  char exe[kPathBufferSize + 1] = {};
  std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(::getpid()));
  if (::readlink(link, exe, kPathBufferSize) < 0) exe[0] = '\0';
  std::string path = ::dirname(exe);
  path += kConfigName;

  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return std::nullopt;
  std::string text;
  char chunk[4096];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) text.append(chunk, n);
  std::fclose(file);
  return text;
}

}  // namespace

std::optional<std::string> DMSInfo_Lookup(std::string_view text, std::string_view key) {
  // Like a C text, the file ends at its first zero byte.
  text = text.substr(0, text.find('\0'));
  size_t at = text.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  size_t open = text.find('"', at);
  if (open == std::string_view::npos) return std::nullopt;
  size_t close = text.find('"', open + 1);
  if (close == std::string_view::npos) return std::nullopt;
  return std::string(text.substr(open + 1, close - open - 1));
}

std::optional<std::string> getDMSInfo(std::string_view key) {
  if (!configText) configText = readConfigFile();
  if (!configText) return std::nullopt;
  return DMSInfo_Lookup(*configText, key);
}

void DMSInfo_Release() { configText.reset(); }

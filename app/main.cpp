// Process entry: reads the settings from dmsConfig beside the executable
// (and the cache directory from the environment), runs the media server
// until SIGINT or SIGTERM, and stops it again.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "app/Config.h"
#include "dms/DmsServer.h"
#include "base/Text.h"

namespace {

volatile std::sig_atomic_t running = 0;

void onStopSignal(int) { running = 0; }

const char* textOrNull(const std::optional<std::string>& value) { return value ? value->c_str() : nullptr; }

// What the C library prints for a missing %s argument.
const char* label(const std::optional<std::string>& value) { return value ? value->c_str() : "(null)"; }

}  // namespace

int main() {
  const auto path = getDMSInfo("path");
  const auto deviceName = getDMSInfo("deviceName");
  const auto manufacturer = getDMSInfo("manufacturer");
  const auto modelName = getDMSInfo("dmsModelName");
  const auto modelNumber = getDMSInfo("modelNumber");
  const auto modelDescription = getDMSInfo("modelDescription");
  // A missing value counts as 0, which the server raises to its minimum.
  const auto interval = getDMSInfo("refreshInterval");
  const auto refreshInterval = static_cast<uint16_t>(Text_ReadInt(interval ? *interval : std::string_view()));
  // Only "on" exactly: anything else leaves the server as designed.
  const bool clientCompatibility = getDMSInfo("clientCompatibility") == "on";

  std::printf("\n[%s] running\n\n", label(modelDescription));
  std::fflush(stdout);

  running = 1;
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGINT, onStopSignal);
  std::signal(SIGTERM, onStopSignal);

  constexpr uint16_t kAnyPort = 0;
  const uint32_t flags = kDmsFlagSsdp | (clientCompatibility ? kDmsFlagClientCompatibility : 0);
  // The one setting taken from the environment: where systemd's CacheDirectory= lies.
  DMS_SetCacheDirectory(std::getenv("CACHE_DIRECTORY"));
  if (DMS_Open(textOrNull(deviceName), textOrNull(manufacturer), textOrNull(modelName), textOrNull(modelNumber),
               textOrNull(modelDescription), textOrNull(path), refreshInterval, kAnyPort, flags)) {
    while (running) ::sleep(1);
  }
  DMS_Close();

  std::printf("\n[%s] stopped\n\n", label(modelDescription));
  std::fflush(stdout);
  DMSInfo_Release();
  return 0;
}

// Process entry: reads the settings from dmsConfig beside the executable
// (and the cache directory from the environment), runs the media server
// until SIGINT or SIGTERM, and stops it again. A media folder that cannot be
// read is named once on standard error; the server runs all the same.
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "app/Config.h"
#include "dms/DmsFolder.h"
#include "dms/DmsServer.h"
#include "base/Text.h"

namespace {

volatile std::sig_atomic_t running = 0;

void onStopSignal(int) { running = 0; }

const char* textOrNull(const std::optional<std::string>& value) { return value ? value->c_str() : nullptr; }

// What the C library prints for a missing %s argument.
const char* label(const std::optional<std::string>& value) { return value ? value->c_str() : "(null)"; }

// Stack of the server's long-lived threads (scan, device, accept, SSDP),
// which run on the default attributes; connection threads choose their own.
// The C library's default is the stack limit, 8 MiB each on Linux, which
// under the board's address-space limits left no room for the library.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kThreadStackBytes = size_t{2} << 20;
#else
constexpr size_t kThreadStackBytes = size_t{512} << 10;
#endif

void useSmallThreadStacks() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return;
  if (pthread_attr_setstacksize(&attributes, kThreadStackBytes) == 0) pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}

// The settings main passes on; every text may be missing.
struct Settings {
  std::optional<std::string> path, deviceName, manufacturer, modelName, modelNumber, modelDescription;
  uint16_t refreshInterval = 0;
  bool clientCompatibility = false;
  bool watchChanges = false;
};

// False when memory ran out while the file was read: the server then does
// not start, rather than start on defaults (which would publish "/").
bool readSettings(Settings& settings) {
  try {
    settings.path = getDMSInfo("path");
    settings.deviceName = getDMSInfo("deviceName");
    settings.manufacturer = getDMSInfo("manufacturer");
    settings.modelName = getDMSInfo("dmsModelName");
    settings.modelNumber = getDMSInfo("modelNumber");
    settings.modelDescription = getDMSInfo("modelDescription");
    // A missing value counts as 0, which the server raises to its minimum.
    const auto interval = getDMSInfo("refreshInterval");
    settings.refreshInterval = static_cast<uint16_t>(Text_ReadInt(interval ? *interval : std::string_view()));
    // Only "on" exactly: anything else leaves the server as designed.
    settings.clientCompatibility = getDMSInfo("clientCompatibility") == "on";
    settings.watchChanges = getDMSInfo("watchChanges") == "on";
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

int main() {
  Settings settings;
  const bool configured = readSettings(settings);

  std::printf("\n[%s] running\n\n", label(settings.modelDescription));
  std::fflush(stdout);
  // The scan tries the folder again at every pass, so a disk mounted later is found.
  if (const char* problem = settings.path ? DmsFolder_Problem(settings.path->c_str()) : nullptr) {
    std::fprintf(stderr, "dms: path \"%s\": %s; the library stays empty until it can be read\n",
                 settings.path->c_str(), problem);
  }

  running = 1;
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGINT, onStopSignal);
  std::signal(SIGTERM, onStopSignal);
  useSmallThreadStacks();

  constexpr uint16_t kAnyPort = 0;
  const uint32_t flags = kDmsFlagSsdp | (settings.clientCompatibility ? kDmsFlagClientCompatibility : 0) |
                         (settings.watchChanges ? kDmsFlagWatchChanges : 0);
  // The one setting taken from the environment: where systemd's CacheDirectory= lies.
  if (configured && DMS_SetCacheDirectory(std::getenv("CACHE_DIRECTORY")) &&
      DMS_Open(textOrNull(settings.deviceName), textOrNull(settings.manufacturer), textOrNull(settings.modelName),
               textOrNull(settings.modelNumber), textOrNull(settings.modelDescription), textOrNull(settings.path),
               settings.refreshInterval, kAnyPort, flags)) {
    while (running) ::sleep(1);
  }
  DMS_Close();

  std::printf("\n[%s] stopped\n\n", label(settings.modelDescription));
  std::fflush(stdout);
  DMSInfo_Release();
  return 0;
}

// Settings lookup in the `dmsConfig` file that lies beside the executable.
// The lookup is a deliberately crude substring search over the whole file,
// and its quirks are what users' existing files rely on.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The quoted text that follows the first occurrence of `key` anywhere in
// `text` (which ends at its first zero byte); nothing when no quotes follow.
std::optional<std::string> DMSInfo_Lookup(std::string_view text, std::string_view key);

// DMSInfo_Lookup over the configuration file, read once on the first call
// that finds it. Not thread-safe: only `main` uses it, before any thread starts.
std::optional<std::string> getDMSInfo(std::string_view key);

// Releases the file text kept by getDMSInfo.
void DMSInfo_Release();

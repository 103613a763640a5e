// The rules by which the scan passes over a directory entry or looks at it,
// by its name alone. The scan, the watch (which passes over events about
// names the scan never publishes) and dms-probe apply the same ones.
#pragma once

#include <string_view>

// True for a name the scan never looks at (a dot-file or dot-folder).
bool DmsNames_IsHidden(const char* name);
// True when a regular file of this name is probed at all.
bool DmsNames_HasMediaExtension(std::string_view name);

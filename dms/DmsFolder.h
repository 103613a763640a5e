// Whether the media folder can be published at all: the library scan reads
// its names and changes into it as the server's own user. The server says at
// start why it cannot; dms-probe says the same of a folder it is given. And
// which names in a folder the scan looks at, for the scan, the watch on the
// library's folders and dms-probe alike.
#pragma once

#include <string_view>

// Null when the scan can read and enter the folder `path`; otherwise the
// system's text for what stands in the way (it does not exist, is not a
// directory, or may not be read or entered).
const char* DmsFolder_Problem(const char* path);

// True for a name the scan never looks at (a dot-file or dot-folder).
bool DmsFolder_IsHiddenName(const char* name);
// True when a regular file of this name is probed at all.
bool DmsFolder_HasMediaExtension(std::string_view name);

// The memo file: the items' memos kept across restarts in the cache directory
// that the environment names, so that after a restart the scan lists a file
// whose identity matches its memo without opening it. A memo is found by the
// file's path relative to the published path, never by its device and inode
// numbers, which change at each mount of a FAT or exFAT disk. The file is
// loaded before the first scan pass and written back, atomically, at the end
// of a pass after which it would read otherwise; a pass that did not see the
// library leaves it as it is. A file that fails any check (format, word
// size, byte order, published path, a count, length or offset beyond its
// bytes, the checksum) is treated as absent. The module's state has a mutex
// of its own, which its functions take after the content mutex.
#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>
#include <string_view>

#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "media/MediaStream.h"

// The name of the memo file in the cache directory, and of the file a save
// writes before it takes that name.
inline constexpr char DmsMemoFile_Name[] = "dms.memo";
inline constexpr char DmsMemoFile_NewName[] = "dms.memo.new";

// Loads the memo file of `directory` when it was written for the library
// published at `publishedPath` by a build of this format, word size and byte
// order. Without a usable file nothing is loaded.
void DmsMemoFile_Load(const std::string& directory, const std::string& publishedPath);
// The stream the loaded memo of the file `name` in the folder `folderPath`
// (the path of a folder of the library) gives when it was made from the
// file that `file` (its lstat) describes; null otherwise.
MediaStreamPtr DmsMemoFile_Take(std::string_view folderPath, std::string_view name, const struct stat& file);
// Forgets what was loaded.
void DmsMemoFile_Unload();

// At the end of a pass: writes the memos of the tree under the
// media-directory container to the memo file of `directory` when the file
// would read otherwise than the one loaded or last written, and forgets what
// was loaded. When the pass found no item while that file holds memos, the
// pass did not see the library: the file stays as it is and its memos stay
// loaded (loaded again if need be) for the next pass. Called with the
// content mutex held by `lock`; the file is written under it, and flushed to
// the device and renamed after the lock is released. A failure leaves the
// previous file as it was.
void DmsMemoFile_PassEnded(const std::string& directory, const std::string& publishedPath,
                           std::unique_lock<DmsContentMutex>& lock);

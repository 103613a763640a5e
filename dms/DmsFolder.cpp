// The check behind the one start-up line about an unusable media folder and
// dms-probe's answer for a folder: the same two steps the scan takes, opening
// the folder for reading and entering it.
#include "dms/DmsFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"

const char* DmsFolder_Problem(const char* path) {
  const UniqueFd folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) return std::strerror(errno);
  // Reading the names is not enough: the scan changes into the folder.
  if (::access(path, X_OK) != 0) return std::strerror(errno);
  return nullptr;
}

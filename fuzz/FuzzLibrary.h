// A media library in a temporary folder for the harnesses of Browse and of
// the transfers: the files are written, then scanned into the content tree as
// the server's refresh does. The folder goes when the process ends.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dms/DmsLibrary.h"
#include "dms/DmsObject.h"
#include "dms/DmsServer.h"
#include "dms/DmsServerState.h"

namespace fuzz {

class Library {
 public:
  using File = std::pair<std::string, std::string_view>;  // name and content

  static Library& Get() {
    static Library library;
    return library;
  }

  // Replaces the folder's files with `files` and scans them into a tree built
  // afresh, so that nothing of an earlier input is left.
  void Load(const std::vector<File>& files) {
    if (dir_.empty()) return;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir_, error)) {
      std::filesystem::remove_all(entry.path(), error);
    }
    for (const File& file : files) {
      int fd = open((dir_ + "/" + file.first).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0) continue;
      (void)!write(fd, file.second.data(), file.second.size());
      close(fd);
    }
    std::lock_guard lock(DmsServer_ContentMutex());
    DmsObject_Free(DmsId_Root);
    if (!DmsServer_BuildTree("root", dir_.c_str())) return;
    DmsObject* folder = DmsObject_Find(DmsId_MediaDirectory);
    int64_t spent = 0;
    for (int step = 0; step < kMaxScanSteps && folder && DmsLibrary_Scan(folder, 1, &spent) == 0; ++step) {
      spent = 0;
    }
  }

  // The ids of the scanned items, in folder order (content mutex taken).
  std::vector<DmsObjectId> Items() const {
    std::vector<DmsObjectId> items;
    std::lock_guard lock(DmsServer_ContentMutex());
    const DmsObject* folder = DmsObject_Find(DmsId_MediaDirectory);
    for (const DmsNode* node = folder ? folder->firstChild : nullptr; node; node = node->nextSibling) {
      const DmsObject* child = node->target();
      if (child->kind == DmsKind_Item) items.push_back(child->id);
    }
    return items;
  }

 private:
  static constexpr int kMaxScanSteps = 16;

  Library() {
    char name[] = "/tmp/dms-fuzz-XXXXXX";
    if (mkdtemp(name)) dir_ = name;
  }
  ~Library() {
    {
      std::lock_guard lock(DmsServer_ContentMutex());
      DmsObject_Free(DmsId_Root);
    }
    std::error_code error;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, error);
  }

  std::string dir_;
};

}  // namespace fuzz

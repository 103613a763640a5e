// DIDL-Lite rendering of content objects for Browse. The output is escaped
// twice, since the DIDL-Lite document travels escaped inside the SOAP
// `Result` argument.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dms/DmsObject.h"

// Optional parts of an object's rendering, chosen by the Browse filter.
enum DmsDidlFilter : uint32_t {
  DmsFilter_Artist = 0x1,
  DmsFilter_Album = 0x2,
  DmsFilter_Genre = 0x4,
  DmsFilter_Date = 0x8,
  DmsFilter_AlbumArt = 0x10,
  DmsFilter_Res = 0x20,
  DmsFilter_RefId = 0x100,
  DmsFilter_ChildCount = 0x200,
  DmsFilter_All = 0xffff,
};

// The filter bits of a Browse `Filter` argument.
uint32_t DmsDidl_ParseFilter(std::string_view filter);

// The folders of the items that one Browse renders, each opened once, so
// that an item's file is found by its name in its folder rather than by its
// whole path, a lookup step for every folder on the way. The first
// `kMaxFolders` folders met stay open until the Browse ends; the items of
// any other folder are found by path.
class DmsDidlFolders {
 public:
  DmsDidlFolders() = default;
  DmsDidlFolders(const DmsDidlFolders&) = delete;
  DmsDidlFolders& operator=(const DmsDidlFolders&) = delete;
  ~DmsDidlFolders();
  // A descriptor of the folder object `folder`, or -1.
  int descriptor(const DmsObject* folder);

 private:
  static constexpr size_t kMaxFolders = 64;
  struct Folder {
    DmsObjectId id;
    int fd;  // -1: the folder could not be opened
  };
  std::array<Folder, kMaxFolders> folders_{};
  size_t count_ = 0;
  size_t last_ = 0;  // the folder found last: the next item is often in it too
};

// One `item` or `container` element, escaped for the SOAP body. `host` and
// `port` form the media and thumbnail URLs. An item is described as its file
// is now; `folders`, when given, holds its folder open for the lookup.
std::string DmsDidl_RenderObject(const DmsObject* object, const char* host, uint16_t port, uint32_t filter,
                                 DmsDidlFolders* folders = nullptr);
// The same element appended to `out`: Browse renders a page into one buffer.
void DmsDidl_AppendObject(std::string& out, const DmsObject* object, const char* host, uint16_t port,
                          uint32_t filter, DmsDidlFolders* folders = nullptr);

// Doubly escapes the five XML special characters.
std::string DmsDidl_Escape(std::string_view text);

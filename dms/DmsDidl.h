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
  static constexpr size_t kSlots = 4 * kMaxFolders;  // a power of two: the hash table of the folders
  struct Folder {
    DmsObjectId id;
    int fd;  // -1: the folder could not be opened
  };
  std::array<Folder, kMaxFolders> folders_{};
  std::array<uint8_t, kSlots> slots_{};  // 1 + the index of a folder; 0: a free slot
  size_t count_ = 0;
};

// Renders the objects of one Browse. What every element of the reply
// shares is formed once: the "http://host:port" of the URLs and the id text
// of the last parent met; the items' folders are opened once.
class DmsDidlRenderer {
 public:
  // `host` and `port` form the media and thumbnail URLs.
  DmsDidlRenderer(const char* host, uint16_t port, uint32_t filter);
  // Appends the `item` or `container` element of `node`, escaped for the
  // SOAP body. An item, or the item of a reference, is described as its
  // file is now.
  void append(std::string& out, DmsNode* node);

 private:
  DmsDidlFolders folders_;
  std::string urlPrefix_;
  uint32_t filter_;
  DmsObjectId parentId_;
  std::string parentText_;  // the DIDL-Lite parentID of children of parentId_; empty: none formed yet
};

// One element as DmsDidlRenderer::append writes it.
std::string DmsDidl_RenderObject(DmsNode* node, const char* host, uint16_t port, uint32_t filter);

// Doubly escapes the five XML special characters.
std::string DmsDidl_Escape(std::string_view text);

// DIDL-Lite rendering of content objects for Browse. The output is escaped
// twice, since the DIDL-Lite document travels escaped inside the SOAP
// `Result` argument.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct DmsObject;

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

// One `item` or `container` element, escaped for the SOAP body. `host` and
// `port` form the media and thumbnail URLs. Items are parsed from their file.
// `folderFd`, when not -1, is the object's parent folder opened by the caller:
// an item in it is then opened by its name alone instead of its full path.
std::string DmsDidl_RenderObject(const DmsObject* object, const char* host, uint16_t port, uint32_t filter,
                                 int folderFd = -1);
// The same element appended to `out`: Browse renders a page into one buffer.
void DmsDidl_AppendObject(std::string& out, const DmsObject* object, const char* host, uint16_t port,
                          uint32_t filter, int folderFd = -1);

// Doubly escapes the five XML special characters.
std::string DmsDidl_Escape(std::string_view text);

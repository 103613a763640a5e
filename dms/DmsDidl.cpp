// Renders containers, items and references as DIDL-Lite elements. Each item
// is described as its file is now: from the item's memo while an lstat finds
// the file unchanged, else from a fresh parse of it.
#include "dms/DmsDidl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <optional>

#include "base/UniqueFd.h"
#include "dms/DmsMemo.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "upnp/UPnPDevice.h"

namespace {

struct FilterToken {
  std::string_view token;
  uint32_t bit;
};

constexpr FilterToken kFilterTokens[] = {
    {"upnp:artist,", DmsFilter_Artist},   {"upnp:artist@", DmsFilter_Artist},
    {"upnp:album,", DmsFilter_Album},     {"upnp:album@", DmsFilter_Album},
    {"upnp:genre,", DmsFilter_Genre},     {"dc:date,", DmsFilter_Date},
    {"upnp:albumArtURI,", DmsFilter_AlbumArt}, {"upnp:albumArtURI@", DmsFilter_AlbumArt},
    {"res,", DmsFilter_Res},              {"res@", DmsFilter_Res},
    {"@refID,", DmsFilter_RefId},         {"@childCount,", DmsFilter_ChildCount},
};

// Opens the item's file: by name in its folder when the caller holds that
// folder open, by full path otherwise. The open refuses a symbolic link and
// never waits on a FIFO; parseItem then rejects anything not regular.
int openItem(const DmsObject* target, int folderFd) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  if (folderFd >= 0) return target->title().empty() ? -1 : ::openat(folderFd, target->title().c_str(), kFlags);
  const std::string path = DmsObject_GetPath(target);
  return path.empty() ? -1 : ::open(path.c_str(), kFlags);
}

// The lstat of the item's file, found as openItem finds it.
bool statItem(const DmsObject* target, int folderFd, struct stat& info) {
  if (target->title().empty()) return false;
  if (folderFd >= 0) return ::fstatat(folderFd, target->title().c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  const std::string path = DmsObject_GetPath(target);
  return !path.empty() && ::lstat(path.c_str(), &info) == 0;
}

// A fresh parse of the item's file, which refreshes its memo.
DmsItemFacts parseItem(const DmsObject* target, int folderFd) {
  struct stat info {};
  const UniqueFd fd(openItem(target, folderFd));
  if (!fd.valid() || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return DmsMemo_Parse(target, fd.get(), info);
}

// The item as its file is now: from its memo while the file is unchanged.
DmsItemFacts readItemFacts(const DmsObject* target, int folderFd) {
  struct stat info {};
  if (target->kind == DmsKind_Item && statItem(target, folderFd, info) && DmsMemo_Matches(target, info)) {
    return DmsMemo_Facts(target, info);
  }
  return parseItem(target, folderFd);
}

// The class an object is published with: its own, except that with
// clientCompatibility on an audio item is published as a music track, the
// subclass that some players (MPD) take as their only playable audio.
const char* publishedClass(const DmsObject* object) {
  constexpr const char* kMusicTrackClass = "object.item.audioItem.musicTrack";
  const char* upnpClass = object->upnpClass();
  if (upnpClass == dlnaMediaClasses[DmsClass_AudioItem] && DmsServer_Info().clientCompatibility) {
    return kMusicTrackClass;
  }
  return upnpClass ? upnpClass : "";
}

// Appends the text doubly escaped.
void appendEscaped(std::string& out, std::string_view text) { XML_AppendEscaped(out, text, true); }

// The title from the file's tags, or else the object's title without its extension.
void appendItemTitle(std::string& out, const DmsObject* target, const DmsItemFacts& facts) {
  if (!facts.title.empty()) {
    appendEscaped(out, facts.title);
    return;
  }
  const std::string_view title = target->title();
  appendEscaped(out, title.substr(0, title.rfind('.')));
}

template <typename Number>
void appendNumber(std::string& out, Number value) {
  char text[24];
  out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

void appendId(std::string& out, DmsObjectId id) {
  char text[DmsObjectId_TextSize];
  out.append(text, static_cast<size_t>(DmsObjectId_Format(id, text)));
}

void appendDidlId(std::string& out, const DmsObject* object) {
  if (object->id == DmsObjectId{0, 0}) out += '0';
  else appendId(out, object->id);
}

// "http://host:port" + `path` + the id: the media and thumbnail URLs.
void appendUrl(std::string& out, const char* host, uint16_t port, const char* path, DmsObjectId id) {
  out += "http://";
  out += host;
  out += ':';
  appendNumber(out, port);
  out += path;
  appendId(out, id);
}

void appendTag(std::string& out, const char* name, const std::optional<std::string_view>& value, bool wanted) {
  if (!wanted || !value) return;
  out += "&lt;";
  out += name;
  out += "&gt;";
  appendEscaped(out, *value);
  out += "&lt;/";
  out += name;
  out += "&gt;";
}

// `value` in at least `width` digits, with leading zeros.
void appendPadded(std::string& out, uint32_t value, size_t width) {
  char text[16];
  const size_t length = static_cast<size_t>(std::to_chars(text, text + sizeof text, value).ptr - text);
  if (length < width) out.append(width - length, '0');
  out.append(text, length);
}

// duration="h:mm:ss.ffffff": hours as many digits as they take.
void appendDuration(std::string& out, uint32_t duration, uint32_t timescale) {
  if (timescale == 0) timescale = 1;
  const uint32_t seconds = duration / timescale;
  const auto fraction = static_cast<uint32_t>(static_cast<uint64_t>(duration % timescale) * 1000000u / timescale);
  out += "duration=\"";
  appendNumber(out, seconds / 3600);
  out += ':';
  appendPadded(out, (seconds % 3600) / 60, 2);
  out += ':';
  appendPadded(out, seconds % 60, 2);
  out += '.';
  appendPadded(out, fraction, 6);
  out += '"';
}

// The media `res` element (duration or resolution first), and for items with
// a cover a second one pointing at the thumbnail.
void appendResources(std::string& out, const DmsObject* target, const DmsItemFacts& facts, const char* host,
                     uint16_t port, bool image) {
  const char* mime = target->mimeType ? target->mimeType : (image ? "image/*" : "*");
  out += "&lt;res ";
  if (image) {
    out += "resolution=\"";
    appendNumber(out, facts.width);
    out += 'x';
    appendNumber(out, facts.height);
    out += '"';
  } else {
    appendDuration(out, facts.duration, facts.timescale);
  }
  out += " size=\"";
  appendNumber(out, facts.size);
  out += "\" protocolInfo=\"http-get:*:";
  out += mime;
  out += ":DLNA.ORG_OP=01\"&gt;";
  appendUrl(out, host, port, "/mediaitem/", target->id);
  out += "&lt;/res&gt;";
  if (!facts.hasThumbnail()) return;
  out += "&lt;res protocolInfo=\"http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1\"&gt;";
  appendUrl(out, host, port, "/thumbnail/", target->id);
  out += "&lt;/res&gt;";
}

void renderItemBody(std::string& out, const DmsObject* target, const DmsItemFacts& facts, const char* host,
                    uint16_t port, uint32_t filter) {
  appendTag(out, "upnp:artist", facts.artist, filter & DmsFilter_Artist);
  appendTag(out, "upnp:album", facts.album, filter & DmsFilter_Album);
  appendTag(out, "upnp:genre", facts.genre, filter & DmsFilter_Genre);
  if (target->kind != DmsKind_Item) return;

  const bool image = target->upnpClass() == dlnaMediaClasses[DmsClass_ImageItem];
  const bool audioVideo = target->upnpClass() == dlnaMediaClasses[DmsClass_AudioItem] ||
                          target->upnpClass() == dlnaMediaClasses[DmsClass_VideoItem];
  if (image && facts.shownDate() != 0 && (filter & DmsFilter_Date)) {
    const time_t date = static_cast<time_t>(facts.shownDate());
    struct tm day {};
    char text[64];
    if (gmtime_r(&date, &day) && std::strftime(text, sizeof text, "&lt;dc:date&gt;%Y-%m-%d&lt;/dc:date&gt;", &day)) {
      out += text;
    }
  }
  if (facts.hasThumbnail() && (filter & DmsFilter_AlbumArt)) {
    out += "&lt;upnp:albumArtURI dlna:profileID=\"JPEG_TN\" xmlns:dlna=\"urn:schemas-dlna-org:metadata-1-0/\"&gt;";
    appendUrl(out, host, port, "/thumbnail/", target->id);
    out += "&lt;/upnp:albumArtURI&gt;";
  }
  if (facts.recognised && (image || audioVideo) && (filter & DmsFilter_Res)) {
    appendResources(out, target, facts, host, port, image);
  }
}

}  // namespace

uint32_t DmsDidl_ParseFilter(std::string_view filter) {
  std::string text(filter);
  text += ',';
  if (text.find("*,") != std::string::npos) return DmsFilter_All;
  uint32_t bits = 0;
  for (const FilterToken& entry : kFilterTokens) {
    if (text.find(entry.token) != std::string::npos) bits |= entry.bit;
  }
  return bits;
}

std::string DmsDidl_Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  appendEscaped(out, text);
  return out;
}

DmsDidlFolders::~DmsDidlFolders() {
  for (size_t index = 0; index < count_; ++index) {
    if (folders_[index].fd >= 0) ::close(folders_[index].fd);
  }
}

int DmsDidlFolders::descriptor(const DmsObject* folder) {
  if (!folder || !DmsObject_IsFolder(folder)) return -1;
  if (last_ < count_ && folders_[last_].id == folder->id) return folders_[last_].fd;
  for (size_t index = 0; index < count_; ++index) {
    if (folders_[index].id == folder->id) return folders_[last_ = index].fd;
  }
  if (count_ == kMaxFolders) return -1;
  const std::string path = DmsObject_GetPath(folder);
  const int fd = path.empty() ? -1 : ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  folders_[last_ = count_++] = {folder->id, fd};
  return fd;
}

std::string DmsDidl_RenderObject(const DmsObject* object, const char* host, uint16_t port, uint32_t filter,
                                 DmsDidlFolders* folders) {
  std::string out;
  DmsDidl_AppendObject(out, object, host, port, filter, folders);
  return out;
}

void DmsDidl_AppendObject(std::string& out, const DmsObject* object, const char* host, uint16_t port,
                          uint32_t filter, DmsDidlFolders* folders) {
  assert(DmsContent_Guarded());
  if (!object) return;
  const bool container = object->kind == DmsKind_Container;
  const char* element = container ? "container" : "item";

  out += "&lt;";
  out += element;
  out += " id=\"";
  appendDidlId(out, object);
  out += "\" parentID=\"";
  if (object->parent) appendDidlId(out, object->parent);
  else out += "-1";
  out += "\" ";
  if ((filter & DmsFilter_RefId) && object->kind == DmsKind_Reference && object->item) {
    out += "refID=\"";
    appendId(out, object->item->id);
    out += '"';
  }
  out += " restricted=\"0\" ";
  if (container && (filter & DmsFilter_ChildCount)) {
    out += "childCount=\"";
    appendNumber(out, object->childCount < 0 ? 0 : object->childCount);
    out += '"';
  }
  out += "&gt;&lt;upnp:class&gt;";
  out += publishedClass(object);
  out += "&lt;/upnp:class&gt;&lt;dc:title&gt;";
  if (container) {
    const bool volume = object->upnpClass() == dlnaMediaClasses[DmsClass_StorageVolume];
    if (volume) out += "Volume";
    else appendEscaped(out, object->title());
    out += "&lt;/dc:title&gt;";
  } else {
    const DmsObject* target = object->kind == DmsKind_Reference && object->item ? object->item : object;
    const DmsItemFacts facts = readItemFacts(target, folders ? folders->descriptor(target->parent) : -1);
    appendItemTitle(out, target, facts);
    out += "&lt;/dc:title&gt;";
    renderItemBody(out, target, facts, host, port, filter);
  }
  out += "&lt;/";
  out += element;
  out += "&gt;";
}

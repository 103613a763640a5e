// Renders containers, items and references as DIDL-Lite elements. Each item
// is parsed again from its file, so titles, tags, durations, resolutions and
// covers always reflect the file as it is now.
#include "dms/DmsDidl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <optional>

#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "media/MediaStream.h"
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

// What an item's rendering takes from a fresh parse of its file: the
// stream itself (its texts are escaped straight into the output) and the
// file's size and modification time.
struct ItemFacts {
  MediaStreamPtr stream;  // null: the file could not be opened or recognised
  int64_t size = 0;
  int64_t modificationTime = 0;

  bool hasThumbnail() const { return stream && stream->coverLength > 0; }
  int64_t date() const { return !stream ? 0 : stream->date ? stream->date : modificationTime; }
};

// Opens the item's file: by name in its folder when the caller holds that
// folder open, by full path otherwise. The open refuses a symbolic link and
// never waits on a FIFO; readItemFacts then rejects anything not regular.
int openItem(const DmsObject* target, int folderFd) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  if (folderFd >= 0) return target->title().empty() ? -1 : ::openat(folderFd, target->title().c_str(), kFlags);
  const std::string path = DmsObject_GetPath(target);
  return path.empty() ? -1 : ::open(path.c_str(), kFlags);
}

ItemFacts readItemFacts(const DmsObject* target, int folderFd) {
  ItemFacts facts;
  const int fd = openItem(target, folderFd);
  if (fd < 0) return facts;
  struct stat info {};
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    facts.size = static_cast<int64_t>(info.st_size);
    facts.modificationTime = static_cast<int64_t>(info.st_mtime);
    facts.stream = MediaStream_new(fd, 0, facts.size, true);
  }
  ::close(fd);
  return facts;
}

// Appends the text doubly escaped.
void appendEscaped(std::string& out, std::string_view text) { XML_AppendEscaped(out, text, true); }

// The title from the file's tags, or else the object's title without its extension.
void appendItemTitle(std::string& out, const DmsObject* target, const ItemFacts& facts) {
  if (facts.stream && facts.stream->title && !facts.stream->title->empty()) {
    appendEscaped(out, *facts.stream->title);
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

void appendTag(std::string& out, const char* name, const std::optional<std::string>& value, bool wanted) {
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
void appendResources(std::string& out, const DmsObject* target, const ItemFacts& facts, const char* host,
                     uint16_t port, bool image) {
  const MediaStream& stream = *facts.stream;
  const char* mime = target->mimeType ? target->mimeType : (image ? "image/*" : "*");
  out += "&lt;res ";
  if (image) {
    const bool picture = stream.mediaType == MediaType_Image && !stream.streamInfo.empty();
    out += "resolution=\"";
    appendNumber(out, picture ? stream.streamInfo[0].width : 0);
    out += 'x';
    appendNumber(out, picture ? stream.streamInfo[0].height : 0);
    out += '"';
  } else {
    appendDuration(out, stream.duration, stream.timescale);
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

void renderItemBody(std::string& out, const DmsObject* target, const ItemFacts& facts, const char* host,
                    uint16_t port, uint32_t filter) {
  if (const MediaStream* stream = facts.stream.get()) {
    appendTag(out, "upnp:artist", stream->artist, filter & DmsFilter_Artist);
    appendTag(out, "upnp:album", stream->album, filter & DmsFilter_Album);
    appendTag(out, "upnp:genre", stream->genre, filter & DmsFilter_Genre);
  }
  if (target->kind != DmsKind_Item) return;

  const bool image = target->upnpClass() == dlnaMediaClasses[DmsClass_ImageItem];
  const bool audioVideo = target->upnpClass() == dlnaMediaClasses[DmsClass_AudioItem] ||
                          target->upnpClass() == dlnaMediaClasses[DmsClass_VideoItem];
  if (image && facts.date() != 0 && (filter & DmsFilter_Date)) {
    const time_t date = static_cast<time_t>(facts.date());
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
  if (facts.stream && (image || audioVideo) && (filter & DmsFilter_Res)) appendResources(out, target, facts, host, port, image);
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

std::string DmsDidl_RenderObject(const DmsObject* object, const char* host, uint16_t port, uint32_t filter,
                                 int folderFd) {
  std::string out;
  DmsDidl_AppendObject(out, object, host, port, filter, folderFd);
  return out;
}

void DmsDidl_AppendObject(std::string& out, const DmsObject* object, const char* host, uint16_t port,
                          uint32_t filter, int folderFd) {
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
  out += object->upnpClass() ? object->upnpClass() : "";
  out += "&lt;/upnp:class&gt;&lt;dc:title&gt;";
  if (container) {
    const bool volume = object->upnpClass() == dlnaMediaClasses[DmsClass_StorageVolume];
    if (volume) out += "Volume";
    else appendEscaped(out, object->title());
    out += "&lt;/dc:title&gt;";
  } else {
    // A reference's item lives in another folder than the reference.
    const DmsObject* target = object->kind == DmsKind_Reference && object->item ? object->item : object;
    const ItemFacts facts = readItemFacts(target, target == object ? folderFd : -1);
    appendItemTitle(out, target, facts);
    out += "&lt;/dc:title&gt;";
    renderItemBody(out, target, facts, host, port, filter);
  }
  out += "&lt;/";
  out += element;
  out += "&gt;";
}

// Renders containers, items and references as DIDL-Lite elements. Each item
// is described as its file is now: from the item's memo while an lstat finds
// the file unchanged (or, with the watch, while no event has named its folder
// since one did), else from a fresh parse of it.
#include "dms/DmsDidl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstring>
#include <ctime>
#include <optional>

#include "base/UniqueFd.h"
#include "dms/DmsMemo.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "dms/DmsWatch.h"
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
DmsItemFacts parseItem(DmsObject* target, int folderFd) {
  struct stat info {};
  const UniqueFd fd(openItem(target, folderFd));
  if (!fd.valid() || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  DmsItemFacts facts = DmsMemo_Parse(target, fd.get(), info);
  DmsWatch_Stat(target, info, DmsMemo_Describes(target, info));
  return facts;
}

// The item as its file is now: from its memo while the watch says the file
// is unchanged or an lstat finds it so.
DmsItemFacts readItemFacts(DmsObject* target, DmsDidlFolders& folders) {
  DmsItemFacts facts;
  if (target->kind == DmsKind_Item && (target->flags & DmsFlag_Checked) && DmsMemo_Recall(target, facts)) {
    return facts;
  }
  const int folderFd = folders.descriptor(target->parent);
  struct stat info {};
  if (target->kind == DmsKind_Item && statItem(target, folderFd, info) && DmsMemo_Read(target, info, facts)) {
    DmsWatch_Stat(target, info, true);
    return facts;
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

// Writes an element straight into the page it is rendered into. Each piece
// makes sure of its room with one comparison, and room is made for many
// pieces at a time, so a piece costs about its copy.
class Cursor {
 public:
  explicit Cursor(std::string& out) : out_(out), at_(out.data() + out.size()), end_(at_) {}
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() { out_.resize(static_cast<size_t>(at_ - out_.data())); }

  // A literal: its length is known here, so the copy is a few moves.
  template <size_t Size>
  [[gnu::always_inline]] Cursor& operator<<(const char (&text)[Size]) {
    return put(text, Size - 1);
  }
  Cursor& operator<<(std::string_view text) { return put(text.data(), text.size()); }
  Cursor& operator<<(char c) {
    room(1);
    *at_++ = c;
    return *this;
  }
  // `text` doubly escaped.
  void escaped(std::string_view text) {
    room(text.size() * XML_MaxEscapedTwice);
    at_ = XML_WriteEscaped(at_, text, true);
  }
  template <typename Number>
  void number(Number value) {
    room(kNumberRoom);
    at_ = std::to_chars(at_, end_, value).ptr;
  }
  // `value` in at least two digits, with a leading zero.
  void twoDigits(uint32_t value) {
    if (value < 10) *this << '0';
    number(value);
  }
  // `value` in at least six digits, with leading zeros.
  void sixDigits(uint32_t value) {
    room(kNumberRoom);
    for (uint32_t limit = 100000; limit > 1 && value < limit; limit /= 10) *at_++ = '0';
    at_ = std::to_chars(at_, end_, value).ptr;
  }

 private:
  static constexpr size_t kNumberRoom = 24;
  static constexpr size_t kStep = 1024;  // room made at a time: most of an element

  [[gnu::always_inline]] Cursor& put(const char* text, size_t length) {
    room(length);
    std::memcpy(at_, text, length);
    at_ += length;
    return *this;
  }
  [[gnu::always_inline]] void room(size_t length) {
    if (static_cast<size_t>(end_ - at_) < length) grow(length);
  }
  [[gnu::noinline]] void grow(size_t length) {
    const size_t used = static_cast<size_t>(at_ - out_.data());
    out_.resize(used + std::max(length, kStep));
    at_ = out_.data() + used;
    end_ = out_.data() + out_.size();
  }

  std::string& out_;
  char* at_;
  char* end_;
};

// The text form of an object's id, formed once for the several places that name it.
struct IdText {
  explicit IdText(DmsObjectId id) : length(static_cast<size_t>(DmsObjectId_Format(id, text))) {}
  std::string_view view() const { return {text, length}; }
  char text[DmsObjectId_TextSize];
  size_t length;
};

// The id as DIDL-Lite names it: the root is "0".
std::string_view didlId(const DmsObject* object, const IdText& id) {
  return object->id == DmsObjectId{0, 0} ? std::string_view("0") : id.view();
}

// The title from the file's tags, or else the object's title without its extension.
void writeItemTitle(Cursor& out, const DmsObject* target, const DmsItemFacts& facts) {
  if (!facts.title.empty()) {
    out.escaped(facts.title);
    return;
  }
  const std::string_view title = target->title();
  out.escaped(title.substr(0, title.rfind('.')));
}

void writeTag(Cursor& out, std::string_view open, std::string_view close,
              const std::optional<std::string_view>& value, bool wanted) {
  if (!wanted || !value) return;
  out << open;
  out.escaped(*value);
  out << close;
}

// duration="h:mm:ss.ffffff": hours as many digits as they take.
void writeDuration(Cursor& out, uint32_t duration, uint32_t timescale) {
  if (timescale == 0) timescale = 1;
  const uint32_t seconds = duration / timescale;
  const auto fraction = static_cast<uint32_t>(static_cast<uint64_t>(duration % timescale) * 1000000u / timescale);
  out << "duration=\"";
  out.number(seconds / 3600);
  out << ':';
  out.twoDigits((seconds % 3600) / 60);
  out << ':';
  out.twoDigits(seconds % 60);
  out << '.';
  out.sixDigits(fraction);
  out << '"';
}

// What an item's elements need beyond the item: the URLs' start and its id.
struct ItemUrls {
  std::string_view prefix;  // "http://host:port"
  std::string_view id;
};

// The media `res` element (duration or resolution first), and for items with
// a cover a second one pointing at the thumbnail.
void writeResources(Cursor& out, const DmsObject* target, const DmsItemFacts& facts, const ItemUrls& urls,
                    bool image) {
  const char* mime = target->mimeType ? target->mimeType : (image ? "image/*" : "*");
  out << "&lt;res ";
  if (image) {
    out << "resolution=\"";
    out.number(facts.width);
    out << 'x';
    out.number(facts.height);
    out << '"';
  } else {
    writeDuration(out, facts.duration, facts.timescale);
  }
  out << " size=\"";
  out.number(facts.size);
  out << "\" protocolInfo=\"http-get:*:" << std::string_view(mime) << ":DLNA.ORG_OP=01\"&gt;" << urls.prefix
      << "/mediaitem/" << urls.id << "&lt;/res&gt;";
  if (!facts.hasThumbnail()) return;
  out << "&lt;res protocolInfo=\"http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1\"&gt;"
      << urls.prefix << "/thumbnail/" << urls.id << "&lt;/res&gt;";
}

void writeItemBody(Cursor& out, const DmsObject* target, const DmsItemFacts& facts, const ItemUrls& urls,
                   uint32_t filter) {
  writeTag(out, "&lt;upnp:artist&gt;", "&lt;/upnp:artist&gt;", facts.artist, filter & DmsFilter_Artist);
  writeTag(out, "&lt;upnp:album&gt;", "&lt;/upnp:album&gt;", facts.album, filter & DmsFilter_Album);
  writeTag(out, "&lt;upnp:genre&gt;", "&lt;/upnp:genre&gt;", facts.genre, filter & DmsFilter_Genre);
  if (target->kind != DmsKind_Item) return;

  const bool image = target->upnpClass() == dlnaMediaClasses[DmsClass_ImageItem];
  const bool audioVideo = target->upnpClass() == dlnaMediaClasses[DmsClass_AudioItem] ||
                          target->upnpClass() == dlnaMediaClasses[DmsClass_VideoItem];
  if (image && facts.shownDate() != 0 && (filter & DmsFilter_Date)) {
    const time_t date = static_cast<time_t>(facts.shownDate());
    struct tm day {};
    char text[64];
    if (gmtime_r(&date, &day)) {
      out << std::string_view(text, std::strftime(text, sizeof text, "&lt;dc:date&gt;%Y-%m-%d&lt;/dc:date&gt;", &day));
    }
  }
  if (facts.hasThumbnail() && (filter & DmsFilter_AlbumArt)) {
    out << "&lt;upnp:albumArtURI dlna:profileID=\"JPEG_TN\" xmlns:dlna=\"urn:schemas-dlna-org:metadata-1-0/\"&gt;"
        << urls.prefix << "/thumbnail/" << urls.id << "&lt;/upnp:albumArtURI&gt;";
  }
  if (facts.recognised && (image || audioVideo) && (filter & DmsFilter_Res)) {
    writeResources(out, target, facts, urls, image);
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
  XML_AppendEscaped(out, text, true);
  return out;
}

DmsDidlFolders::~DmsDidlFolders() {
  for (size_t index = 0; index < count_; ++index) {
    if (folders_[index].fd >= 0) ::close(folders_[index].fd);
  }
}

int DmsDidlFolders::descriptor(const DmsObject* folder) {
  if (!folder || !DmsObject_IsFolder(folder)) return -1;
  // Open addressing: the items of a view come from folder after folder.
  const uint64_t hash = (folder->id.high * 0x9e3779b97f4a7c15ull) ^ (folder->id.low * 0xc2b2ae3d27d4eb4full);
  size_t slot = static_cast<size_t>(hash >> 32) & (kSlots - 1);
  for (; slots_[slot] != 0; slot = (slot + 1) & (kSlots - 1)) {
    const Folder& known = folders_[slots_[slot] - 1];
    if (known.id == folder->id) return known.fd;
  }
  if (count_ == kMaxFolders) return -1;
  const std::string path = DmsObject_GetPath(folder);
  const int fd = path.empty() ? -1 : ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  folders_[count_] = {folder->id, fd};
  slots_[slot] = static_cast<uint8_t>(++count_);
  return fd;
}

DmsDidlRenderer::DmsDidlRenderer(const char* host, uint16_t port, uint32_t filter) : filter_(filter) {
  char portText[8];
  urlPrefix_.append("http://").append(host).append(1, ':');
  urlPrefix_.append(portText, std::to_chars(portText, portText + sizeof portText, port).ptr);
}

void DmsDidlRenderer::append(std::string& page, DmsNode* node) {
  assert(DmsContent_Guarded());
  if (!node) return;
  DmsObject* target = node->target();
  const bool reference = node->kind == DmsKind_Reference;
  const bool container = node->kind == DmsKind_Container;
  const std::string_view element = container ? "container" : "item";
  const DmsObject* parent = node->parent;
  if (parent && (parentText_.empty() || !(parent->id == parentId_))) {
    parentId_ = parent->id;
    parentText_ = didlId(parent, IdText(parent->id));
  }
  const IdText id(DmsNode_Id(node));
  const std::optional<IdText> otherTargetId = reference ? std::optional<IdText>(target->id) : std::nullopt;
  const std::string_view targetId = otherTargetId ? otherTargetId->view() : id.view();

  Cursor out(page);
  out << "&lt;" << element << " id=\"" << didlId(target, id) << "\" parentID=\""
      << (parent ? std::string_view(parentText_) : "-1") << "\" ";
  if ((filter_ & DmsFilter_RefId) && reference) out << "refID=\"" << targetId << '"';
  out << " restricted=\"0\" ";
  if (container && (filter_ & DmsFilter_ChildCount)) {
    out << "childCount=\"";
    out.number(target->childCount < 0 ? 0 : target->childCount);
    out << '"';
  }
  out << "&gt;&lt;upnp:class&gt;" << std::string_view(publishedClass(target)) << "&lt;/upnp:class&gt;&lt;dc:title&gt;";
  if (container) {
    const bool volume = target->upnpClass() == dlnaMediaClasses[DmsClass_StorageVolume];
    if (volume) out << "Volume";
    else out.escaped(target->title());
    out << "&lt;/dc:title&gt;";
  } else {
    const DmsItemFacts facts = readItemFacts(target, folders_);
    writeItemTitle(out, target, facts);
    out << "&lt;/dc:title&gt;";
    writeItemBody(out, target, facts, ItemUrls{urlPrefix_, targetId}, filter_);
  }
  out << "&lt;/" << element << "&gt;";
}

std::string DmsDidl_RenderObject(DmsNode* node, const char* host, uint16_t port, uint32_t filter) {
  std::string out;
  DmsDidlRenderer(host, port, filter).append(out, node);
  return out;
}

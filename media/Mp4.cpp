// Metadata of ISO base media files (MP4, M4A, QuickTime with a file-type box):
// the movie duration, one stream per track from its headers and sample
// description, the item-list tags and where the cover picture lies.
#include "media/Mp4.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "base/ByteOrder.h"
#include "media/Genres.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr uint32_t boxType(const char (&name)[5]) { return uint32_t(Bytes_BigEndian(name, 4)); }

// A path element that matches whatever box comes first.
constexpr uint32_t kAnyBox = 1;

constexpr uint32_t kFtyp = boxType("ftyp");
constexpr uint32_t kMoov = boxType("moov");
constexpr uint32_t kMvhd = boxType("mvhd");
constexpr uint32_t kTrak = boxType("trak");
constexpr uint32_t kTkhd = boxType("tkhd");
constexpr uint32_t kTref = boxType("tref");
constexpr uint32_t kMdia = boxType("mdia");
constexpr uint32_t kMdhd = boxType("mdhd");
constexpr uint32_t kHdlr = boxType("hdlr");
constexpr uint32_t kMinf = boxType("minf");
constexpr uint32_t kStbl = boxType("stbl");
constexpr uint32_t kStsd = boxType("stsd");
constexpr uint32_t kStts = boxType("stts");
constexpr uint32_t kStsc = boxType("stsc");
constexpr uint32_t kStsz = boxType("stsz");
constexpr uint32_t kStco = boxType("stco");
constexpr uint32_t kCo64 = boxType("co64");
constexpr uint32_t kCtts = boxType("ctts");
constexpr uint32_t kStss = boxType("stss");
constexpr uint32_t kUdta = boxType("udta");
constexpr uint32_t kMeta = boxType("meta");
constexpr uint32_t kIlst = boxType("ilst");
constexpr uint32_t kData = boxType("data");
constexpr uint32_t kItemTitle = boxType("\xA9nam");
constexpr uint32_t kItemArtist = boxType("\xA9" "ART");
constexpr uint32_t kItemAlbum = boxType("\xA9" "alb");
constexpr uint32_t kItemGenre = boxType("\xA9" "gen");
constexpr uint32_t kItemGenreNumber = boxType("gnre");
constexpr uint32_t kItemDay = boxType("\xA9" "day");
constexpr uint32_t kItemCover = boxType("covr");
constexpr uint32_t kHandlerSound = boxType("soun");
constexpr uint32_t kHandlerVideo = boxType("vide");
constexpr uint32_t kHandlerSubtitle = boxType("sbtl");
constexpr uint32_t kHandlerText = boxType("text");

constexpr uint32_t kStreamKindSubtitle = 4;
constexpr uint32_t kStreamKindText = 5;

constexpr int64_t kBoxHeader = 8;
constexpr int64_t kLargeBoxHeader = 16;
constexpr uint32_t kLargeSizeMark = 1;

// Bounds of the search: the file type must show early, the movie box among
// the first few top-level boxes, and no level is walked without a limit.
constexpr int64_t kFtypWindow = 512;
constexpr unsigned kMaxSiblings = 128;
constexpr unsigned kMaxTopLevelBoxes = 8;
constexpr unsigned kMaxMovieChildren = 48;
constexpr unsigned kMaxTracks = 32;
constexpr unsigned kMaxTrackChildren = 8;
constexpr unsigned kMaxMediaChildren = 8;
constexpr unsigned kMaxItems = 64;

// Smallest payloads that hold the fields read from them.
constexpr int64_t kMinFtypPayload = 4;
constexpr int64_t kMinMvhdPayload = 20;
constexpr int64_t kMinTkhdPayload = 84;
constexpr int64_t kMinMdhdPayload = 24;
constexpr int64_t kMinHdlrPayload = 12;
constexpr int64_t kMinStsdPayload = 24;
constexpr int64_t kMinMetaPayload = 4;
constexpr int64_t kMinDataPayload = 8;

// The sample entry header (size, format, reserved bytes, data reference
// index) and the fields behind it that are read.
constexpr int64_t kSampleEntryHeader = 16;
constexpr size_t kAudioEntryFields = 20;
constexpr size_t kVideoEntryFields = 70;

constexpr int64_t kMaxTextValue = 512;
constexpr int64_t kMaxGenreNumberValue = 4;
constexpr int64_t kMaxCoverValue = 1048576;

constexpr uint32_t kDataUtf8 = 1;
constexpr uint32_t kDataUtf16 = 2;
constexpr uint32_t kDataJpeg = 13;
constexpr uint32_t kDataPng = 14;
constexpr uint32_t kDataBmp = 27;

struct Mp4Box {
  uint32_t type = 0;
  int64_t payload = 0;  // file position of the payload
  int64_t length = 0;   // payload length

  int64_t end() const { return payload + length; }
  Mp4Span span() const { return {payload, length}; }
};

bool readU32At(int fd, int64_t position, uint32_t& value) {
  return MediaSeek(fd, position, SEEK_SET) == position && MediaRead_U32BE(fd, value);
}

// Reads the header of the box at `position`. The whole box must fit in the
// `available` bytes of its parent; sizes 0 (to the end of the file) and 2 to
// 7 are refused, as is a 64-bit size under 16.
bool readBoxHeader(int fd, int64_t position, int64_t available, Mp4Box& box) {
  if (available < kBoxHeader || MediaSeek(fd, position, SEEK_SET) != position) return false;
  uint32_t size32 = 0;
  uint32_t type = 0;
  if (!MediaRead_U32BE(fd, size32) || !MediaRead_U32BE(fd, type)) return false;
  uint64_t size = size32;
  int64_t header = kBoxHeader;
  if (size32 == kLargeSizeMark) {
    if (!MediaRead_U64BE(fd, size)) return false;
    header = kLargeBoxHeader;
  }
  if (size < uint64_t(header) || size > uint64_t(available)) return false;
  box = {type, position + header, int64_t(size) - header};
  return true;
}

// The box path search: for each type of `path`, walks at most kMaxSiblings
// boxes of the current level and enters the first that matches; `box` is the
// last one entered.
bool findBox(int fd, std::initializer_list<uint32_t> path, int64_t start, int64_t length,
             Mp4Box& box) {
  for (uint32_t wanted : path) {
    const int64_t end = start + length;
    int64_t position = start;
    bool entered = false;
    for (unsigned sibling = 0; sibling < kMaxSiblings && !entered; ++sibling) {
      if (!readBoxHeader(fd, position, end - position, box)) return false;
      entered = wanted == kAnyBox || box.type == wanted;
      position = box.end();
    }
    if (!entered) return false;
    start = box.payload;
    length = box.length;
  }
  return true;
}

// The children of one box, one at a time through the path search, up to a
// count limit; the first damaged child ends the walk.
class BoxWalk {
 public:
  BoxWalk(int fd, int64_t start, int64_t end, unsigned limit)
      : fd_(fd), position_(start), end_(end), left_(limit) {}
  BoxWalk(int fd, const Mp4Box& parent, unsigned limit)
      : BoxWalk(fd, parent.payload, parent.end(), limit) {}

  bool next(Mp4Box& box) {
    if (left_ == 0 || !findBox(fd_, {kAnyBox}, position_, end_ - position_, box)) return false;
    --left_;
    position_ = box.end();
    return true;
  }

 private:
  int fd_;
  int64_t position_;
  int64_t end_;
  unsigned left_;
};

struct Mp4Parser {
  int fd;
  MediaStream& stream;
  Mp4SeekInfo* seek;  // null when only metadata is wanted

  void parseMovie(const Mp4Box& moov);
  void parseMovieHeader(const Mp4Box& mvhd);
  void parseTrack(const Mp4Box& trak);
  bool readTrackHeader(const Mp4Box& tkhd, StreamInfo& info);
  bool readMedia(const Mp4Box& mdia, StreamInfo& info, Mp4SampleTables& tables);
  bool readMediaHeader(const Mp4Box& mdhd, StreamInfo& info);
  bool readHandler(const Mp4Box& hdlr, StreamInfo& info);
  void readSampleTable(const Mp4Box& minf, StreamInfo& info, Mp4SampleTables& tables);
  void readSampleDescription(const Mp4Box& stsd, StreamInfo& info);
  void parseUserData(const Mp4Box& udta);
  void readItem(const Mp4Box& item);
  void readText(uint32_t dataType, int64_t position, int64_t length,
                std::optional<std::string>& text);
  void readGenreNumber(int64_t position, int64_t length);
  void readDay(int64_t position, int64_t length);
};

void Mp4Parser::parseMovie(const Mp4Box& moov) {
  BoxWalk children(fd, moov, kMaxMovieChildren);
  unsigned tracks = 0;
  Mp4Box child;
  while (children.next(child)) {
    if (child.type == kMvhd) {
      parseMovieHeader(child);
    } else if (child.type == kTrak && tracks < kMaxTracks) {
      ++tracks;
      parseTrack(child);
    } else if (child.type == kUdta) {
      parseUserData(child);
    }
  }
}

// Version 1 headers carry 64-bit times; they are read with the version 0
// offsets all the same, so their values come out wrong.
void Mp4Parser::parseMovieHeader(const Mp4Box& mvhd) {
  constexpr int64_t kTimescaleAt = 12;
  uint32_t timescale = 0;
  uint32_t duration = 0;
  if (mvhd.length < kMinMvhdPayload || !readU32At(fd, mvhd.payload + kTimescaleAt, timescale) ||
      !MediaRead_U32BE(fd, duration)) {
    return;
  }
  if (timescale == 0 || duration == 0) return;
  stream.timescale = timescale;
  stream.duration = duration;
}

void Mp4Parser::parseTrack(const Mp4Box& trak) {
  StreamInfo info;
  Mp4SampleTables tables;
  bool seenHeader = false, seenReferences = false, seenMedia = false;
  bool haveHeader = false, haveMedia = false;
  BoxWalk children(fd, trak, kMaxTrackChildren);
  Mp4Box child;
  while (children.next(child)) {
    if (child.type == kTkhd && !seenHeader) {
      seenHeader = true;
      haveHeader = readTrackHeader(child, info);
    } else if (child.type == kTref && !seenReferences) {
      seenReferences = true;
      tables.references = child.span();
    } else if (child.type == kMdia && !seenMedia) {
      seenMedia = true;
      haveMedia = readMedia(child, info, tables);
    }
  }
  if (!haveHeader || !haveMedia) return;
  stream.streamInfo.push_back(info);
  if (!seek) return;
  tables.trackId = info.streamNumber;
  tables.timescale = info.timescale;
  seek->tracks.push_back(tables);
}

bool Mp4Parser::readTrackHeader(const Mp4Box& tkhd, StreamInfo& info) {
  constexpr int64_t kTrackIdAt = 12;
  constexpr uint32_t kTrackEnabled = 1;
  uint32_t versionFlags = 0;
  uint32_t trackId = 0;
  if (tkhd.length < kMinTkhdPayload || !readU32At(fd, tkhd.payload, versionFlags) ||
      !readU32At(fd, tkhd.payload + kTrackIdAt, trackId) || trackId == 0) {
    return false;
  }
  info.streamNumber = trackId;
  info.enabled = (versionFlags & kTrackEnabled) ? 1 : 0;
  return true;
}

// The media box is complete once its header, handler and media information
// were found in that order.
bool Mp4Parser::readMedia(const Mp4Box& mdia, StreamInfo& info, Mp4SampleTables& tables) {
  bool haveHeader = false, haveHandler = false, haveInformation = false;
  BoxWalk children(fd, mdia, kMaxMediaChildren);
  Mp4Box child;
  while (!haveInformation && children.next(child)) {
    if (child.type == kMdhd && !haveHeader) {
      if (!readMediaHeader(child, info)) return false;
      haveHeader = true;
    } else if (child.type == kHdlr && haveHeader && !haveHandler) {
      if (!readHandler(child, info)) return false;
      haveHandler = true;
    } else if (child.type == kMinf && haveHandler) {
      readSampleTable(child, info, tables);
      haveInformation = true;
    }
  }
  return haveInformation;
}

bool Mp4Parser::readMediaHeader(const Mp4Box& mdhd, StreamInfo& info) {
  constexpr int64_t kTimescaleAt = 12;
  uint32_t timescale = 0;
  uint32_t duration = 0;
  uint16_t language = 0;
  if (mdhd.length < kMinMdhdPayload || !readU32At(fd, mdhd.payload + kTimescaleAt, timescale) ||
      !MediaRead_U32BE(fd, duration) || !MediaRead_U16BE(fd, language)) {
    return false;
  }
  if (timescale == 0 || duration == 0) return false;
  info.timescale = timescale;
  info.duration = duration;
  return true;
}

bool Mp4Parser::readHandler(const Mp4Box& hdlr, StreamInfo& info) {
  constexpr int64_t kHandlerTypeAt = 8;  // behind version, flags and the pre-defined word
  uint32_t handler = 0;
  if (hdlr.length < kMinHdlrPayload || !readU32At(fd, hdlr.payload + kHandlerTypeAt, handler)) {
    return false;
  }
  switch (handler) {
    case kHandlerSound: info.streamKind = MediaType_Audio; break;
    case kHandlerVideo: info.streamKind = MediaType_Video; break;
    case kHandlerSubtitle: info.streamKind = kStreamKindSubtitle; break;
    case kHandlerText: info.streamKind = kStreamKindText; break;
    default: info.streamKind = MediaType_None; break;
  }
  return true;
}

// Reads the sample description; the other sample tables are only located,
// and only when seek data is built.
void Mp4Parser::readSampleTable(const Mp4Box& minf, StreamInfo& info, Mp4SampleTables& tables) {
  Mp4Box stbl;
  if (!findBox(fd, {kStbl}, minf.payload, minf.length, stbl)) return;
  bool seenDescription = false;
  BoxWalk children(fd, stbl, kMaxSiblings);
  Mp4Box child;
  while (children.next(child)) {
    switch (child.type) {
      case kStsd:
        if (!seenDescription) readSampleDescription(child, info);
        seenDescription = true;
        if (!seek) return;
        break;
      case kStts: tables.timeToSample = child.span(); break;
      case kStsc: tables.sampleToChunk = child.span(); break;
      case kStsz: tables.sampleSizes = child.span(); break;
      case kStco: tables.chunkOffsets = child.span(); tables.chunkOffsets64 = false; break;
      case kCo64: tables.chunkOffsets = child.span(); tables.chunkOffsets64 = true; break;
      case kCtts: tables.compositionOffsets = child.span(); break;
      case kStss: tables.syncSamples = child.span(); break;
      default: break;
    }
  }
}

void Mp4Parser::readSampleDescription(const Mp4Box& stsd, StreamInfo& info) {
  constexpr int64_t kEntryAt = 8;  // behind version, flags and entry count
  uint32_t versionFlags = 0, entryCount = 0, entrySize = 0, format = 0;
  if (stsd.length < kMinStsdPayload || !readU32At(fd, stsd.payload, versionFlags) ||
      !MediaRead_U32BE(fd, entryCount) || !MediaRead_U32BE(fd, entrySize) ||
      !MediaRead_U32BE(fd, format)) {
    return;
  }
  if (entryCount != 1 || entrySize < kSampleEntryHeader || entrySize > stsd.length - kEntryAt) {
    return;
  }
  const int64_t fields = stsd.payload + kEntryAt + kSampleEntryHeader;
  const int64_t fieldsLength = int64_t(entrySize) - kSampleEntryHeader;
  std::array<uint8_t, kVideoEntryFields> bytes{};

  if (info.streamKind == MediaType_Audio) {
    if (fieldsLength < int64_t(kAudioEntryFields) ||
        !MediaRead_At(fd, fields, bytes.data(), kAudioEntryFields)) {
      return;
    }
    const uint16_t soundVersion = Bytes_U16BE(&bytes[0]);
    const uint16_t channels = Bytes_U16BE(&bytes[8]);
    const uint16_t sampleSize = Bytes_U16BE(&bytes[10]);
    const uint16_t rate = Bytes_U16BE(&bytes[16]);  // integer part of a 16.16 number
    if (soundVersion > 1 || channels < 1 || channels > 255 || sampleSize < 4 || sampleSize > 64 ||
        rate == 0) {
      return;
    }
    info.sampleRate = rate;
    info.channels = uint8_t(channels);
    info.bitsPerSample = uint8_t(sampleSize);
  } else if (info.streamKind == MediaType_Video) {
    if (fieldsLength < int64_t(kVideoEntryFields) ||
        !MediaRead_At(fd, fields, bytes.data(), kVideoEntryFields)) {
      return;
    }
    // Behind the version, revision, vendor and two quality words; the depth
    // follows resolution, data size, frame count and the compressor name.
    const uint16_t width = Bytes_U16BE(&bytes[16]);
    const uint16_t height = Bytes_U16BE(&bytes[18]);
    const uint16_t depth = Bytes_U16BE(&bytes[66]);
    if (width == 0 || height == 0 || depth < 1 || depth > 255) return;
    info.width = width;
    info.height = height;
    info.bitsPerPixel = uint8_t(depth);
  }
}

void Mp4Parser::parseUserData(const Mp4Box& udta) {
  Mp4Box meta, ilst;
  if (!findBox(fd, {kMeta}, udta.payload, udta.length, meta) || meta.length < kMinMetaPayload ||
      !findBox(fd, {kIlst}, meta.payload + kMinMetaPayload, meta.length - kMinMetaPayload, ilst)) {
    return;
  }
  BoxWalk items(fd, ilst, kMaxItems);
  Mp4Box item;
  while (items.next(item)) readItem(item);
}

void Mp4Parser::readItem(const Mp4Box& item) {
  Mp4Box data;
  uint32_t dataType = 0;
  if (!findBox(fd, {kData}, item.payload, item.length, data) || data.length < kMinDataPayload ||
      !readU32At(fd, data.payload, dataType)) {
    return;
  }
  // Behind the type indicator and the locale word.
  const int64_t value = data.payload + kMinDataPayload;
  const int64_t valueLength = data.length - kMinDataPayload;
  switch (item.type) {
    case kItemTitle: readText(dataType, value, valueLength, stream.title); break;
    case kItemArtist: readText(dataType, value, valueLength, stream.artist); break;
    case kItemAlbum: readText(dataType, value, valueLength, stream.album); break;
    case kItemGenre: readText(dataType, value, valueLength, stream.genre); break;
    case kItemGenreNumber: readGenreNumber(value, valueLength); break;
    case kItemDay: readDay(value, valueLength); break;
    case kItemCover:
      if (valueLength < 1 || valueLength > kMaxCoverValue) break;
      if (dataType == kDataJpeg) stream.coverMimeType = "image/jpeg";
      else if (dataType == kDataPng) stream.coverMimeType = "image/png";
      else if (dataType == kDataBmp) stream.coverMimeType = "image/bmp";
      else return MediaNote_Shortcut("mp4: a cover of another type than JPEG, PNG or BMP is no cover");
      stream.coverOffset = value;
      stream.coverLength = valueLength;
      break;
    default: break;
  }
}

// UTF-8 values are taken as they stand, up to a zero byte. UTF-16 values are
// reported as empty texts: their conversion has always handed back the end of
// the converted characters, and clients of this server see them that way.
void Mp4Parser::readText(uint32_t dataType, int64_t position, int64_t length,
                         std::optional<std::string>& text) {
  if (length < 1 || length > kMaxTextValue) return;
  std::array<char, kMaxTextValue> bytes;
  if (!MediaRead_At(fd, position, bytes.data(), size_t(length))) return;
  if (dataType == kDataUtf8) text.emplace(bytes.data(), strnlen(bytes.data(), size_t(length)));
  else if (dataType == kDataUtf16) {
    text.emplace();
    MediaNote_Shortcut("mp4: a UTF-16 tag text comes out empty");
  }
}

// A genre number counts from 1; 0 and numbers above 255 are ignored.
void Mp4Parser::readGenreNumber(int64_t position, int64_t length) {
  std::array<uint8_t, kMaxGenreNumberValue> bytes;
  if (length < 1 || length > kMaxGenreNumberValue ||
      !MediaRead_At(fd, position, bytes.data(), size_t(length))) {
    return;
  }
  const uint64_t number = Bytes_BigEndian(bytes.data(), size_t(length));
  if (number < 1 || number > 255) return;
  const char* name = MediaGenre_Name(number - 1);
  if (name) stream.genre = name;
  else stream.genre.reset();
}

// A year, optionally with month and day; any time of day is ignored. (A
// colon-separated form starts with the same number, so it adds nothing.)
void Mp4Parser::readDay(int64_t position, int64_t length) {
  std::array<char, kMaxTextValue + 1> text{};
  if (length < 1 || length > kMaxTextValue ||
      !MediaRead_At(fd, position, text.data(), size_t(length))) {
    return;
  }
  if (auto date = MediaDate_Scan(text.data(), {"%d-%d-%d"}, 1)) stream.date = *date;
}

}  // namespace

bool MediaParse_Mp4(int fd, int64_t offset, int64_t length, MediaStream& stream,
                    bool metadataOnly) {
  stream.duration = 1;
  stream.timescale = 1000;
  if (offset < 0 || length <= 0 || length > std::numeric_limits<int64_t>::max() - offset) {
    return false;
  }

  Mp4Box ftyp;
  uint32_t majorBrand = 0;
  if (!findBox(fd, {kFtyp}, offset, std::min(length, kFtypWindow), ftyp) ||
      ftyp.length < kMinFtypPayload || !readU32At(fd, ftyp.payload, majorBrand)) {
    return false;
  }

  std::unique_ptr<Mp4SeekInfo> seek;
  if (!metadataOnly) {
    seek = std::make_unique<Mp4SeekInfo>();
    seek->dataStart = offset;
    seek->dataLength = length;
  }
  Mp4Parser parser{fd, stream, seek.get()};
  BoxWalk topLevel(fd, offset, offset + length, kMaxTopLevelBoxes);
  Mp4Box box;
  while (topLevel.next(box)) {
    if (box.type != kMoov) continue;
    parser.parseMovie(box);
    break;
  }
  if (box.type != kMoov) MediaNote_Unpublished("mp4: no moov box among the first 8 top-level boxes");
  if (stream.streamInfo.empty()) MediaNote_Unpublished("mp4: no track with a usable tkhd and mdia box");

  for (const StreamInfo& info : stream.streamInfo) {
    if (info.streamKind == MediaType_Video) {
      stream.mediaType = MediaType_Video;
      break;
    }
    if (info.streamKind == MediaType_Audio) stream.mediaType = MediaType_Audio;
  }
  if (stream.mediaType == MediaType_Video) stream.mimeType = "video/mp4";
  else if (stream.mediaType == MediaType_Audio) stream.mimeType = "audio/mp4";
  else MediaNote_Unpublished("mp4: no audio or video track");
  stream.seekInfo = std::move(seek);
  return true;
}

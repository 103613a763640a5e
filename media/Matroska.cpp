// Matroska and WebM metadata: the document type from the EBML header, then
// duration, date and title from the Segment's Info, one stream per usable
// track from Tracks, and a JPEG cover from Attachments. Clusters, Cues,
// Chapters and Tags are never read, so the walk stays near the file's head;
// sections placed behind the first Cluster are reached through the SeekHead.
#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "media/Ebml.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"

namespace {

// Element IDs, written with their marker bits.
constexpr uint32_t kIdEbmlHeader = 0x1A45DFA3;
constexpr uint32_t kIdDocType = 0x4282;
constexpr uint32_t kIdSegment = 0x18538067;
constexpr uint32_t kIdSeekHead = 0x114D9B74;
constexpr uint32_t kIdSeek = 0x4DBB;
constexpr uint32_t kIdSeekId = 0x53AB;
constexpr uint32_t kIdSeekPosition = 0x53AC;
constexpr uint32_t kIdInfo = 0x1549A966;
constexpr uint32_t kIdTimecodeScale = 0x2AD7B1;
constexpr uint32_t kIdDuration = 0x4489;
constexpr uint32_t kIdTitle = 0x7BA9;
constexpr uint32_t kIdDateUtc = 0x4461;
constexpr uint32_t kIdTracks = 0x1654AE6B;
constexpr uint32_t kIdTrackEntry = 0xAE;
constexpr uint32_t kIdTrackNumber = 0xD7;
constexpr uint32_t kIdTrackType = 0x83;
constexpr uint32_t kIdFlagEnabled = 0xB9;
constexpr uint32_t kIdFlagDefault = 0x88;
constexpr uint32_t kIdVideo = 0xE0;
constexpr uint32_t kIdPixelWidth = 0xB0;
constexpr uint32_t kIdPixelHeight = 0xBA;
constexpr uint32_t kIdAudio = 0xE1;
constexpr uint32_t kIdSamplingFrequency = 0xB5;
constexpr uint32_t kIdOutputSamplingFrequency = 0x78B5;
constexpr uint32_t kIdChannels = 0x9F;
constexpr uint32_t kIdBitDepth = 0x6264;
constexpr uint32_t kIdAttachments = 0x1941A469;
constexpr uint32_t kIdAttachedFile = 0x61A7;
constexpr uint32_t kIdFileName = 0x466E;
constexpr uint32_t kIdFileMimeType = 0x4660;
constexpr uint32_t kIdFileData = 0x465C;
constexpr uint32_t kIdCluster = 0x1F43B675;

// How much of each element is looked at.
constexpr unsigned kTopLevelChildLimit = 8;  // elements tolerated before the Segment
constexpr unsigned kEbmlHeaderChildLimit = 16;
constexpr int64_t kDocTypeMaxBytes = 63;
constexpr unsigned kSegmentChildLimit = 16;
constexpr size_t kSeekEntryLimit = 6;
constexpr unsigned kSeekHeadChildLimit = 16;
constexpr unsigned kSeekChildLimit = 4;
constexpr int64_t kSeekIdMaxBytes = 4;
constexpr unsigned kInfoChildLimit = 24;
constexpr size_t kTitleMaxBytes = 511;
constexpr unsigned kTracksChildLimit = 48;
constexpr size_t kTrackKeepLimit = 32;
constexpr unsigned kTrackEntryChildLimit = 64;
constexpr unsigned kVideoChildLimit = 16;
constexpr unsigned kAudioChildLimit = 16;
constexpr unsigned kAttachmentsChildLimit = 64;
constexpr unsigned kAttachedFileChildLimit = 8;
constexpr size_t kFileNameMaxBytes = 63;
constexpr int64_t kCoverSizeLimit = 1048576;  // a cover must be smaller than 1 MiB

constexpr uint64_t kDefaultTimecodeScale = 1000000;  // nanoseconds per tick
constexpr uint64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kSecondsTo2001 = 978307200;  // 1970-01-01 to 2001-01-01 UTC
constexpr uint64_t kTrackTypeVideo = 1;
constexpr uint64_t kTrackTypeAudio = 2;
constexpr uint64_t kTrackTypeSubtitle = 17;
constexpr uint64_t kTrackTypeMax = 254;
constexpr uint32_t kStreamKindSubtitle = 4;
constexpr uint64_t kPixelMax = 65535;
constexpr double kFrequencyMin = 1.0;
constexpr double kFrequencyMax = 4294967295.0;
constexpr uint64_t kChannelsLimit = 256;
constexpr uint64_t kBitDepthMax = 64;

constexpr const char* kCoverNames[] = {"cover.jpg", "small_cover.jpg"};

struct SeekEntry {
  uint32_t id = 0;
  int64_t position = 0;  // absolute
};

// Bit of the sections that are read, so that each is read once whether the
// walk or the SeekHead finds it first.
uint8_t sectionBit(uint32_t id) {
  switch (id) {
    case kIdInfo: return 1;
    case kIdTracks: return 2;
    case kIdAttachments: return 4;
    default: return 0;
  }
}

uint32_t streamKindOf(uint64_t trackType) {
  switch (trackType) {
    case kTrackTypeAudio: return MediaType_Audio;
    case kTrackTypeVideo: return MediaType_Video;
    case kTrackTypeSubtitle: return kStreamKindSubtitle;
    default: return 0;
  }
}

uint32_t toUint32(double value) {
  return value >= static_cast<double>(UINT32_MAX) ? UINT32_MAX : static_cast<uint32_t>(value);
}

bool readDocType(int fd, const EbmlElement& header, std::string& docType) {
  EbmlWalker walker(fd, header, kEbmlHeaderChildLimit);
  EbmlElement child;
  while (walker.next(child)) {
    if (child.id != kIdDocType) continue;
    return child.size <= kDocTypeMaxBytes &&
           EbmlRead_Text(fd, child, static_cast<size_t>(kDocTypeMaxBytes), docType);
  }
  return false;
}

class SegmentReader {
 public:
  SegmentReader(int fd, const EbmlElement& segment, MediaStream& stream)
      : fd_(fd), segment_(segment), stream_(stream) {}

  void read() {
    EbmlWalker walker(fd_, segment_, kSegmentChildLimit);
    EbmlElement child;
    while (walker.next(child) && child.id != kIdCluster) {
      if (child.id == kIdSeekHead) readSeekHead(child);
      else readSection(child);
    }
    std::stable_sort(
        seeks_.begin(), seeks_.begin() + seekCount_,
        [](const SeekEntry& a, const SeekEntry& b) { return a.position < b.position; });
    for (size_t i = 0; i < seekCount_; ++i) {
      const SeekEntry& entry = seeks_[i];
      const uint8_t bit = sectionBit(entry.id);
      if (bit == 0 || (done_ & bit)) continue;
      EbmlElement element;
      if (EbmlRead_Header(fd_, entry.position, segment_.end(), element) && element.id == entry.id) {
        readSection(element);
      }
    }
  }

 private:
  void readSection(const EbmlElement& element) {
    done_ |= sectionBit(element.id);
    switch (element.id) {
      case kIdInfo: readInfo(element); break;
      case kIdTracks: readTracks(element); break;
      case kIdAttachments: readAttachments(element); break;
      default: break;
    }
  }

  void readSeekHead(const EbmlElement& seekHead) {
    EbmlWalker walker(fd_, seekHead, kSeekHeadChildLimit);
    EbmlElement seek;
    while (seekCount_ < kSeekEntryLimit && walker.next(seek)) {
      if (seek.id != kIdSeek) continue;
      uint64_t id = 0, position = 0;
      bool haveId = false, havePosition = false;
      EbmlWalker fields(fd_, seek, kSeekChildLimit);
      EbmlElement field;
      while (fields.next(field)) {
        if (field.id == kIdSeekId && field.size > 0 && field.size <= kSeekIdMaxBytes) {
          haveId = EbmlRead_Unsigned(fd_, field, id);
        } else if (field.id == kIdSeekPosition) {
          havePosition = EbmlRead_Unsigned(fd_, field, position);
        }
      }
      if (!haveId || !havePosition || position >= static_cast<uint64_t>(segment_.size)) continue;
      seeks_[seekCount_++] = {static_cast<uint32_t>(id),
                              segment_.dataStart + static_cast<int64_t>(position)};
    }
  }

  void readInfo(const EbmlElement& info) {
    uint64_t scale = kDefaultTimecodeScale;
    double duration = 0.0;
    EbmlWalker walker(fd_, info, kInfoChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      bool ok = true;
      if (child.id == kIdTimecodeScale) {
        ok = EbmlRead_Unsigned(fd_, child, scale);
      } else if (child.id == kIdDuration) {
        ok = EbmlRead_Float(fd_, child, duration);
      } else if (child.id == kIdTitle) {
        std::string title;
        ok = EbmlRead_Text(fd_, child, kTitleMaxBytes, title);
        if (ok) stream_.title = std::move(title);
      } else if (child.id == kIdDateUtc) {
        int64_t nanoseconds = 0;
        ok = EbmlRead_Signed(fd_, child, nanoseconds);
        if (ok) {
          const int64_t seconds = nanoseconds / static_cast<int64_t>(kNanosecondsPerSecond);
          stream_.date = static_cast<int32_t>(seconds + kSecondsTo2001);
        }
      }
      if (!ok) break;
    }
    if (duration > 0.0 && scale >= 1 && scale <= kNanosecondsPerSecond) {
      stream_.duration = toUint32(duration);
      stream_.timescale = static_cast<uint32_t>(kNanosecondsPerSecond / scale);
    }
  }

  void readTracks(const EbmlElement& tracks) {
    std::vector<StreamInfo> kept;
    EbmlWalker walker(fd_, tracks, kTracksChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      if (child.id != kIdTrackEntry || kept.size() >= kTrackKeepLimit) continue;
      StreamInfo info;
      if (readTrackEntry(child, info)) kept.push_back(info);
    }
    stream_.streamInfo = std::move(kept);
  }

  // True when the entry describes a track worth keeping.
  bool readTrackEntry(const EbmlElement& entry, StreamInfo& info) {
    uint64_t number = 0, type = 0, enabled = 1, isDefault = 0;
    EbmlWalker walker(fd_, entry, kTrackEntryChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      bool ok = true;
      switch (child.id) {
        case kIdTrackNumber: ok = EbmlRead_Unsigned(fd_, child, number); break;
        case kIdTrackType: ok = EbmlRead_Unsigned(fd_, child, type); break;
        case kIdFlagEnabled: ok = EbmlRead_Unsigned(fd_, child, enabled); break;
        case kIdFlagDefault: ok = EbmlRead_Unsigned(fd_, child, isDefault); break;
        case kIdVideo:
          if (!readVideo(child, info)) return false;
          break;
        case kIdAudio:
          if (!readAudio(child, info)) return false;
          break;
        default: break;
      }
      if (!ok || enabled == 0) break;
    }
    if (number == 0 || number > UINT32_MAX || type < 1 || type > kTrackTypeMax || enabled == 0) {
      return false;
    }
    info.streamNumber = static_cast<uint32_t>(number);
    info.streamKind = streamKindOf(type);
    info.enabled = isDefault != 0;
    return true;
  }

  bool readVideo(const EbmlElement& video, StreamInfo& info) {
    uint64_t width = 0, height = 0;
    EbmlWalker walker(fd_, video, kVideoChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      if (child.id == kIdPixelWidth && !EbmlRead_Unsigned(fd_, child, width)) return false;
      if (child.id == kIdPixelHeight && !EbmlRead_Unsigned(fd_, child, height)) return false;
    }
    if (walker.failed() || width > kPixelMax || height > kPixelMax) return false;
    info.width = static_cast<uint16_t>(width);
    info.height = static_cast<uint16_t>(height);
    return true;
  }

  bool readAudio(const EbmlElement& audio, StreamInfo& info) {
    double frequency = 0.0;
    uint64_t channels = 0, bitDepth = 0;
    EbmlWalker walker(fd_, audio, kAudioChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      bool ok = true;
      switch (child.id) {
        // Both frequencies land in one value: the later in the file wins.
        case kIdSamplingFrequency:
        case kIdOutputSamplingFrequency: ok = EbmlRead_Float(fd_, child, frequency); break;
        case kIdChannels: ok = EbmlRead_Unsigned(fd_, child, channels); break;
        case kIdBitDepth: ok = EbmlRead_Unsigned(fd_, child, bitDepth); break;
        default: break;
      }
      if (!ok) return false;
    }
    if (walker.failed() || !(frequency >= kFrequencyMin && frequency <= kFrequencyMax) ||
        channels >= kChannelsLimit || bitDepth > kBitDepthMax) {
      return false;
    }
    info.sampleRate = static_cast<uint32_t>(frequency);
    info.channels = static_cast<uint8_t>(channels);
    info.bitsPerSample = static_cast<uint8_t>(bitDepth);
    return true;
  }

  // The first attachment named like a cover decides: taken when its data is
  // not empty and below the size limit, and the search ends either way.
  void readAttachments(const EbmlElement& attachments) {
    EbmlWalker walker(fd_, attachments, kAttachmentsChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      if (child.id != kIdAttachedFile) continue;
      std::string name;
      EbmlElement data;
      if (!readAttachedFile(child, name, data)) return;
      if (std::find(std::begin(kCoverNames), std::end(kCoverNames), name) ==
          std::end(kCoverNames)) {
        continue;
      }
      if (data.size > 0 && data.size < kCoverSizeLimit) {
        stream_.coverMimeType = "image/jpeg";
        stream_.coverOffset = data.dataStart;
        stream_.coverLength = data.size;
      }
      return;
    }
  }

  // Name and data of one attachment; the data is located, not read. Each
  // field counts once: a repeat ends the reading. False on a read failure.
  bool readAttachedFile(const EbmlElement& file, std::string& name, EbmlElement& data) {
    bool haveName = false, haveMimeType = false, haveData = false;
    EbmlWalker walker(fd_, file, kAttachedFileChildLimit);
    EbmlElement child;
    while (walker.next(child)) {
      if (child.id == kIdFileName) {
        if (haveName) break;
        haveName = true;
        if (!EbmlRead_Text(fd_, child, kFileNameMaxBytes, name)) return false;
      } else if (child.id == kIdFileMimeType) {
        if (haveMimeType) break;
        haveMimeType = true;  // the attachment's own type is not trusted
      } else if (child.id == kIdFileData) {
        if (haveData) break;
        haveData = true;
        data = child;
      }
    }
    return !walker.failed();
  }

  int fd_;
  EbmlElement segment_;
  MediaStream& stream_;
  std::array<SeekEntry, kSeekEntryLimit> seeks_{};
  size_t seekCount_ = 0;
  uint8_t done_ = 0;
};

const char* mimeTypeFor(int32_t mediaType, bool webm) {
  if (mediaType == MediaType_Audio) return webm ? "audio/webm" : "audio/x-matroska";
  if (mediaType == MediaType_Video) return webm ? "video/webm" : "video/x-matroska";
  return nullptr;
}

}  // namespace

bool MediaParse_Matroska(int fd, int64_t offset, int64_t length, MediaStream& stream, bool) {
  stream = MediaStream{};
  if (offset < 0 || length <= 0 || offset > INT64_MAX - length) return false;
  const int64_t end = offset + length;

  EbmlElement header;
  std::string docType;
  if (!EbmlRead_Header(fd, offset, end, header) || header.id != kIdEbmlHeader ||
      !readDocType(fd, header, docType)) {
    return false;
  }
  const bool webm = docType == "webm";
  if (!webm && docType != "matroska") return MediaNote_Decline("mkv: the document type is neither matroska nor webm");

  EbmlWalker topLevel(fd, header.end(), end, kTopLevelChildLimit);
  EbmlElement segment;
  bool haveSegment = false;
  while (!haveSegment && topLevel.next(segment)) haveSegment = segment.id == kIdSegment;
  if (!haveSegment) return MediaNote_Decline("mkv: no Segment behind the EBML header");

  SegmentReader(fd, segment, stream).read();
  for (StreamInfo& info : stream.streamInfo) {
    info.duration = stream.duration;
    info.timescale = stream.timescale;
  }
  // Audio tracks make an audio file until the first video track settles it.
  for (const StreamInfo& info : stream.streamInfo) {
    if (info.streamKind == MediaType_Audio) stream.mediaType = MediaType_Audio;
    if (info.streamKind == MediaType_Video) {
      stream.mediaType = MediaType_Video;
      break;
    }
  }
  stream.mimeType = mimeTypeFor(stream.mediaType, webm);
  if (!stream.mimeType) {
    stream = MediaStream{};
    return MediaNote_Decline("mkv: no usable audio or video track");
  }
  return true;
}

// Shows why a file is or is not published: probes each file named on the
// command line exactly as the library scan does (read-only, from offset 0
// over the lstat size, metadata only) and prints the resulting record as one
// JSON object per line, with the scan's verdict, the rule behind a refusal and
// the shortcuts the parser took. A directory is walked as the scan walks the
// library, with one record per entry and a closing summary. Exit status 1 when
// any file could not be examined.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dms/DmsFolder.h"
#include "dms/DmsLibrary.h"
#include "media/MediaNotes.h"
#include "media/MediaStream.h"

namespace {

// Length of the well-formed UTF-8 sequence (up to four bytes) at the start of
// `text`, or 0 when it does not start with one.
size_t probeUtf8Length(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const size_t length = lead < 0x80              ? 1
                        : (lead & 0xE0) == 0xC0 ? 2
                        : (lead & 0xF0) == 0xE0 ? 3
                        : (lead & 0xF8) == 0xF0 ? 4
                                                : 0;
  if (length == 0 || length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
  }
  return length;
}

// A JSON string. Tags are UTF-8 already, but a file name may hold any bytes:
// those that are not UTF-8 become U+FFFD so that the line stays valid JSON.
void probeAppendString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const char c = text[0];
    const size_t length = probeUtf8Length(text);
    if (length == 0) {
      out += "\\ufffd";
      text.remove_prefix(1);
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out.append(text.data(), length);
        }
    }
    text.remove_prefix(length);
  }
  out += '"';
}

void probeAppendText(std::string& out, const char* text) {
  if (text) probeAppendString(out, text);
  else out += "null";
}

void probeAppendText(std::string& out, const std::optional<std::string>& text) {
  if (text) probeAppendString(out, *text);
  else out += "null";
}

void probeAppendField(std::string& out, const char* name, int64_t value) {
  out += ", \"";
  out += name;
  out += "\": ";
  out += std::to_string(value);
}

template <typename Text>
void probeAppendTextField(std::string& out, const char* name, const Text& text) {
  out += ", \"";
  out += name;
  out += "\": ";
  probeAppendText(out, text);
}

std::string probeStreamJson(const StreamInfo& info) {
  const bool audio = info.streamKind == MediaType_Audio;
  std::string out = "{\"number\": " + std::to_string(info.streamNumber);
  probeAppendField(out, "kind", info.streamKind);
  probeAppendField(out, "enabled", info.enabled);
  probeAppendField(out, "duration", info.duration);
  probeAppendField(out, "timescale", info.timescale);
  probeAppendField(out, "sampleRate", audio ? info.sampleRate : 0);
  probeAppendField(out, "channels", audio ? info.channels : 0);
  probeAppendField(out, "bitsPerSample", audio ? info.bitsPerSample : 0);
  probeAppendField(out, "width", audio ? 0 : info.width);
  probeAppendField(out, "height", audio ? 0 : info.height);
  probeAppendField(out, "bitsPerPixel", audio ? 0 : info.bitsPerPixel);
  out += '}';
  return out;
}

constexpr char kHiddenName[] = "the name starts with '.'";
constexpr char kNoMediaExtension[] = "the extension is not one the scan accepts";
constexpr char kNotRegular[] = "not a regular file (links, devices and pipes are passed over)";
constexpr char kUnrecognised[] = "no parser recognises the content";
constexpr char kNoStream[] = "no usable stream";

// One probed file: the parser's record, its notes, and the scan's verdict.
struct ProbeResult {
  MediaStreamPtr stream;
  MediaNotes notes;
  const char* reason = nullptr;  // null when the scan publishes the file
};

void probeAppendVerdict(std::string& out, const char* reason) {
  out += reason ? ", \"published\": false, \"reason\": " : ", \"published\": true";
  if (reason) probeAppendString(out, reason);
}

std::string probeRecordJson(const std::string& path, const ProbeResult& result) {
  std::string out = "{\"file\": ";
  probeAppendString(out, path);
  probeAppendVerdict(out, result.reason);
  const MediaStream* stream = result.stream.get();
  out += stream ? ", \"recognised\": true" : ", \"recognised\": false";
  if (stream) {
    probeAppendField(out, "mediaType", stream->mediaType);
    probeAppendTextField(out, "mimeType", stream->mimeType);
    probeAppendField(out, "duration", stream->duration);
    probeAppendField(out, "timescale", stream->timescale);
    probeAppendTextField(out, "title", stream->title);
    probeAppendTextField(out, "artist", stream->artist);
    probeAppendTextField(out, "album", stream->album);
    probeAppendTextField(out, "genre", stream->genre);
    probeAppendField(out, "date", stream->date);
    probeAppendTextField(out, "coverMimeType", stream->coverMimeType);
    probeAppendField(out, "coverOffset", stream->coverOffset);
    probeAppendField(out, "coverLength", stream->coverLength);
    out += ", \"streams\": [";
    for (size_t i = 0; i < stream->streamCount(); ++i) {
      if (i > 0) out += ", ";
      out += probeStreamJson(stream->streamInfo[i]);
    }
    out += ']';
  }
  out += ", \"notes\": [";
  for (size_t i = 0; i < result.notes.shortcuts.size(); ++i) {
    if (i > 0) out += ", ";
    probeAppendString(out, result.notes.shortcuts[i]);
  }
  return out + "]}";
}

class ProbeFile {
 public:
  explicit ProbeFile(const char* path) : fd_(::open(path, O_RDONLY | O_CLOEXEC)) {}
  ~ProbeFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  ProbeFile(const ProbeFile&) = delete;
  ProbeFile& operator=(const ProbeFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Probes one regular file with the parsers' notes switched on, and judges it
// by the scan's rules: name first, then content.
std::optional<ProbeResult> probeFile(const std::string& path, int64_t size) {
  ProbeFile file(path.c_str());
  if (file.fd() < 0) {
    std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  ProbeResult result;
  mediaNotes = &result.notes;
  result.stream = MediaStream_new(file.fd(), 0, size, true);
  mediaNotes = nullptr;
  const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
  if (DmsFolder_IsHiddenName(name.data())) result.reason = kHiddenName;
  else if (!DmsFolder_HasMediaExtension(name)) result.reason = kNoMediaExtension;
  else if (!DmsLibrary_ItemClass(result.stream.get())) {
    result.reason = result.notes.reason ? result.notes.reason : result.stream ? kNoStream : kUnrecognised;
  }
  return result;
}

// What a listing shows as this entry's title cannot stand in XML when it
// holds bytes that are not UTF-8 or a control character other than tab and
// line ends; a client then rejects the folder's whole page.
const char* probeTitleProblem(std::string_view text) {
  while (!text.empty()) {
    const size_t length = probeUtf8Length(text);
    if (length == 0) return "bytes that are not UTF-8";
    const auto c = static_cast<unsigned char>(text[0]);
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return "a control character";
    text.remove_prefix(length);
  }
  return nullptr;
}

struct BrokenName {
  std::string folder;
  std::string name;
  const char* problem;
};

struct ProbeSummary {
  int files = 0;
  std::map<std::string, int> published;  // by media type
  std::map<std::string, int> declined;   // by reason
  std::vector<BrokenName> brokenNames;
  bool allExamined = true;

  void noteTitle(const std::string& folder, const std::string& name, const std::string& title) {
    if (const char* problem = probeTitleProblem(title)) brokenNames.push_back({folder, name, problem});
  }
};

void probePrintSkipped(const std::string& path, const char* reason) {
  std::string out = "{\"file\": ";
  probeAppendString(out, path);
  probeAppendVerdict(out, reason);
  std::printf("%s}\n", out.c_str());
}

const char* probeMediaTypeName(int32_t mediaType) {
  switch (mediaType) {
    case MediaType_Audio: return "audio";
    case MediaType_Video: return "video";
    default: return "image";
  }
}

// Walks one folder as the scan reads it: dot-names are passed over, regular
// files are probed, folders are read after the folder itself, anything else
// is skipped. Returns the number of files published in and below it.
int probeFolder(const std::string& folder, ProbeSummary& summary) {
  std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(folder.c_str()), ::closedir);
  if (!directory) {
    std::fprintf(stderr, "%s: %s\n", folder.c_str(), std::strerror(errno));
    summary.allExamined = false;
    return 0;
  }
  std::vector<std::string> folders;
  int published = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = folder + "/" + name;
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
      summary.allExamined = false;
    } else if (DmsFolder_IsHiddenName(name.c_str())) {
      probePrintSkipped(path, kHiddenName);
      if (S_ISDIR(info.st_mode)) continue;  // the summary counts files
      ++summary.files;
      ++summary.declined[kHiddenName];
    } else if (S_ISDIR(info.st_mode)) {
      folders.push_back(name);
    } else if (!S_ISREG(info.st_mode)) {
      ++summary.files;
      probePrintSkipped(path, kNotRegular);
      ++summary.declined[kNotRegular];
    } else if (std::optional<ProbeResult> result = probeFile(path, static_cast<int64_t>(info.st_size))) {
      ++summary.files;
      std::printf("%s\n", probeRecordJson(path, *result).c_str());
      if (result->reason) {
        ++summary.declined[result->reason];
        continue;
      }
      ++published;
      ++summary.published[probeMediaTypeName(result->stream->mediaType)];
      summary.noteTitle(folder, name, result->stream->title.value_or(name));
    } else {
      summary.allExamined = false;
    }
  }
  directory.reset();
  for (const std::string& name : folders) {
    const int below = probeFolder(folder + "/" + name, summary);
    if (below > 0) summary.noteTitle(folder, name, name);  // a folder with nothing published is not listed
    published += below;
  }
  return published;
}

template <typename Count>
void probeAppendCounts(std::string& out, const char* name, const std::map<std::string, Count>& counts) {
  out += ", \"";
  out += name;
  out += "\": {";
  const char* separator = "";
  for (const auto& [key, count] : counts) {
    out += separator;
    probeAppendString(out, key);
    out += ": " + std::to_string(count);
    separator = ", ";
  }
  out += '}';
}

std::string probeSummaryJson(const ProbeSummary& summary) {
  std::string out = "{\"summary\": {\"files\": " + std::to_string(summary.files);
  probeAppendCounts(out, "published", summary.published);
  probeAppendCounts(out, "declined", summary.declined);
  out += ", \"brokenNames\": [";
  for (size_t i = 0; i < summary.brokenNames.size(); ++i) {
    const BrokenName& broken = summary.brokenNames[i];
    out += i > 0 ? ", {\"folder\": " : "{\"folder\": ";
    probeAppendString(out, broken.folder);
    out += ", \"name\": ";
    probeAppendString(out, broken.name);
    out += ", \"problem\": ";
    probeAppendString(out, broken.problem);
    out += '}';
  }
  return out + "]}}";
}

// Prints the lines for one command-line argument; false (with a message on
// stderr) when something could not be examined the way the scan would.
bool probeArgument(const std::string& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) {
    std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    // The reason the server gives at start when this is its media folder.
    if (const char* problem = DmsFolder_Problem(path.c_str())) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), problem);
      return false;
    }
    ProbeSummary summary;
    probeFolder(path, summary);
    std::printf("%s\n", probeSummaryJson(summary).c_str());
    return summary.allExamined;
  }
  if (!S_ISREG(info.st_mode)) {
    std::fprintf(stderr, "%s: not a regular file; the library scan passes over it\n", path.c_str());
    return false;
  }
  std::optional<ProbeResult> result = probeFile(path, static_cast<int64_t>(info.st_size));
  if (!result) return false;
  std::printf("%s\n", probeRecordJson(path, *result).c_str());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE|DIR...\n", argv[0]);
    return 2;
  }
  bool allExamined = true;
  for (int i = 1; i < argc; ++i) {
    try {
      allExamined = probeArgument(argv[i]) && allExamined;
    } catch (const std::bad_alloc&) {
      std::fprintf(stderr, "%s: out of memory\n", argv[i]);
      allExamined = false;
    }
  }
  return allExamined ? 0 : 1;
}

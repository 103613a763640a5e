// Shows why a file is or is not published: probes each file named on the
// command line exactly as the library scan does (read-only, from offset 0
// over the lstat size, metadata only) and prints the resulting record as one
// JSON object per line. Exit status 1 when any file could not be examined.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

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

std::string probeRecordJson(const char* path, const MediaStream* stream) {
  std::string out = "{\"file\": ";
  probeAppendString(out, path);
  if (!stream) return out + ", \"recognised\": false}";
  out += ", \"recognised\": true";
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

// Prints the line for one file; false (with a message on stderr) when the
// file cannot be examined the way the scan would.
bool probeOne(const char* path) {
  struct stat info;
  if (::lstat(path, &info) != 0) {
    std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    std::fprintf(stderr, "%s: not a regular file; the library scan passes over it\n", path);
    return false;
  }
  ProbeFile file(path);
  if (file.fd() < 0) {
    std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
    return false;
  }
  MediaStreamPtr stream = MediaStream_new(file.fd(), 0, static_cast<int64_t>(info.st_size), true);
  std::printf("%s\n", probeRecordJson(path, stream.get()).c_str());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE...\n", argv[0]);
    return 2;
  }
  bool allExamined = true;
  for (int i = 1; i < argc; ++i) allExamined = probeOne(argv[i]) && allExamined;
  return allExamined ? 0 : 1;
}

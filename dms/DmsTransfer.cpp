// The media and thumbnail download handler. It checks the DLNA request
// headers, finds the item under the content mutex and names the file (or the
// embedded picture's region of it) that the HTTP server then sends.
#include "dms/DmsTransfer.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

#include "base/UniqueFd.h"
#include "dms/DmsMemo.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "http/HTTPRequest.h"

namespace {

constexpr std::string_view kMediaPrefix = "/mediaitem/";
constexpr std::string_view kThumbnailPrefix = "/thumbnail/";

constexpr char kStreamingHeaders[] =
    "transferMode.dlna.org: Streaming\r\ncontentFeatures.dlna.org: DLNA.ORG_OP=01\r\n";
constexpr char kInteractiveHeaders[] =
    "transferMode.dlna.org: Interactive\r\ncontentFeatures.dlna.org: DLNA.ORG_OP=01\r\n";
constexpr char kThumbnailHeaders[] =
    "transferMode.dlna.org: Interactive\r\n"
    "contentFeatures.dlna.org: DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1\r\n";

// An absent transfer mode is accepted in every case; Background always is.
bool transferModeAccepted(const char* mode, const char* wanted) {
  return mode[0] == '\0' || strcasecmp(mode, wanted) == 0 || strcasecmp(mode, "Background") == 0;
}

bool isPublishedItem(const DmsObject* object) {
  if (!object || object->kind != DmsKind_Item) return false;
  return object->upnpClass() == dlnaMediaClasses[DmsClass_AudioItem] ||
         object->upnpClass() == dlnaMediaClasses[DmsClass_VideoItem] ||
         object->upnpClass() == dlnaMediaClasses[DmsClass_ImageItem];
}

void answerMedia(HTTPResponse* response, const DmsObject* item, const char* mode) {
  const bool image = item->upnpClass() == dlnaMediaClasses[DmsClass_ImageItem];
  if (!transferModeAccepted(mode, image ? "Interactive" : "Streaming")) {
    response->status = "406 Not Acceptable";
    return;
  }
  const std::string path = DmsObject_GetPath(item);
  if (!path.empty()) response->filePath = path;
  response->contentType = item->mimeType;
  response->extraHeaders = image ? kInteractiveHeaders : kStreamingHeaders;
}

// The cover of the item's file as it is now: from the item's memo while an
// lstat finds the file unchanged, else from a fresh parse of it.
void answerThumbnail(HTTPResponse* response, DmsObject* item, const char* mode) {
  if (!transferModeAccepted(mode, "Interactive")) {
    response->status = "406 Not Acceptable";
    return;
  }
  const std::string path = DmsObject_GetPath(item);
  struct stat info {};
  if (path.empty() || ::lstat(path.c_str(), &info) != 0) return;
  DmsItemFacts facts;
  if (!DmsMemo_Read(item, info, facts)) {
    // A FIFO in the file's place must not hold the content mutex: open without waiting.
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) return;
    facts = DmsMemo_Parse(item, fd.get(), info);
  }
  if (!facts.hasThumbnail()) return;
  response->filePath = path;
  response->fileOffset = facts.coverOffset;
  response->fileLength = facts.coverLength;
  response->contentType = facts.coverMimeType;
  response->extraHeaders = kThumbnailHeaders;
}

}  // namespace

bool DmsTransfer_HandleRequest(HTTPRequest* request, HTTPResponse* response, const char* path, const char*, size_t,
                               UPnPDevice*) {
  const std::string_view target(path ? path : "");
  const bool media = target.starts_with(kMediaPrefix);
  if (!media && !target.starts_with(kThumbnailPrefix)) return false;
  const char* idText = path + kMediaPrefix.size();  // both prefixes have the same length

  response->version = "HTTP/1.1";
  const char* host = HTTPRequest_GetHeader(request, "Host");
  const char* mode = HTTPRequest_GetHeader(request, "transferMode.dlna.org");
  const char* timeSeek = HTTPRequest_GetHeader(request, "timeSeekRange.dlna.org");
  const char* features = HTTPRequest_GetHeader(request, "getContentFeatures.dlna.org");
  if (host[0] == '\0' || (features[0] != '\0' && std::strcmp(features, "1") != 0)) {
    response->status = "400 Bad Request";
    return true;
  }
  if (timeSeek[0] != '\0') {
    response->status = "406 Not Acceptable";
    return true;
  }

  DmsObjectId id;
  std::sscanf(idText, "%" SCNu64 ".%" SCNu64, &id.high, &id.low);
  std::lock_guard lock(DmsServer_ContentMutex());
  DmsObject* item = DmsObject_Find(id);
  if (!isPublishedItem(item)) return true;
  if (media) answerMedia(response, item, mode);
  else answerThumbnail(response, item, mode);
  return true;
}

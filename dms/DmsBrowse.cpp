// Browse: validates the arguments, then streams the SOAP envelope around the
// DIDL-Lite result as chunks: the head, pages of rendered children, and the
// tail with the counts. A container that changes between pages ends the
// listing early instead of producing an inconsistent page.
#include "dms/DmsBrowse.h"

#include <array>
#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#include "base/UniqueFd.h"
#include "dms/DmsDidl.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "dms/DmsWatch.h"
#include "http/HTTPRequest.h"
#include "upnp/UPnPDevice.h"

const char* const dlnaBrowseFlags[2] = {"BrowseDirectChildren", "BrowseMetadata"};

namespace {

constexpr int kArgumentCount = 6;
constexpr uint32_t kMaxObjectIdLength = 23;
constexpr uint32_t kMaxFilterLength = 255;
constexpr uint32_t kMaxNumberLength = 9;
constexpr size_t kPageSpace = 8100;
constexpr const char* kXmlContentType = "text/xml; charset=\"utf-8\"";
constexpr size_t kChunkFraming = 16;  // the size line and the CRLF after the text
constexpr int kCannotProcess = 4;  // row of 720 "Cannot Process the Request" in dlnaErrors

constexpr char kDidlOpen[] =
    "&lt;DIDL-Lite xmlns:dc=\"http://purl.org/dc/elements/1.1/\" "
    "xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\" "
    "xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\"&gt;";
constexpr char kDidlClose[] = "&lt;/DIDL-Lite&gt;";

struct BrowseRequest {
  DmsObjectId objectId;
  bool directChildren = false;
  uint32_t filter = 0;
  uint32_t startingIndex = 0;
  uint32_t requestedCount = 0;
};

std::string argument(const UPnPArgValue& value) { return std::string(value.value, value.length); }

bool parseUnsigned(const std::string& text, uint32_t& out) { return std::sscanf(text.c_str(), "%u", &out) == 1; }

bool parseArguments(const UPnPArgValue* args, int32_t count, BrowseRequest& browse) {
  if (count != kArgumentCount || !args) return false;
  const UPnPArgValue &objectId = args[0], &flag = args[1], &filter = args[2], &start = args[3],
                     &requested = args[4];
  // Clients that ask for dozens of properties by name need a longer Filter.
  const bool filterTooLong = filter.length > kMaxFilterLength && !DmsServer_Info().clientCompatibility;
  if (objectId.length > kMaxObjectIdLength || filterTooLong || start.length > kMaxNumberLength ||
      requested.length > kMaxNumberLength) {
    return false;
  }
  // The flag is compared over the length that was sent.
  const std::string flagText = argument(flag);
  if (std::strncmp(flagText.c_str(), dlnaBrowseFlags[0], flag.length) == 0) browse.directChildren = true;
  else if (std::strncmp(flagText.c_str(), dlnaBrowseFlags[1], flag.length) != 0) return false;

  if (std::sscanf(argument(objectId).c_str(), "%" SCNu64 ".%" SCNu64, &browse.objectId.high,
                  &browse.objectId.low) < 1) {
    return false;
  }
  browse.filter = DmsDidl_ParseFilter(std::string_view(filter.value, filter.length));
  return parseUnsigned(argument(start), browse.startingIndex) &&
         parseUnsigned(argument(requested), browse.requestedCount);
}

void answerFault(HTTPResponse* response) {
  response->status = "500 Internal Server Error";
  HTTPResponse_SetBody(response, UPnP_MakeActionResponseError(dlnaErrors[kCannotProcess].code,
                                                                dlnaErrors[kCannotProcess].description));
}

bool writeHeader(HTTPRequest* request, HTTPResponse* response) {
  const DmsServerInfo& info = DmsServer_Info();
  response->version = "HTTP/1.1";
  response->status = "200 OK";
  response->contentType = kXmlContentType;
  response->extraHeaders =
      "EXT:\r\nServer: " + std::string(UPnP_OsToken()) + " UPnP/1.0 " + info.modelName + "/" + info.modelNumber + "\r\n";
  const std::string header = HTTPResponse_MakeChunkedHeader(response);
  response->handled = true;
  if (HTTPRequest_WriteData(request, header.data(), header.size())) return true;
  response->keepAlive = false;
  return false;
}

// The success envelope around `outputs`, split at the Result element's
// closing tag: before it when `head`, after its opening tag otherwise.
std::string envelopePart(const char* serviceType, const char* actionName, const UPnPArgValue* outputs, bool head) {
  const std::string envelope = UPnP_MakeActionResponseSuccess(serviceType, actionName, outputs);
  if (head) {
    const size_t close = envelope.find("</Result>");
    return close == std::string::npos ? std::string() : envelope.substr(0, close);
  }
  const size_t open = envelope.find("<Result>");
  return open == std::string::npos ? std::string() : envelope.substr(open + std::strlen("<Result>"));
}

// "%x\r\n" with the text's length, the text and "\r\n".
void appendChunk(std::string& out, std::string_view text) {
  char size[16];
  const int sizeLength = std::snprintf(size, sizeof size, "%zx\r\n", text.size());
  out.append(size, static_cast<size_t>(sizeLength)).append(text).append("\r\n");
}

struct Counts {
  uint32_t numberReturned = 0;
  uint32_t totalMatches = 0;
  uint32_t updateId = 0;
};

// The chunks of the reply, gathered and written some 512 KB at a time: a
// Browse of thousands of children makes a chunk per page of 8 KB, and a
// system call (and a pass through the TCP stack) per chunk cost more than
// building the page; at 64 KB a time the sends still took a fifth of a
// 1,000-item Browse once its items were described from their memos alone.
// The room grows to that only for a reply that long. The bytes on the wire
// are the same.
class ChunkStream {
 public:
  ChunkStream(HTTPRequest* request, HTTPResponse* response) : request_(request), response_(response) {
    pending_.reserve(kFirstRoom);
  }

  // False when the write it caused failed.
  bool add(std::string_view text) {
    appendChunk(pending_, text);
    return pending_.size() < kSendBytes || flush();
  }

  bool flush() {
    if (pending_.empty()) return true;
    const bool written = HTTPRequest_WriteData(request_, pending_.data(), pending_.size());
    pending_.clear();
    if (!written) response_->keepAlive = false;
    return written;
  }

 private:
  static constexpr size_t kSendBytes = 524288;
  static constexpr size_t kFirstRoom = 65536 + kPageSpace + kChunkFraming;  // grown only by a longer reply
  HTTPRequest* request_;
  HTTPResponse* response_;
  std::string pending_;
};

// Where the latest listings started and stopped: a television that scrolls
// a view of thousands of items asks for it page after page, and walking the
// list from its first child to each page's start cost more than rendering
// the page. While a container's child count and update id are unchanged its
// list is the same, so a listing may start from a child an earlier one met
// at a known position (found again by id). Guarded by the content mutex.
struct ListingMark {
  DmsObjectId container;
  int32_t childCount = 0;
  uint32_t updateId = 0;
  uint32_t position = 0;  // of the child below
  DmsObjectId child;
};
constexpr size_t kListingMarks = 16;
std::array<std::optional<ListingMark>, kListingMarks> listingMarks;
size_t oldestListingMark = 0;

bool sameList(const ListingMark& mark, const DmsObject* container) {
  return mark.container == container->id && mark.childCount == container->childCount &&
         mark.updateId == container->updateId;
}

// The child at `position`, walked to from the first child or from the
// nearest mark before it.
DmsNode* childAt(const DmsObject* container, uint32_t position) {
  DmsNode* child = container->firstChild;
  uint32_t at = 0;
  for (const std::optional<ListingMark>& mark : listingMarks) {
    if (!mark || !sameList(*mark, container) || mark->position > position || mark->position < at) continue;
    DmsNode* known = DmsNode_Find(mark->child);
    if (known && known->parent == container) {
      child = known;
      at = mark->position;
    }
  }
  for (; child && at < position; ++at) child = child->nextSibling;
  return child;
}

void markListing(const DmsObject* container, uint32_t position, const DmsNode* child) {
  for (const std::optional<ListingMark>& mark : listingMarks) {
    if (mark && sameList(*mark, container) && mark->position == position) return;
  }
  listingMarks[oldestListingMark] = ListingMark{container->id, container->childCount, container->updateId, position,
                                                DmsNode_Id(child)};
  oldestListingMark = (oldestListingMark + 1) % kListingMarks;
}

// Sends the children of the container, page by page. Each page re-checks
// the container under the content mutex before it is built. While its child
// count and update id are unchanged its list is the same, so a page resumes
// at the child after the last one sent (found again by id, never through a
// pointer kept across the unlock), and a child rendered for a page it did not
// fit opens the next page instead of being parsed from its file again.
// Children are rendered straight into the page.
void sendChildren(ChunkStream& chunks, BrowseRequest& browse, DmsDidlRenderer& renderer, int32_t childCount,
                  uint32_t updateId, Counts& counts) {
  std::string page, carried;
  page.reserve(2 * kPageSpace);
  std::optional<DmsObjectId> resume;  // the next child to send, after the first page
  bool more = true;
  while (more && (browse.requestedCount == 0 || counts.numberReturned < browse.requestedCount)) {
    page.clear();
    {
      std::lock_guard lock(DmsServer_ContentMutex());
      DmsWatch_Drain();
      const DmsObject* container = DmsObject_Find(browse.objectId);
      if (!container || container->kind != DmsKind_Container || container->childCount != childCount ||
          container->updateId != updateId) {
        return;
      }
      DmsNode* child = resume ? DmsNode_Find(*resume) : childAt(container, browse.startingIndex);
      if (resume && (!child || child->parent != container)) return;
      if (!resume && child && browse.startingIndex > 0) markListing(container, browse.startingIndex, child);
      for (; child; child = child->nextSibling) {
        if (browse.requestedCount != 0 && counts.numberReturned >= browse.requestedCount) break;
        const size_t before = page.size();
        if (carried.empty()) {
          renderer.append(page, child);
        } else {
          page += carried;
          carried.clear();
        }
        if (page.size() > kPageSpace) {
          carried.assign(page, before);
          page.resize(before);
          break;
        }
        counts.numberReturned += 1;
        browse.startingIndex += 1;
      }
      more = child != nullptr;
      if (more) {
        resume = DmsNode_Id(child);
        // Where the next page of a scrolling client starts.
        if (counts.numberReturned == browse.requestedCount) markListing(container, browse.startingIndex, child);
      }
    }
    assert(page.size() <= kPageSpace);
    if (page.empty() || !chunks.add(page)) return;
  }
}

}  // namespace

bool DmsHttp_WriteChunk(HTTPRequest* request, HTTPResponse* response, std::string_view text) {
  // The size line, the text and its CRLF leave in one send: three small
  // writes per chunk cost three system calls and three TCP segments.
  std::string chunk;
  chunk.reserve(text.size() + kChunkFraming);
  appendChunk(chunk, text);
  if (HTTPRequest_WriteData(request, chunk.data(), chunk.size())) return true;
  response->keepAlive = false;
  return false;
}

namespace {

void browseOrThrow(HTTPRequest* request, const char* serviceType, const char* actionName, const UPnPArgValue* args,
                   int32_t count, HTTPResponse* response) {
  BrowseRequest browse;
  if (!parseArguments(args, count, browse)) {
    answerFault(response);
    return;
  }
  // The reply is written as it is rendered, in a chunk per page; corked,
  // the pages leave in full segments instead of one segment each.
  const HTTPRequest_CorkScope cork(request);
  if (!writeHeader(request, response)) return;
  if (HTTPRequest_GetMethod(request) == HTTP_METHOD_HEAD) return;

  const UPnPArgValue head[] = {{"Result", kDidlOpen, sizeof kDidlOpen - 1}, {nullptr, nullptr, 0}};
  ChunkStream chunks(request, response);
  if (!chunks.add(envelopePart(serviceType, actionName, head, true))) return;

  char host[16] = {};
  uint16_t port = 0;
  HTTPRequest_GetSockName(request, host, sizeof host, &port);

  Counts counts;
  std::unique_lock lock(DmsServer_ContentMutex());
  DmsWatch_Drain();
  if (DmsNode* node = DmsNode_Find(browse.objectId)) {
    DmsObject* object = node->target();
    const bool container = node->kind == DmsKind_Container;
    counts.updateId = container && !(object->id == DmsObjectId{0, 0}) ? object->updateId : DmsContent_SystemUpdateId();
    if (browse.directChildren && container) {
      counts.totalMatches = object->childCount < 0 ? 0 : static_cast<uint32_t>(object->childCount);
      const int32_t childCount = object->childCount;
      const uint32_t updateId = object->updateId;
      lock.unlock();
      DmsDidlRenderer renderer(host, port, browse.filter);
      sendChildren(chunks, browse, renderer, childCount, updateId, counts);
    } else {
      const std::string rendered = DmsDidl_RenderObject(node, host, port, browse.filter);
      lock.unlock();
      counts.numberReturned = 1;
      counts.totalMatches = 1;
      if (!chunks.add(rendered)) return;
    }
  }
  if (lock.owns_lock()) lock.unlock();

  char returned[12], total[12], update[12];
  std::snprintf(returned, sizeof returned, "%u", counts.numberReturned);
  std::snprintf(total, sizeof total, "%u", counts.totalMatches);
  std::snprintf(update, sizeof update, "%u", counts.updateId);
  const UPnPArgValue tail[] = {{"Result", kDidlClose, sizeof kDidlClose - 1},
                               {"NumberReturned", returned, static_cast<uint32_t>(std::strlen(returned))},
                               {"TotalMatches", total, static_cast<uint32_t>(std::strlen(total))},
                               {"UpdateID", update, static_cast<uint32_t>(std::strlen(update))},
                               {nullptr, nullptr, 0}};
  if (chunks.add(envelopePart(serviceType, actionName, tail, false)) && chunks.flush()) {
    DmsHttp_WriteChunk(request, response, {});
  }
}

}  // namespace

void DmsBrowse_Browse(HTTPRequest* request, const char* serviceType, const char* actionName,
                      const UPnPArgValue* args, int32_t count, HTTPResponse* response) {
  try {
    browseOrThrow(request, serviceType, actionName, args, count, response);
  } catch (const std::bad_alloc&) {
    // Out of memory before the reply began, the Browse fails as any other
    // does; after, the reply cannot be finished and the connection ends.
    if (!response->handled) answerFault(response);
    else response->keepAlive = false;
  }
}

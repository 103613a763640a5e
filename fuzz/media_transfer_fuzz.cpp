// Any bytes as the header block of a download request on "/mediaitem/" or
// "/thumbnail/": the object id, the DLNA headers and the Range line. The
// library holds a tagged MP3 with a cover and a JPEG with an EXIF thumbnail;
// a path whose id starts with "$n" names the n-th of them. When the hook
// names a file (or the cover inside it), the reply is sent as the server
// sends it, to a socket pair whose small buffer simply stops a long body.
#include <sys/socket.h>

#include <cctype>
#include <string>
#include <vector>

#include "dms/DmsTransfer.h"
#include "fuzz/FuzzLibrary.h"
#include "fuzz/FuzzSupport.h"
#include "http/HTTPRequest.h"
#include "tests/fixtures/MediaFixtures.h"

namespace {

constexpr size_t kPrefixLength = 11;  // "/mediaitem/" and "/thumbnail/"
constexpr int kSendBuffer = 4096;

const std::vector<DmsObjectId>& Items() {
  static const std::vector<DmsObjectId> items = [] {
    const std::vector<uint8_t> song = Mp3Fixture_Demo();
    const std::vector<uint8_t> picture = JpegFixture_Photo({});
    fuzz::Library& library = fuzz::Library::Get();
    library.Load({{"song.mp3", fuzz::Text(song.data(), song.size())},
                  {"picture.jpg", fuzz::Text(picture.data(), picture.size())}});
    return library.Items();
  }();
  return items;
}

// The request path with a leading "$n" of the id replaced by that item's id.
std::string Target(const char* path) {
  std::string target(path);
  if (target.size() < kPrefixLength + 2 || target[kPrefixLength] != '$' ||
      !std::isdigit(static_cast<unsigned char>(target[kPrefixLength + 1])) || Items().empty()) {
    return target;
  }
  char id[DmsObjectId_TextSize];
  DmsObjectId_Format(Items()[static_cast<size_t>(target[kPrefixLength + 1] - '0') % Items().size()], id);
  return target.replace(kPrefixLength, 2, id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Items();
  std::string block(fuzz::Text(data, size));
  HTTPRequest request;
  HTTPRequest_Parse(&request, block.data());
  const std::string target = Target(request.path);
  HTTPResponse response;
  response.version = request.version;
  if (!DmsTransfer_HandleRequest(&request, &response, target.c_str(), nullptr, 0, nullptr)) return 0;

  fuzz::SocketPair pair({});
  if (!pair.valid()) return 0;
  fcntl(pair.server(), F_SETFL, O_NONBLOCK);
  setsockopt(pair.server(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  request.socket = pair.server();
  HTTPResponse_Send(&request, &response);
  return 0;
}

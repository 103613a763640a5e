// Browse over a library made from the input. The input starts with the six
// Browse arguments, one per line (ObjectID, BrowseFlag, Filter,
// StartingIndex, RequestedCount, SortCriteria; an ObjectID "#n" names the
// n-th scanned item); then come up to six files, each a name length byte, the
// name, a two-byte little-endian content length and the content, so that
// file names and the tag texts inside the files are hostile too. The reply
// streams to a socket pair.
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "dms/DmsBrowse.h"
#include "dms/DmsDevice.h"
#include "fuzz/FuzzLibrary.h"
#include "fuzz/FuzzSupport.h"
#include "http/HTTPRequest.h"

namespace {

constexpr int kArgumentCount = 6;
constexpr size_t kMaxFiles = 6;
constexpr const char* kArgumentNames[kArgumentCount] = {"ObjectID",      "BrowseFlag",     "Filter",
                                                        "StartingIndex", "RequestedCount", "SortCriteria"};

std::string_view TakeLine(std::string_view& input) {
  size_t end = input.find('\n');
  std::string_view line = input.substr(0, end);
  input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
  return line;
}

std::string_view TakeBytes(std::string_view& input, size_t count) {
  std::string_view bytes = input.substr(0, count);
  input.remove_prefix(bytes.size());
  return bytes;
}

// A name the folder can hold: no "/" or zero byte, not "." or "..".
std::string FileName(std::string_view raw) {
  std::string name(raw);
  for (char& c : name) {
    if (c == '/' || c == '\0') c = '_';
  }
  return name == "." || name == ".." ? std::string() : name;
}

std::vector<fuzz::Library::File> Files(std::string_view input) {
  std::vector<fuzz::Library::File> files;
  while (files.size() < kMaxFiles && input.size() >= 3) {
    std::string name = FileName(TakeBytes(input, static_cast<uint8_t>(input[0]) + 1).substr(1));
    std::string_view length = TakeBytes(input, 2);
    if (length.size() < 2) break;
    size_t count = static_cast<uint8_t>(length[0]) | static_cast<size_t>(static_cast<uint8_t>(length[1])) << 8;
    std::string_view content = TakeBytes(input, count);
    if (!name.empty()) files.emplace_back(std::move(name), content);
  }
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  UPnP_OsToken();
  std::string_view input = fuzz::Text(data, size);
  std::string values[kArgumentCount];
  for (std::string& value : values) value = TakeLine(input);
  fuzz::Library& library = fuzz::Library::Get();
  library.Load(Files(input));

  if (values[0].size() == 2 && values[0][0] == '#' && std::isdigit(static_cast<unsigned char>(values[0][1]))) {
    std::vector<DmsObjectId> items = library.Items();
    if (!items.empty()) {
      char text[DmsObjectId_TextSize];
      DmsObjectId_Format(items[static_cast<size_t>(values[0][1] - '0') % items.size()], text);
      values[0] = text;
    }
  }
  UPnPArgValue args[kArgumentCount];
  for (int i = 0; i < kArgumentCount; ++i) {
    args[i] = {kArgumentNames[i], values[i].c_str(), static_cast<uint32_t>(values[i].size())};
  }

  fuzz::SocketPair pair({});
  if (!pair.valid()) return 0;
  {
    fuzz::ClientReader reader(pair.client());
    HTTPRequest request;
    request.socket = pair.server();
    request.method = HTTP_METHOD_POST;
    HTTPResponse response;
    response.keepAlive = true;
    DmsBrowse_Browse(&request, dlnaServiceTypes[kDlnaContentDirectoryRow], "Browse", args, kArgumentCount,
                     &response);
    shutdown(pair.server(), SHUT_RDWR);
  }
  return 0;
}

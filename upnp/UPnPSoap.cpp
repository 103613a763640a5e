// SOAP control. The action and its arguments are found by a small text scan
// rather than an XML parser: control points send simple, regular envelopes,
// and the scan accepts exactly the shapes they send (a prefixed action element
// carrying its namespace, arguments in declaration order, or, for a device
// that asks for it, arguments in any order).
#include "upnp/UPnPSoap.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "http/HTTPRequest.h"

namespace {

constexpr size_t kFaultSize = 512;
constexpr const char* kWhitespace = "\t\n\r ";

bool IsWhitespace(char c) {
  return std::strchr(kWhitespace, c) != nullptr && c != '\0';
}

// Reads the value of the argument element whose start tag ends at `tagEnd`:
// empty for a self-closed element, else up to the next closing tag with the
// whitespace around it cut. Returns the position after the element, or npos
// (and leaves `value` alone) when no closing tag follows.
size_t ReadValue(std::string_view body, size_t tagEnd, const char* name, UPnPArgValue& value) {
  if (tagEnd > 0 && body[tagEnd - 1] == '/') {
    value = {name, body.data() + tagEnd + 1, 0};
    return tagEnd + 1;
  }
  size_t start = tagEnd + 1;
  while (start < body.size() && IsWhitespace(body[start])) ++start;
  size_t close = body.find("</", start);
  if (close == std::string_view::npos) return std::string_view::npos;
  size_t end = close;
  while (end > start && IsWhitespace(body[end - 1])) --end;
  value = {name, body.data() + start, static_cast<uint32_t>(end - start)};
  size_t closeEnd = body.find('>', close);
  return closeEnd == std::string_view::npos ? body.size() : closeEnd + 1;
}

size_t CountArguments(const UPnPAction& action) {
  size_t count = 0;
  for (const UPnPArgument* arg = action.inArgs; arg && arg->name; ++arg) ++count;
  return count;
}

// The input arguments found after the action element, in table order; a
// missing argument ends the collection.
std::vector<UPnPArgValue> ScanArguments(const UPnPAction& action, std::string_view body, size_t position) {
  std::vector<UPnPArgValue> values;
  // Handlers always get a valid array, even when it holds no value.
  values.reserve(std::max<size_t>(CountArguments(action), 1));
  for (const UPnPArgument* arg = action.inArgs; arg && arg->name; ++arg) {
    size_t found = body.find(arg->name, position);
    if (found == std::string_view::npos) break;
    size_t tagEnd = body.find('>', found);
    if (tagEnd == std::string_view::npos) break;
    UPnPArgValue value;
    position = ReadValue(body, tagEnd, arg->name, value);
    if (position == std::string_view::npos) break;
    values.push_back(value);
  }
  return values;
}

// The name of the element whose tag opens at `open`, without its prefix; a
// closing tag's name when `closing`.
std::string_view LocalName(std::string_view body, size_t open, bool closing) {
  const size_t start = open + 1 + closing;
  size_t end = start;
  while (end < body.size() && !IsWhitespace(body[end]) && body[end] != '>' && body[end] != '/') ++end;
  const std::string_view name = body.substr(start, end - start);
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// The input arguments wherever they stand inside the action element, each
// an element of exactly its name (any prefix, any attributes); the first one
// of a name wins. Handlers take the values by table row, so they are handed
// over in table order up to the first argument missing.
std::vector<UPnPArgValue> ScanArgumentsAnyOrder(const UPnPAction& action, std::string_view body, size_t position) {
  const size_t count = CountArguments(action);
  std::vector<UPnPArgValue> values(std::max<size_t>(count, 1), UPnPArgValue{nullptr, nullptr, 0});
  for (size_t open = body.find('<', position); open != std::string_view::npos; open = body.find('<', position)) {
    position = open + 1;
    const bool closing = position < body.size() && body[position] == '/';
    const std::string_view name = LocalName(body, open, closing);
    if (closing) {
      if (name == action.name) break;
      continue;
    }
    size_t row = 0;
    while (row < count && (values[row].name || name != action.inArgs[row].name)) ++row;
    if (row == count) continue;
    const size_t tagEnd = body.find('>', open);
    if (tagEnd == std::string_view::npos) break;
    position = ReadValue(body, tagEnd, action.inArgs[row].name, values[row]);
    if (position == std::string_view::npos) break;
  }
  size_t found = 0;
  while (found < count && values[found].name) ++found;
  values.resize(found);
  return values;
}

}  // namespace

const UPnPError dlnaErrors[kDlnaErrorCount] = {
    {"701", "No Such Object"},
    {"708", "Unsupported or Invalid Search Criteria"},
    {"709", "Unsupported or Invalid Sort Criteria"},
    {"710", "No Such Container"},
    {"720", "Cannot Process the Request"},
    {"701", "Incompatible Protocol Info"},
    {"702", "Incompatible Directions"},
    {"703", "Insufficient Network Resources"},
    {"704", "Local Restrictions"},
    {"705", "Access Denied"},
    {"706", "Invalid Connection Reference"},
    {"707", "Not in Network"},
    {"701", "Transition Not Available"},
    {"702", "No Contents"},
    {"703", "Read Error"},
    {"704", "Format Not Supported for Playback"},
    {"705", "Transport is Locked"},
    {"706", "Write Error"},
    {"707", "Media is Protected or Not Writable"},
    {"708", "Format Not Supported for Recording"},
    {"709", "Media is Full"},
    {"710", "Seek Mode Not Supported"},
    {"711", "Illegal Seek Target"},
    {"712", "Play Mode Not Supported"},
    {"713", "Record Quality Not Supported"},
    {"714", "Illegal MIME Type"},
    {"715", "Content 'Busy'"},
    {"716", "Resource Not Found"},
    {"717", "Play Speed Not Supported"},
    {"718", "Invalid InstanceID"},
    {"701", "Invalid Name"},
    {"702", "Invalid InstanceID"},
};

std::optional<UPnPControlCall> UPnP_ParseControl(const UPnPService& service, std::string_view body,
                                                 bool anyOrder) {
  size_t envelope = body.find(":Envelope");
  if (envelope == std::string_view::npos) return std::nullopt;
  size_t position = body.find('>', envelope);
  if (position == std::string_view::npos) return std::nullopt;
  size_t bodyElement = body.find(":Body", position);
  if (bodyElement == std::string_view::npos) return std::nullopt;
  position = body.find('>', bodyElement);
  if (position == std::string_view::npos) return std::nullopt;

  for (const UPnPAction* action = service.actions; action && action->name; ++action) {
    // ":Name " only matches a prefixed element that carries attributes (its
    // namespace declaration), which is how control points write the call.
    std::string pattern = std::string(":") + action->name + " ";
    size_t found = body.find(pattern, position);
    if (found == std::string_view::npos) continue;
    size_t tagEnd = body.find('>', found);
    if (tagEnd == std::string_view::npos) return std::nullopt;
    return UPnPControlCall{action, anyOrder ? ScanArgumentsAnyOrder(*action, body, tagEnd + 1)
                                            : ScanArguments(*action, body, tagEnd + 1)};
  }
  return std::nullopt;
}

int UPnP_HandleControl(HTTPRequest* request, UPnPService* service, const char* body, HTTPResponse* response,
                       bool anyOrder) {
  std::optional<UPnPControlCall> call;
  try {
    if (service && body) call = UPnP_ParseControl(*service, body, anyOrder);
  } catch (const std::bad_alloc&) {
    call.reset();
  }
  if (!call || !call->action->handler) {
    // Malformed envelopes, unknown actions and missing handlers all get the
    // one fault: the reason is deliberately not told apart.
    response->status = "500 Internal Server Error";
    std::string fault = UPnP_MakeActionResponseError("602", "Optional Action Not Implemented");
    response->contentLength = 0;
    if (!fault.empty()) HTTPResponse_SetBody(response, std::move(fault));
    return 0;
  }
  call->action->handler(request, service->serviceType, call->action->name, call->args.data(),
                        static_cast<int32_t>(call->args.size()), response);
  return 1;
}

std::string UPnP_MakeActionResponseSuccess(const char* serviceType, const char* actionName,
                                           const UPnPArgValue* outputs) {
  const char* name = actionName ? actionName : "";
  const bool hasOutputs = outputs && outputs->name;
  try {
    std::string document =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope "
        "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
        "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><u:";
    document.append(name).append("Response xmlns:u=\"").append(serviceType ? serviceType : "");
    document.append(hasOutputs ? "\">" : "\"/>");
    for (const UPnPArgValue* out = outputs; out && out->name; ++out) {
      if (out->length == 0) {
        document.append("<").append(out->name).append("/>");
        continue;
      }
      document.append("<").append(out->name).append(">");
      document.append(out->value, out->length);
      document.append("</").append(out->name).append(">");
    }
    if (hasOutputs) document.append("</u:").append(name).append("Response>");
    document.append("</s:Body></s:Envelope>");
    return document;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string UPnP_MakeActionResponseError(const char* code, const char* description) {
  char fault[kFaultSize];
  int length = std::snprintf(
      fault, sizeof fault,
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><s:Fault><faultcode>s:Client"
      "</faultcode><faultstring>UPnPError</faultstring><detail><UPnPError "
      "xmlns=\"urn:schemas-upnp-org:control-1-0\"><errorCode>%s</errorCode><errorDescription>%s"
      "</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>",
      code ? code : "", description ? description : "");
  if (length < 0) return {};
  try {
    return std::string(fault, std::min<size_t>(static_cast<size_t>(length), kFaultSize - 1));
  } catch (const std::bad_alloc&) {
    return {};
  }
}

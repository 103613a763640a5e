// The device description and service description (SCPD) documents, built
// straight from the device tables. Both have a fixed size: a longer document
// is cut silently, which keeps the cost of serving them bounded.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <new>
#include <string_view>

#include "upnp/UPnPDevice.h"

namespace {

constexpr size_t kDescriptionSize = 2048;
constexpr size_t kScpdSize = 16384;
constexpr size_t kPresentationUrlSize = 64;

// Text that never grows past `size - 1` characters; what does not fit is
// dropped.
class BoundedText {
 public:
  explicit BoundedText(size_t size) : limit_(size - 1) { text_.reserve(limit_); }

  BoundedText& operator<<(std::string_view piece) {
    text_.append(piece.substr(0, limit_ - text_.size()));
    assert(text_.size() <= limit_);
    return *this;
  }
  BoundedText& operator<<(const char* piece) { return *this << std::string_view(piece ? piece : ""); }
  BoundedText& operator<<(int32_t number) { return *this << std::string_view(std::to_string(number)); }

  std::string Take() { return std::move(text_); }

 private:
  size_t limit_;
  std::string text_;
};

// "<name>value</name>", or "<name/>" for a missing value.
void AppendElement(BoundedText& out, const char* name, const char* value, bool escape) {
  if (!value) {
    out << "<" << name << "/>";
    return;
  }
  out << "<" << name << ">" << (escape ? std::string_view(XML_Escape(value)) : std::string_view(value)) << "</"
      << name << ">";
}

void AppendArguments(BoundedText& out, const UPnPArgument* args, const char* direction) {
  for (const UPnPArgument* arg = args; arg && arg->name; ++arg) {
    out << "<argument><name>" << arg->name << "</name><direction>" << direction << "</direction><relatedStateVariable>"
        << arg->relatedStateVariable << "</relatedStateVariable></argument>";
  }
}

void AppendAction(BoundedText& out, const UPnPAction& action) {
  out << "<action><name>" << action.name << "</name>";
  const bool hasArgs = (action.inArgs && action.inArgs->name) || (action.outArgs && action.outArgs->name);
  if (hasArgs) out << "<argumentList>";
  AppendArguments(out, action.inArgs, "in");
  AppendArguments(out, action.outArgs, "out");
  if (hasArgs) out << "</argumentList>";
  out << "</action>";
}

void AppendStateVariable(BoundedText& out, const UPnPStateVariable& variable) {
  out << "<stateVariable sendEvents=\"" << (variable.sendEvents ? "yes" : "no") << "\"><name>" << variable.name
      << "</name><dataType>" << variable.dataType << "</dataType>";
  if (variable.allowedValues) {
    out << "<allowedValueList>";
    for (const char* const* value = variable.allowedValues; *value; ++value) {
      out << "<allowedValue>" << *value << "</allowedValue>";
    }
    out << "</allowedValueList>";
  } else if (variable.range) {
    out << "<allowedValueRange><minimum>" << variable.range[0] << "</minimum><maximum>" << variable.range[1]
        << "</maximum>";
    if (variable.range[2] > 0) out << "<step>" << variable.range[2] << "</step>";
    out << "</allowedValueRange>";
  }
  if (variable.defaultValue) out << "<defaultValue>" << variable.defaultValue << "</defaultValue>";
  out << "</stateVariable>";
}

// The entity of one of the five XML special characters, without its "&".
const char* XmlEntityName(char c) {
  switch (c) {
    case '"': return "quot;";
    case '\'': return "apos;";
    case '&': return "amp;";
    case '<': return "lt;";
    case '>': return "gt;";
    default: return nullptr;
  }
}

}  // namespace

char* XML_WriteEscaped(char* out, std::string_view text, bool twice) {
  // The five special characters all lie below 64: one test of a bit mask
  // passes every other character straight through.
  constexpr uint64_t kSpecial = 1ull << '&' | 1ull << '"' | 1ull << '\'' | 1ull << '<' | 1ull << '>';
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    if (code >= 64 || !(kSpecial >> code & 1)) {
      *out++ = c;
      continue;
    }
    *out++ = '&';
    if (twice) out = std::copy_n("amp;", 4, out);
    for (const char* entity = XmlEntityName(c); *entity; ++entity) *out++ = *entity;
  }
  return out;
}

void XML_AppendEscaped(std::string& out, std::string_view text, bool twice) {
  const size_t start = out.size();
  out.resize(start + text.size() * XML_MaxEscapedTwice);
  out.resize(static_cast<size_t>(XML_WriteEscaped(out.data() + start, text, twice) - out.data()));
}

std::string XML_Escape(const char* text) {
  if (!text) return {};
  std::string escaped;
  XML_AppendEscaped(escaped, text, false);
  return escaped;
}

std::string UPnPDevice_MakeDescription(const UPnPDevice* device, const char* localAddress) {
  if (!device) return {};
  try {
    BoundedText out(kDescriptionSize);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
           "<specVersion><major>1</major><minor>0</minor></specVersion><device>"
        << device->extraXml;
    AppendElement(out, "deviceType", device->deviceType, false);
    AppendElement(out, "friendlyName", device->friendlyName, true);
    AppendElement(out, "manufacturer", device->manufacturer, true);
    AppendElement(out, "modelName", device->modelName, true);
    AppendElement(out, "modelNumber", device->modelNumber, true);
    AppendElement(out, "modelDescription", device->modelDescription, true);
    if (localAddress) {
      char url[kPresentationUrlSize];
      std::snprintf(url, sizeof url, "http://%s", localAddress);
      out << "<presentationURL>" << url << "</presentationURL>";
    } else {
      out << "<presentationURL/>";
    }
    if (device->udn) {
      out << "<UDN>uuid:" << device->udn << "</UDN>";
    } else {
      out << "<UDN/>";
    }
    out << "<serviceList>";
    for (const UPnPService* service = device->services; service && service->serviceType; ++service) {
      out << "<service><serviceType>" << service->serviceType << "</serviceType><serviceId>" << service->serviceId
          << "</serviceId><SCPDURL>" << service->scpdPath << "</SCPDURL><controlURL>" << service->controlPath
          << "</controlURL><eventSubURL>" << service->eventPath << "</eventSubURL></service>";
    }
    out << "</serviceList></device></root>";
    return out.Take();
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string UPnPDevice_MakeSCPD(const UPnPService* service) {
  if (!service) return {};
  try {
    BoundedText out(kScpdSize);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">"
           "<specVersion><major>1</major><minor>0</minor></specVersion><actionList>";
    for (const UPnPAction* action = service->actions; action && action->name; ++action) {
      if (action->handler) AppendAction(out, *action);
    }
    out << "</actionList><serviceStateTable>";
    for (const UPnPStateVariable* variable = service->stateVariables; variable && variable->name; ++variable) {
      AppendStateVariable(out, *variable);
    }
    out << "</serviceStateTable></scpd>";
    return out.Take();
  } catch (const std::bad_alloc&) {
    return {};
  }
}

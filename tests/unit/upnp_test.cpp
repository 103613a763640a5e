// The device layer below the wire: the SOAP action scan, the fault's cut, XML
// escaping, and the exact SCPD and description documents of a table (the
// media server's own documents, dispatch and replies are checked on the wire).
#include <gtest/gtest.h>

#include <string>

#include "upnp/UPnPDevice.h"

namespace {

void NoOpAction(HTTPRequest*, const char*, const char*, const UPnPArgValue*, int32_t, HTTPResponse*) {}

const UPnPArgument kIn[] = {{"ObjectID", "A"}, {"BrowseFlag", "B"}, {"Filter", "C"}, {nullptr, nullptr}};
const UPnPArgument kOut[] = {{"Result", "R"}, {nullptr, nullptr}};
UPnPAction gActions[] = {{"Browse", NoOpAction, kIn, kOut},
                         {"Idle", nullptr, nullptr, kOut},
                         {nullptr, nullptr, nullptr, nullptr}};
const char* const kFlags[] = {"x", "y", nullptr};
const int32_t kRange[] = {-5, 10, 0};
const int32_t kSteppedRange[] = {0, 100, 5};
const UPnPStateVariable kVariables[] = {{"A", "string", 0, kFlags, "x", nullptr},
                                        {"B", "i4", 1, nullptr, nullptr, kRange},
                                        {"C", "ui4", 0, nullptr, nullptr, kSteppedRange},
                                        {nullptr, nullptr, 0, nullptr, nullptr, nullptr}};
UPnPService gServices[] = {{"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", gActions, kVariables, nullptr},
                           {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}};

std::string Envelope(const std::string& inner) {
  return "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>" + inner + "</s:Body></s:Envelope>";
}

// "action: arg|arg|..." as the scan found them, or "none".
std::string Scan(const std::string& body, bool anyOrder) {
  auto call = UPnP_ParseControl(gServices[0], body, anyOrder);
  if (!call) return "none";
  std::string found = std::string(call->action->name) + ":";
  for (const UPnPArgValue& arg : call->args) found += std::string(" ") + arg.name + "=" + std::string(arg.value, arg.length);
  return found;
}

// Each body with what the scan finds in table order, then in any order.
TEST(SoapScan, ActionAndArgumentsInTableOrderOrAnyOrder) {
  const std::string cases[][3] = {
      {Envelope("<u:Browse xmlns:u=\"urn:x\"><ObjectID> \t0\r\n</ObjectID><BrowseFlag/><Filter>a&amp;b</Filter>"
                "</u:Browse>"),
       "Browse: ObjectID=0 BrowseFlag= Filter=a&amp;b", "Browse: ObjectID=0 BrowseFlag= Filter=a&amp;b"},
      // Arguments out of order are dropped, so is one without a closing tag.
      {Envelope("<u:Browse xmlns:u=\"urn:x\"><BrowseFlag>B</BrowseFlag><ObjectID>7</ObjectID><Filter>*</Filter>"
                "</u:Browse>"),
       "Browse: ObjectID=7", "Browse: ObjectID=7 BrowseFlag=B Filter=*"},
      {"<s:Envelope><s:Body><u:Browse xmlns:u=\"urn:x\"><ObjectID>7", "Browse:", "Browse:"},
      // In any order an argument is an element of its very name, the first
      // one wins, one missing ends the values, nothing after the action counts.
      {Envelope("<u:Browse xmlns:u=\"urn:x\"><u:Filter a=\"1\">f</u:Filter><XObjectID>9</XObjectID><N>ObjectID</N>"
                "<ObjectID>1</ObjectID><ObjectID>2</ObjectID><BrowseFlag /></u:Browse><Filter>late</Filter>"),
       "Browse: ObjectID=9 BrowseFlag= Filter=late", "Browse: ObjectID=1 BrowseFlag= Filter=f"},
      // A matching action without handler is still found: the dispatcher faults.
      {Envelope("<u:Idle xmlns:u=\"urn:x\"/>"), "Idle:", "Idle:"},
      // No attributes on the action element, no prefix, no envelope, no body, unknown action.
      {Envelope("<u:Browse><ObjectID>0</ObjectID></u:Browse>"), "none", "none"},
      {Envelope("<Browse xmlns=\"urn:x\"></Browse>"), "none", "none"},
      {"<u:Browse xmlns:u=\"urn:x\"/>", "none", "none"},
      {"<s:Envelope><u:Browse xmlns:u=\"urn:x\"/></s:Envelope>", "none", "none"},
      {Envelope("<u:Search xmlns:u=\"urn:x\"/>"), "none", "none"},
  };
  for (const auto& [body, inOrder, anyOrder] : cases) {
    EXPECT_EQ(std::pair(Scan(body, false), Scan(body, true)), std::pair(inOrder, anyOrder)) << body;
  }
}

TEST(SoapEnvelope, FaultIsCutAt511AndEscapingCoversFiveCharacters) {
  std::string fault = UPnP_MakeActionResponseError("720", std::string(600, 'd').c_str());
  EXPECT_EQ(std::pair(fault.size(), fault.find("</errorDescription>")), std::pair(size_t(511), std::string::npos));
  EXPECT_EQ(XML_Escape("a\"b'c&d<e>f") + XML_Escape(nullptr), "a&quot;b&apos;c&amp;d&lt;e&gt;f");
}

TEST(Documents, ScpdListsActionsWithHandlersAndAllVariables) {
  EXPECT_EQ(UPnPDevice_MakeSCPD(&gServices[0]),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><scpd xmlns=\"urn:schemas-upnp-org:service-1-0\">"
            "<specVersion><major>1</major><minor>0</minor></specVersion><actionList>"
            "<action><name>Browse</name><argumentList>"
            "<argument><name>ObjectID</name><direction>in</direction><relatedStateVariable>A"
            "</relatedStateVariable></argument>"
            "<argument><name>BrowseFlag</name><direction>in</direction><relatedStateVariable>B"
            "</relatedStateVariable></argument>"
            "<argument><name>Filter</name><direction>in</direction><relatedStateVariable>C"
            "</relatedStateVariable></argument>"
            "<argument><name>Result</name><direction>out</direction><relatedStateVariable>R"
            "</relatedStateVariable></argument>"
            "</argumentList></action></actionList><serviceStateTable>"
            "<stateVariable sendEvents=\"no\"><name>A</name><dataType>string</dataType><allowedValueList>"
            "<allowedValue>x</allowedValue><allowedValue>y</allowedValue></allowedValueList>"
            "<defaultValue>x</defaultValue></stateVariable>"
            "<stateVariable sendEvents=\"yes\"><name>B</name><dataType>i4</dataType><allowedValueRange>"
            "<minimum>-5</minimum><maximum>10</maximum></allowedValueRange></stateVariable>"
            "<stateVariable sendEvents=\"no\"><name>C</name><dataType>ui4</dataType><allowedValueRange>"
            "<minimum>0</minimum><maximum>100</maximum><step>5</step></allowedValueRange></stateVariable>"
            "</serviceStateTable></scpd>");
}

TEST(Documents, DescriptionEscapesFieldsAndIsCutAt2047) {
  UPnPDevice device{.deviceType = "urn:x:device:D:1", .friendlyName = "Tom & Jerry's <box>", .modelName = "M",
                    .udn = "U", .extraXml = "<x/>", .services = gServices};
  EXPECT_EQ(UPnPDevice_MakeDescription(&device, "10.0.0.1"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
            "<specVersion><major>1</major><minor>0</minor></specVersion><device><x/>"
            "<deviceType>urn:x:device:D:1</deviceType><friendlyName>Tom &amp; Jerry&apos;s &lt;box&gt;"
            "</friendlyName><manufacturer/><modelName>M</modelName><modelNumber/><modelDescription/>"
            "<presentationURL>http://10.0.0.1</presentationURL><UDN>uuid:U</UDN><serviceList><service>"
            "<serviceType>urn:x:service:T:1</serviceType><serviceId>urn:x:serviceId:T</serviceId>"
            "<SCPDURL>/s</SCPDURL><controlURL>/c</controlURL><eventSubURL>/e</eventSubURL></service>"
            "</serviceList></device></root>");
  EXPECT_NE(UPnPDevice_MakeDescription(&device, nullptr).find("<presentationURL/>"), std::string::npos);
  std::string longName(3000, 'n');
  device.friendlyName = longName.c_str();
  const std::string cut = UPnPDevice_MakeDescription(&device, "10.0.0.1");
  EXPECT_EQ(std::pair(cut.size(), cut.back()), std::pair(size_t(2047), 'n'));
}

}  // namespace

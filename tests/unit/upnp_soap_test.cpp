// The SOAP action scan, the success and fault envelopes, XML escaping and
// the description and SCPD builders.
#include <gtest/gtest.h>

#include <string>

#include "upnp/UPnPDevice.h"

namespace {

void NoOpHandler(HTTPRequest*, const char*, const char*, const UPnPArgValue*, int32_t, HTTPResponse*) {}

const UPnPArgument kIn[] = {{"ObjectID", "A"}, {"BrowseFlag", "B"}, {"Filter", "C"}, {nullptr, nullptr}};
const UPnPArgument kOut[] = {{"Result", "R"}, {nullptr, nullptr}};
UPnPAction gActions[] = {
    {"Browse", NoOpHandler, kIn, kOut},
    {"GetSystemUpdateID", nullptr, nullptr, kOut},
    {nullptr, nullptr, nullptr, nullptr},
};
const char* const kFlags[] = {"x", "y", nullptr};
const int32_t kRange[] = {-5, 10, 0};
const int32_t kSteppedRange[] = {0, 100, 5};
const UPnPStateVariable kVariables[] = {
    {"A", "string", 0, kFlags, "x", nullptr},
    {"B", "i4", 1, nullptr, nullptr, kRange},
    {"C", "ui4", 0, nullptr, nullptr, kSteppedRange},
    {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
};
UPnPService gService = {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", gActions, kVariables, nullptr};

std::string Envelope(const std::string& inner) {
  return "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>" +
         inner + "</s:Body></s:Envelope>";
}

std::string Value(const UPnPArgValue& arg) { return std::string(arg.value, arg.length); }

TEST(SoapScan, FindsActionAndArgumentsInTableOrder) {
  std::string body = Envelope(
      "<u:Browse xmlns:u=\"urn:x:service:T:1\"><ObjectID> \t0\r\n</ObjectID><BrowseFlag/>"
      "<Filter>a&amp;b</Filter></u:Browse>");
  auto call = UPnP_ParseControl(gService, body);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->action, &gActions[0]);
  ASSERT_EQ(call->args.size(), 3u);
  EXPECT_STREQ(call->args[0].name, "ObjectID");
  EXPECT_EQ(Value(call->args[0]), "0");
  EXPECT_EQ(call->args[1].length, 0u);
  EXPECT_EQ(Value(call->args[2]), "a&amp;b");
}

TEST(SoapScan, ArgumentsOutOfOrderAreDropped) {
  std::string body =
      Envelope("<u:Browse xmlns:u=\"urn:x\"><BrowseFlag>B</BrowseFlag><ObjectID>7</ObjectID><Filter>*</Filter>"
               "</u:Browse>");
  auto call = UPnP_ParseControl(gService, body);
  ASSERT_TRUE(call);
  ASSERT_EQ(call->args.size(), 1u);
  EXPECT_EQ(Value(call->args[0]), "7");
  // An argument without a closing tag is not collected.
  call = UPnP_ParseControl(gService, "<s:Envelope><s:Body><u:Browse xmlns:u=\"urn:x\"><ObjectID>7");
  ASSERT_TRUE(call);
  EXPECT_TRUE(call->args.empty());
}

TEST(SoapScan, RejectsWhatTheScanDoesNotAccept) {
  // No attributes on the action element, no prefix, no envelope, no body.
  EXPECT_FALSE(UPnP_ParseControl(gService, Envelope("<u:Browse><ObjectID>0</ObjectID></u:Browse>")));
  EXPECT_FALSE(UPnP_ParseControl(gService, Envelope("<Browse xmlns=\"urn:x\"></Browse>")));
  EXPECT_FALSE(UPnP_ParseControl(gService, "<u:Browse xmlns:u=\"urn:x\"/>"));
  EXPECT_FALSE(UPnP_ParseControl(gService, "<s:Envelope><u:Browse xmlns:u=\"urn:x\"/></s:Envelope>"));
  EXPECT_FALSE(UPnP_ParseControl(gService, Envelope("<u:Search xmlns:u=\"urn:x\"/>")));
  EXPECT_FALSE(UPnP_ParseControl(gService, ""));
  // A matching action without handler is still found: the dispatcher faults.
  auto call = UPnP_ParseControl(gService, Envelope("<u:GetSystemUpdateID xmlns:u=\"urn:x\"/>"));
  ASSERT_TRUE(call);
  EXPECT_EQ(call->action, &gActions[1]);
}

TEST(SoapEnvelope, SuccessWithAndWithoutOutputs) {
  const UPnPArgValue outputs[] = {{"Result", "&lt;x&gt;", 9}, {"Empty", "", 0}, {nullptr, nullptr, 0}};
  EXPECT_EQ(UPnP_MakeActionResponseSuccess("urn:x:service:T:1", "Browse", outputs),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><s:Envelope "
            "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
            "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><u:BrowseResponse "
            "xmlns:u=\"urn:x:service:T:1\"><Result>&lt;x&gt;</Result><Empty/></u:BrowseResponse>"
            "</s:Body></s:Envelope>");
  std::string none = UPnP_MakeActionResponseSuccess("urn:x", nullptr, nullptr);
  EXPECT_NE(none.find("<s:Body><u:Response xmlns:u=\"urn:x\"/></s:Body></s:Envelope>"), std::string::npos);
  // Values larger than any initial buffer come out whole.
  std::string big(5000, 'v');
  const UPnPArgValue large[] = {{"Big", big.c_str(), 4096}, {nullptr, nullptr, 0}};
  std::string document = UPnP_MakeActionResponseSuccess("urn:x", "A", large);
  EXPECT_NE(document.find("<Big>" + big.substr(0, 4096) + "</Big></u:AResponse>"), std::string::npos);
}

TEST(SoapEnvelope, FaultIsFixedAndCut) {
  // The 602 fault's exact bytes are checked on the wire.
  std::string fault = UPnP_MakeActionResponseError("720", std::string(600, 'd').c_str());
  EXPECT_EQ(fault.size(), 511u);
  EXPECT_EQ(fault.find("</errorDescription>"), std::string::npos);
}

TEST(XmlEscape, EscapesTheFiveCharacters) {
  EXPECT_EQ(XML_Escape("a\"b'c&d<e>f"), "a&quot;b&apos;c&amp;d&lt;e&gt;f");
  EXPECT_EQ(XML_Escape("plain"), "plain");
  EXPECT_EQ(XML_Escape(nullptr), "");
}

TEST(Scpd, ListsActionsWithHandlersAndAllVariables) {
  EXPECT_EQ(UPnPDevice_MakeSCPD(&gService),
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

TEST(Description, EscapesFieldsAndCutsAt2047) {
  UPnPService services[] = {gService, {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}};
  UPnPDevice device;
  device.deviceType = "urn:x:device:D:1";
  device.friendlyName = "Tom & Jerry's <box>";
  device.modelName = "M";
  device.udn = "U";
  device.extraXml = "<x/>";
  device.services = services;
  EXPECT_EQ(UPnPDevice_MakeDescription(&device, "10.0.0.1"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"
            "<specVersion><major>1</major><minor>0</minor></specVersion><device><x/>"
            "<deviceType>urn:x:device:D:1</deviceType><friendlyName>Tom &amp; Jerry&apos;s &lt;box&gt;"
            "</friendlyName><manufacturer/><modelName>M</modelName><modelNumber/><modelDescription/>"
            "<presentationURL>http://10.0.0.1</presentationURL><UDN>uuid:U</UDN><serviceList><service>"
            "<serviceType>urn:x:service:T:1</serviceType><serviceId>urn:x:serviceId:T</serviceId>"
            "<SCPDURL>/s</SCPDURL><controlURL>/c</controlURL><eventSubURL>/e</eventSubURL></service>"
            "</serviceList></device></root>");
  std::string noAddress = UPnPDevice_MakeDescription(&device, nullptr);
  EXPECT_NE(noAddress.find("<presentationURL/>"), std::string::npos);
  std::string longName(3000, 'n');
  device.friendlyName = longName.c_str();
  std::string cut = UPnPDevice_MakeDescription(&device, "10.0.0.1");
  EXPECT_EQ(cut.size(), 2047u);
  EXPECT_EQ(cut.back(), 'n');
}

}  // namespace

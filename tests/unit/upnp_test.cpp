// The exact SCPD and description documents the device layer makes of a table,
// value lists and ranges included (the media server's own documents are read
// by GUPnP on the wire; dispatch, faults and replies are checked there too).
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

// M-SEARCH parsing and target matching (the datagrams themselves are compared
// whole on the wire).
#include <gtest/gtest.h>

#include "ssdp/SSDP.h"

namespace {

const std::vector<std::string> kTypes = {"uuid:", "upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1",
                                         "urn:schemas-upnp-org:service:ConnectionManager:1",
                                         "urn:schemas-upnp-org:service:ContentDirectory:1"};
const char* kUdn = "444D5300-0000-1000-8000-0A1B2C3D4E5F";

std::optional<SSDPSearch> Search(const std::string& st) {
  return SSDP_ParseSearch("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nST:" + st +
                              "\r\nMX: 3\r\n\r\n",
                          kTypes, kUdn);
}

// The wire tests cover the plain answers (ssdp:all, each type, versions 0
// and 2, an unknown uuid); these are the spellings and edge forms.
TEST(SsdpSearch, TargetSpellings) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"UPnP:RootDevice  ", "upnp:rootdevice"},
      {"uuid:444d5300-0000-1000-8000-0a1b2c3d4e5f", "uuid:"},
      // The answer names the version and the spelling that were asked for.
      {"URN:schemas-upnp-org:device:MEDIASERVER:1", "URN:schemas-upnp-org:device:MEDIASERVER:1"},
      {"ssdp:allx", std::nullopt}, {"", std::nullopt}, {"uuid:", std::nullopt},
      {"urn:schemas-upnp-org:service:ContentDirectory:", std::nullopt},
      {"urn:schemas-upnp-org:service:ContentDirectory:99999999999999999999", std::nullopt},
  };
  for (const auto& [st, target] : cases) {
    auto search = Search(st);
    EXPECT_EQ(search ? std::optional(search->target) : std::nullopt, target) << st;
    EXPECT_FALSE(search && search->all) << st;
  }
  EXPECT_TRUE(Search(" ssdp:all")->all);
}

TEST(SsdpSearch, RejectsMalformedDatagrams) {
  // Not a search, no ST, an ST line without CR LF; the text ends at the first
  // zero byte, as a received datagram does.
  for (std::string_view datagram : {std::string_view("NOTIFY * HTTP/1.1\r\nST: ssdp:all\r\n\r\n"),
                                    std::string_view("M-SEARCH * HTTP/1.1\r\nMX: 1\r\n\r\n"),
                                    std::string_view("M-SEARCH * HTTP/1.1\r\nST: ssdp:all"),
                                    std::string_view("M-SEARCH\0\r\nST: ssdp:all\r\n", 26)})
    EXPECT_FALSE(SSDP_ParseSearch(datagram, kTypes, kUdn)) << datagram;
  EXPECT_TRUE(SSDP_ParseSearch("m-search\r\nst: ssdp:all\r\n", kTypes, kUdn));
}

TEST(SsdpSearch, TypeWithoutColonEndsTheWalk) {
  const std::vector<std::string> types = {"plain", "urn:a:b:1"};
  EXPECT_FALSE(SSDP_ParseSearch("M-SEARCH\r\nST: urn:a:b:1\r\n", types, kUdn));
}

}  // namespace

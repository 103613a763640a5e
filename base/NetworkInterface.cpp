// Lists the usable IPv4 interfaces from the kernel's interface configuration
// list, keeping its order: one node for each run of addresses of one
// interface, only for interfaces that are up and are not the loopback.
#include "base/NetworkInterface.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <new>
#include <vector>

#include "base/UniqueFd.h"

namespace {

constexpr size_t kConfBufferStart = 1024;
constexpr size_t kConfBufferStep = 512;
// Far beyond any real interface count; keeps a misbehaving request from
// growing the buffer without end.
constexpr size_t kConfBufferMax = 1024 * 1024;

// Reads the configuration list until two requests in a row report the same
// used length, so that the buffer was large enough for all of it.
bool ReadInterfaceList(int socket, std::vector<char>& buffer, size_t& used) {
  int lastLength = 0;
  for (size_t size = kConfBufferStart; size <= kConfBufferMax; size += kConfBufferStep) {
    try {
      buffer.assign(size, '\0');
    } catch (const std::bad_alloc&) {
      return false;
    }
    ifconf conf{};
    conf.ifc_len = static_cast<int>(size);
    conf.ifc_buf = buffer.data();
    if (ioctl(socket, SIOCGIFCONF, &conf) == 0) {
      if (conf.ifc_len == lastLength) {
        used = static_cast<size_t>(conf.ifc_len);
        return true;
      }
      lastLength = conf.ifc_len;
    }
  }
  return false;
}

bool IsUsable(int socket, const char* name) {
  ifreq request{};
  std::memcpy(request.ifr_name, name, strnlen(name, IFNAMSIZ - 1));
  ioctl(socket, SIOCGIFFLAGS, &request);  // on failure the zeroed flags read as down
  return (request.ifr_flags & IFF_UP) != 0 && (request.ifr_flags & IFF_LOOPBACK) == 0;
}

void FillNode(NetworkInterface& node, int socket, const ifreq& entry, int index) {
  node.index = index;
  std::memcpy(node.name, entry.ifr_name, strnlen(entry.ifr_name, sizeof node.name - 1));
  if (char* colon = std::strchr(node.name, ':')) *colon = '\0';
  // The request reuses the entry: if it fails, the address bytes stay in place.
  ifreq hardware = entry;
  ioctl(socket, SIOCGIFHWADDR, &hardware);
  std::memcpy(node.mac, hardware.ifr_hwaddr.sa_data, sizeof node.mac);
  std::memcpy(&node.address, &entry.ifr_addr, sizeof node.address);
}

}  // namespace

NetworkInterface* NetworkInterface_new() {
  UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.valid()) return nullptr;
  std::vector<char> buffer;
  size_t used = 0;
  if (!ReadInterfaceList(socket.get(), buffer, used)) return nullptr;

  NetworkInterface* head = nullptr;
  NetworkInterface** tail = &head;
  int lastIndex = 0;
  for (size_t at = 0; at + sizeof(ifreq) <= used; at += sizeof(ifreq)) {
    ifreq entry;
    std::memcpy(&entry, buffer.data() + at, sizeof entry);
    entry.ifr_name[IFNAMSIZ - 1] = '\0';
    if (entry.ifr_addr.sa_family != AF_INET) continue;
    int index = static_cast<int>(if_nametoindex(entry.ifr_name));
    if (index == lastIndex || !IsUsable(socket.get(), entry.ifr_name)) continue;
    auto* node = new (std::nothrow) NetworkInterface;
    if (node == nullptr) break;
    FillNode(*node, socket.get(), entry, index);
    *tail = node;
    tail = &node->next;
    lastIndex = index;
  }
  return head;
}

void NetworkInterface_delete(NetworkInterface* list) {
  while (list != nullptr) {
    NetworkInterface* next = list->next;
    delete list;
    list = next;
  }
}

bool NetworkInterface_SameAddresses(const NetworkInterface* before, const NetworkInterface* now) {
  for (; before && now; before = before->next, now = now->next) {
    if (before->address.sin_addr.s_addr != now->address.sin_addr.s_addr) return false;
  }
  return !before && !now;
}

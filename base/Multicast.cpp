// Opens the multicast sockets of the discovery protocols; every option is
// set before the bind, and any refused option gives up the socket.
#include "base/Multicast.h"

#include <arpa/inet.h>
#include <sys/socket.h>

namespace {

constexpr unsigned char kTimeToLive = 255;

}  // namespace

sockaddr_in Multicast_Address(const char* group, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, group, &address.sin_addr);
  return address;
}

UniqueFd Multicast_Open(const char* group, uint16_t port, const char* interfaceAddress) {
  in_addr interface{};
  if (inet_pton(AF_INET, interfaceAddress, &interface) != 1) return {};
  UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int fd = socket.get();
  if (fd < 0) return {};
  const int reuse = 1;
  ip_mreq membership{};
  inet_pton(AF_INET, group, &membership.imr_multiaddr);
  membership.imr_interface = interface;
  const unsigned char hops = kTimeToLive;
  const unsigned char loop = 1;
  const sockaddr_in bound = Multicast_Address("0.0.0.0", port);  // every local address
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) < 0 ||
      setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) < 0 ||
      setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) < 0 ||
      setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops) < 0 ||
      setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) < 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&bound), sizeof bound) < 0) {
    return {};
  }
  return socket;
}

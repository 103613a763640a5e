// Opens the multicast sockets of the discovery protocols; every option is
// set before the bind, and any refused option gives up the socket. The
// wake-up event is an eventfd that the engine thread polls beside the socket.
#include "base/Multicast.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace {

constexpr unsigned char kTimeToLive = 255;

UniqueFd OpenSocket(const sockaddr_in& group, uint16_t port, const char* interfaceAddress) {
  in_addr interface{};
  if (inet_pton(AF_INET, interfaceAddress, &interface) != 1) return {};
  UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int fd = socket.get();
  if (fd < 0) return {};
  const int reuse = 1;
  ip_mreq membership{};
  membership.imr_multiaddr = group.sin_addr;
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

}  // namespace

sockaddr_in Multicast_Address(const char* group, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, group, &address.sin_addr);
  return address;
}

MulticastChannel Multicast_Open(const char* group, uint16_t port, const char* interfaceAddress) {
  MulticastChannel channel;
  channel.group = Multicast_Address(group, port);
  channel.socket = OpenSocket(channel.group, port, interfaceAddress);
  if (!channel.socket.valid()) return {};
  channel.wake = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!channel.wake.valid()) return {};
  return channel;
}

bool Multicast_Wait(const MulticastChannel& channel, int timeoutMs) {
  std::array<pollfd, 2> input{{{channel.socket.get(), POLLIN, 0}, {channel.wake.get(), POLLIN, 0}}};
  if (poll(input.data(), input.size(), timeoutMs) < 0) return false;
  eventfd_t wakeUps = 0;
  if (input[1].revents & POLLIN) eventfd_read(channel.wake.get(), &wakeUps);
  return true;
}

bool Multicast_Renew(const MulticastChannel& channel, const char* interfaceAddress) {
  UniqueFd fresh = OpenSocket(channel.group, ntohs(channel.group.sin_port), interfaceAddress);
  // dup2 swaps the socket behind the number in one step, so the channel's
  // thread never sees a closed or foreign descriptor.
  if (!fresh.valid() || dup2(fresh.get(), channel.socket.get()) < 0) return false;
  Multicast_Wake(channel);
  return true;
}

void Multicast_Wake(const MulticastChannel& channel) { eventfd_write(channel.wake.get(), 1); }

void Multicast_SendStopByte(const MulticastChannel& channel) {
  const char zero = 0;
  sendto(channel.socket.get(), &zero, sizeof zero, 0, reinterpret_cast<const sockaddr*>(&channel.group),
         sizeof channel.group);
}

// Pieces the fuzz harnesses share: the input as an anonymous file, a socket
// pair standing in for a client's TCP connection, a reader that empties the
// client's side while the code under test writes, the one-call form of a
// direct format-parser harness, and the media server's SSDP identity.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "media/MediaRecord.h"
#include "ssdp/SSDP.h"

namespace fuzz {

inline std::string_view Text(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The search targets and message fields of an SSDP engine of the media server.
inline const std::vector<std::string>& SsdpTypes() {
  static const std::vector<std::string> types = {
      "uuid:", "upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1",
      "urn:schemas-upnp-org:service:ConnectionManager:1", "urn:schemas-upnp-org:service:ContentDirectory:1"};
  return types;
}
inline const SSDPMessageFields& SsdpFields() {
  static const SSDPMessageFields fields{1800, "10.0.0.1", 8080, "/DMS/Device", "Linux/6.1", "DMS/1.0",
                                        "444D5300-0000-1000-8000-0A1B2C3D4E5F", ""};
  return fields;
}

// The bytes as an anonymous file; fd() is -1 when it could not be made.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view bytes) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    if (fd_ < 0 || bytes.empty()) return;
    if (write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~MemoryFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  int fd() const { return fd_; }
  // A name that opens the same file.
  std::string Path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

// A connected pair: the server end goes to the code under test, the client
// end holds what the client sent. The client's bytes are written at once and
// its sending side is shut, so the server reads them and then the end of the
// stream and never waits. What the server writes collects at the client end.
class SocketPair {
 public:
  explicit SocketPair(std::string_view clientBytes) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) {
      ends_[0] = ends_[1] = -1;
      return;
    }
    // A write that the buffer cannot take whole is cut rather than waited for.
    fcntl(ends_[1], F_SETFL, O_NONBLOCK);
    if (!clientBytes.empty()) (void)!write(ends_[1], clientBytes.data(), clientBytes.size());
    shutdown(ends_[1], SHUT_WR);
  }
  ~SocketPair() {
    for (int end : ends_) {
      if (end >= 0) close(end);
    }
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  bool valid() const { return ends_[0] >= 0; }
  int server() const { return ends_[0]; }
  int client() const { return ends_[1]; }
  // Drops what has reached the client end so far.
  void Discard() const {
    char buffer[4096];
    while (recv(ends_[1], buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
  }

 private:
  int ends_[2];
};

// Empties the client end on a thread of its own, for code under test that may
// write more than a socket buffer holds. Stops when the server end is shut
// down or closed; the destructor waits for that.
class ClientReader {
 public:
  explicit ClientReader(int client) : thread_([client] {
      fcntl(client, F_SETFL, 0);
      char buffer[16384];
      while (recv(client, buffer, sizeof buffer, 0) > 0) {
      }
    }) {}
  ~ClientReader() { thread_.join(); }
  ClientReader(const ClientReader&) = delete;
  ClientReader& operator=(const ClientReader&) = delete;

 private:
  std::thread thread_;
};

// Calls one format parser directly on the input as a whole file, once for
// metadata only and once with seek data built.
inline void ParseWith(const uint8_t* data, size_t size, MediaParser parse) {
  MemoryFile file(Text(data, size));
  if (file.fd() < 0) return;
  for (bool metadataOnly : {true, false}) {
    MediaStream stream;
    parse(file.fd(), 0, static_cast<int64_t>(size), stream, metadataOnly);
  }
}

}  // namespace fuzz

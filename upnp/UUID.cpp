// UUID generation and text forms. Generation xors a 100-ns timestamp and a
// seeded pseudo-random sequence over bytes from /dev/urandom, so a UUID is
// produced even on a board without a random source.
#include "upnp/UUID.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// 100-ns intervals between 15 October 1582 and 1 January 1970.
constexpr uint64_t kGregorianOffset = 0x01B21DD213814000ull;

void readRandom(UUID uuid) {
  int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  // A short read keeps the caller's bytes for the rest; the mixing below still applies.
  ssize_t ignored = ::read(fd, uuid, 16);
  (void)ignored;
  ::close(fd);
}

}  // namespace

void UUID_Generate(UUID uuid) {
  readRandom(uuid);
  unsigned seed = static_cast<unsigned>(::time(nullptr));
  seed = static_cast<unsigned>(rand_r(&seed));

  timeval now{};
  ::gettimeofday(&now, nullptr);
  uint64_t stamp = static_cast<uint64_t>(now.tv_sec) * 10000000ull +
                   static_cast<uint64_t>(now.tv_usec) * 10ull + kGregorianOffset + seed;
  const auto low = static_cast<uint32_t>(stamp);
  const auto high = static_cast<uint32_t>(stamp >> 32);

  uuid[0] ^= static_cast<uint8_t>(low >> 24);
  uuid[1] ^= static_cast<uint8_t>(low >> 16);
  uuid[2] ^= static_cast<uint8_t>(low >> 8);
  uuid[3] ^= static_cast<uint8_t>(low);
  uuid[4] ^= static_cast<uint8_t>(high >> 8);
  uuid[5] ^= static_cast<uint8_t>(high);
  uuid[6] ^= static_cast<uint8_t>(high >> 24);
  uuid[7] ^= static_cast<uint8_t>(high >> 16);
  for (int i = 8; i < 16; ++i) uuid[i] ^= static_cast<uint8_t>(rand_r(&seed));
  uuid[10] |= 0x01;  // multicast bit of a random node
  // Whole-byte stores: version 1 and the variant, with the low bits cleared.
  uuid[6] = 0x10;
  uuid[8] = 0x80;
}

int UUID_Unparse(const UUID u, char text[UUID_TextSize]) {
  return std::snprintf(text, UUID_TextSize,
                       "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", u[0], u[1],
                       u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
}

int UUID_UnparseLower(const UUID u, char text[UUID_TextSize]) {
  return std::snprintf(text, UUID_TextSize,
                       "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0], u[1],
                       u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
}

int UUID_Parse(const char* text, UUID uuid) {
  if (!text) return -1;
  UUID parsed{};
  int consumed = 0;
  int fields = std::sscanf(text,
                           "%2hhx%2hhx%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%n",
                           &parsed[0], &parsed[1], &parsed[2], &parsed[3], &parsed[4], &parsed[5], &parsed[6],
                           &parsed[7], &parsed[8], &parsed[9], &parsed[10], &parsed[11], &parsed[12],
                           &parsed[13], &parsed[14], &parsed[15], &consumed);
  if (fields != 16 || consumed != 36 || text[36] != '\0') return -1;
  std::memcpy(uuid, parsed, 16);
  return 0;
}

void UUID_Clear(UUID uuid) { std::memset(uuid, 0, 16); }

int UUID_Compare(const UUID a, const UUID b) { return std::memcmp(a, b, 16); }

void UUID_Copy(UUID destination, const UUID source) { std::memcpy(destination, source, 16); }

bool UUID_IsNull(const UUID uuid) {
  for (int i = 0; i < 16; ++i) {
    if (uuid[i]) return false;
  }
  return true;
}

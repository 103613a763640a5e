// The shared readers of the format parsers and the per-thread read window
// that serves them while a file is probed.
#include "media/MediaRead.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/ByteOrder.h"

namespace {

// While a window is open, the readers and MediaSeek of that thread serve the
// descriptor from one read-ahead buffer filled with pread: the parsers read
// in small pieces, and a system call per piece would cost far more than the
// parsing itself. Outside a window they go to the kernel. A fill where the
// parser begins or lands after a seek takes one page, where a header lies;
// each fill that carries on from the one before takes twice as much, up to
// the whole buffer: a file costs the device reads its headers need, not a
// read-ahead window (the scan tells the kernel not to add one of its own).
constexpr size_t kReadWindowSize = 16384;
constexpr size_t kFirstFill = 4096;

struct ReadWindow {
  int fd = -1;
  // Every parser begins with an absolute seek, so the descriptor's own
  // position is asked of the kernel only when a read or relative seek comes
  // first, and a descriptor that cannot seek then leaves the window.
  bool positioned = false;
  int64_t position = 0;  // where the next read starts, once positioned
  int64_t start = 0;     // file offset of data[0]
  size_t filled = 0;
  std::array<unsigned char, kReadWindowSize> data;
};

thread_local ReadWindow* activeWindow = nullptr;

// Each thread's window, freed when the thread ends. A key rather than a
// thread_local with a destructor: registering such a destructor needs memory,
// and the C library ends the process when there is none.
pthread_key_t windowKey;
pthread_once_t windowKeyOnce = PTHREAD_ONCE_INIT;
bool windowKeyMade = false;

void makeWindowKey() {
  windowKeyMade = pthread_key_create(&windowKey, [](void* window) { delete static_cast<ReadWindow*>(window); }) == 0;
}

// Null when there is no memory for it.
ReadWindow* threadWindow() {
  pthread_once(&windowKeyOnce, makeWindowKey);
  if (!windowKeyMade) return nullptr;
  if (void* window = pthread_getspecific(windowKey)) return static_cast<ReadWindow*>(window);
  auto* window = new (std::nothrow) ReadWindow;
  if (window && pthread_setspecific(windowKey, window) != 0) {
    delete window;
    return nullptr;
  }
  return window;
}

// The window serving `fd` on this thread, positioned, or null.
ReadWindow* windowFor(int fd) {
  ReadWindow* window = activeWindow;
  if (!window || window->fd != fd) return nullptr;
  if (window->positioned) return window;
  const int64_t position = static_cast<int64_t>(::lseek(fd, 0, SEEK_CUR));
  if (position < 0) {
    activeWindow = nullptr;
    return nullptr;
  }
  window->position = position;
  window->positioned = true;
  return window;
}

// Reads at `at` without moving the descriptor; retries when interrupted.
ssize_t readAt(int fd, unsigned char* out, size_t count, int64_t at) {
  for (;;) {
    const ssize_t n = ::pread(fd, out, count, static_cast<off_t>(at));
    if (n >= 0 || errno != EINTR) return n;
  }
}

bool windowRead(ReadWindow& window, unsigned char* out, size_t count) {
  size_t done = 0;
  while (done < count) {
    const int64_t at = window.position;
    const int64_t end = window.start + static_cast<int64_t>(window.filled);
    if (at >= window.start && at < end) {
      const size_t n = std::min(count - done, static_cast<size_t>(end - at));
      assert(at - window.start + static_cast<int64_t>(n) <= static_cast<int64_t>(window.filled));
      std::memcpy(out + done, window.data.data() + (at - window.start), n);
      done += n;
      window.position += static_cast<int64_t>(n);
      continue;
    }
    // A piece larger than the window goes straight into the destination.
    const bool direct = count - done >= kReadWindowSize;
    const bool carriesOn = window.filled > 0 && at == end;
    const size_t fill = carriesOn ? std::min(2 * window.filled, kReadWindowSize) : kFirstFill;
    const ssize_t n = direct ? readAt(window.fd, out + done, count - done, at)
                             : readAt(window.fd, window.data.data(), std::max(fill, count - done), at);
    if (n <= 0) return false;
    if (direct) {
      done += static_cast<size_t>(n);
      window.position += n;
    } else {
      assert(static_cast<size_t>(n) <= kReadWindowSize);
      window.start = at;
      window.filled = static_cast<size_t>(n);
    }
  }
  return true;
}

}  // namespace

MediaReadWindow::MediaReadWindow(int fd) {
  if (activeWindow) return;
  ReadWindow* own = threadWindow();
  if (!own) return;
  ReadWindow& window = *own;
  window.fd = fd;
  window.positioned = false;
  window.start = 0;
  window.filled = 0;
  activeWindow = &window;
  owner_ = true;
}

MediaReadWindow::~MediaReadWindow() {
  if (owner_) activeWindow = nullptr;
}

bool MediaRead_Bytes(int fd, void* buffer, size_t count) {
  auto* out = static_cast<unsigned char*>(buffer);
  if (ReadWindow* window = windowFor(fd)) return windowRead(*window, out, count);
  size_t done = 0;
  while (done < count) {
    ssize_t n = ::read(fd, out + done, count - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

namespace {

template <typename T, bool BigEndian>
bool readInteger(int fd, T& value) {
  uint8_t bytes[sizeof(T)];
  if (!MediaRead_Bytes(fd, bytes, sizeof bytes)) return false;
  value = static_cast<T>(BigEndian ? Bytes_BigEndian(bytes, sizeof bytes) : Bytes_LittleEndian(bytes, sizeof bytes));
  return true;
}

}  // namespace

bool MediaRead_U16BE(int fd, uint16_t& value) { return readInteger<uint16_t, true>(fd, value); }
bool MediaRead_U16LE(int fd, uint16_t& value) { return readInteger<uint16_t, false>(fd, value); }
bool MediaRead_U32BE(int fd, uint32_t& value) { return readInteger<uint32_t, true>(fd, value); }
bool MediaRead_U32LE(int fd, uint32_t& value) { return readInteger<uint32_t, false>(fd, value); }
bool MediaRead_U64BE(int fd, uint64_t& value) { return readInteger<uint64_t, true>(fd, value); }

int64_t MediaSeek(int fd, int64_t offset, int whence) {
  ReadWindow* window = activeWindow && activeWindow->fd == fd ? activeWindow : nullptr;
  int64_t target = offset;
  if (window && whence == SEEK_CUR) {
    window = windowFor(fd);
    if (window && __builtin_add_overflow(window->position, offset, &target)) return -1;
  }
  if (!window || (whence != SEEK_SET && whence != SEEK_CUR)) {
    const int64_t position = static_cast<int64_t>(::lseek(fd, static_cast<off_t>(offset), whence));
    if (window && position >= 0) {
      window->position = position;
      window->positioned = true;
    }
    return position;
  }
  if (target < 0) return -1;
  window->position = target;
  window->positioned = true;
  return target;
}

bool MediaRead_At(int fd, int64_t position, void* buffer, size_t count) {
  return MediaSeek(fd, position, SEEK_SET) == position && MediaRead_Bytes(fd, buffer, count);
}

uint32_t MediaBits_Get(const uint8_t* buffer, uint32_t position, unsigned count) {
  uint32_t result = 0;
  for (unsigned i = 0; i < count && i < 32; ++i, ++position) {
    unsigned bit = (buffer[position >> 3] >> (7 - (position & 7))) & 1u;
    result = (result << 1) | bit;
  }
  return result;
}

int32_t MediaBits_GetSigned(const uint8_t* buffer, uint32_t position, unsigned count) {
  if (count == 0) return 0;
  if (count > 32) count = 32;
  uint32_t raw = MediaBits_Get(buffer, position, count);
  if (count < 32 && (raw & (1u << (count - 1)))) raw |= ~((1u << count) - 1);
  return static_cast<int32_t>(raw);
}

void MediaBits_Put(uint8_t* buffer, uint32_t position, unsigned count, uint32_t value) {
  if (count > 32) count = 32;
  for (unsigned i = 0; i < count; ++i, ++position) {
    unsigned bit = (value >> (count - 1 - i)) & 1u;
    uint8_t mask = static_cast<uint8_t>(0x80u >> (position & 7));
    if (bit) buffer[position >> 3] |= mask;
    else buffer[position >> 3] &= static_cast<uint8_t>(~mask);
  }
}

// The reserve is one anonymous mapping: given back with munmap, its
// address space is at once there for the heap and for thread stacks alike.
#include "base/MemoryReserve.h"

#include <sys/mman.h>

#include <atomic>
#include <mutex>
#include <new>

namespace {

std::mutex reserveMutex;
void* reserve = nullptr;
std::atomic<bool> shortOfMemory{false};

// The allocation that failed is retried after the reserve is back in the
// pool; with nothing left to give, it fails for good.
void giveReserveBack() {
  if (!MemoryReserve_Release()) throw std::bad_alloc();
}

}  // namespace

bool MemoryReserve_Take() {
  std::lock_guard lock(reserveMutex);
  std::set_new_handler(giveReserveBack);
  if (reserve) return true;
  void* block = ::mmap(nullptr, MemoryReserve_Bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) return false;
  reserve = block;
  shortOfMemory = false;
  return true;
}

bool MemoryReserve_Release() {
  std::lock_guard lock(reserveMutex);
  if (!reserve) return false;
  ::munmap(reserve, MemoryReserve_Bytes);
  reserve = nullptr;
  shortOfMemory = true;
  return true;
}

bool MemoryReserve_Short() { return shortOfMemory; }

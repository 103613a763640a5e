// The reserve is one anonymous mapping: spent with munmap, its
// address space is at once there for the heap and for thread stacks alike.
#include "base/MemoryReserve.h"

#include <sys/mman.h>

#include <atomic>
#include <mutex>
#include <new>

namespace {

// Guards `reserve` and `handlerInstalled`; `shortOfMemory` is read without it.
std::mutex reserveMutex;
void* reserve = nullptr;
bool handlerInstalled = false;
std::atomic<bool> shortOfMemory{false};

// The allocation that failed is retried after the reserve is spent; with
// nothing left to spend, it fails for good.
void spendReserve() {
  if (!MemoryReserve_Spend()) throw std::bad_alloc();
}

}  // namespace

bool MemoryReserve_SetAside() {
  std::lock_guard lock(reserveMutex);
  if (!handlerInstalled) {
    std::set_new_handler(spendReserve);
    handlerInstalled = true;
  }
  if (reserve) return true;
  void* block = ::mmap(nullptr, MemoryReserve_Bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) return false;
  reserve = block;
  shortOfMemory = false;
  return true;
}

bool MemoryReserve_Spend() {
  std::lock_guard lock(reserveMutex);
  if (!reserve) return false;
  ::munmap(reserve, MemoryReserve_Bytes);
  reserve = nullptr;
  shortOfMemory = true;
  return true;
}

bool MemoryReserve_Short() { return shortOfMemory; }

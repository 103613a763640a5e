// The allocator of the failure-injection build: it replaces the global
// operator new and delete of every executable it is linked into, numbers
// each allocation from 1 on, and fails the one given in DMS_ALLOC_FAIL (with
// DMS_ALLOC_FAIL_MODE=after, that one and every later one, until the process
// gets SIGUSR1). A failed allocation fails as on a machine out of memory: the
// new-handler runs between its attempts, and every attempt fails.
// DMS_ALLOC_COUNT names a file that receives the number of allocations made
// when the process exits; DMS_ALLOC_TRACE prints the stack of each failure.
// Memory comes from malloc, so the sanitizers still watch every block.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

std::atomic<unsigned long long> allocations{0};
std::atomic<bool> healed{false};

struct Settings {
  unsigned long long failAt = 0;  // 0: never
  bool failAfter = false;
  bool trace = false;
  const char* countFile = nullptr;

  Settings() {
    if (const char* at = std::getenv("DMS_ALLOC_FAIL")) failAt = std::strtoull(at, nullptr, 10);
    const char* mode = std::getenv("DMS_ALLOC_FAIL_MODE");
    failAfter = mode && std::strcmp(mode, "after") == 0;
    trace = std::getenv("DMS_ALLOC_TRACE") != nullptr;
    countFile = std::getenv("DMS_ALLOC_COUNT");
    std::signal(SIGUSR1, [](int) { healed = true; });
  }
  // At exit; stdio takes its memory from malloc, which is not counted.
  ~Settings() {
    if (FILE* file = countFile ? std::fopen(countFile, "w") : nullptr) {
      std::fprintf(file, "%llu\n", allocations.load());
      std::fclose(file);
    }
  }
};

// Read on the first allocation, which comes before main.
const Settings& settings() {
  static const Settings read;
  return read;
}

bool failing() {
  const Settings& s = settings();
  const unsigned long long number = ++allocations;
  const bool fail = s.failAt != 0 && !healed && (s.failAfter ? number >= s.failAt : number == s.failAt);
#if defined(__SANITIZE_ADDRESS__)
  if (fail && s.trace) {
    std::fprintf(stderr, "allocation %llu fails:\n", number);
    __sanitizer_print_stack_trace();
  }
#endif
  return fail;
}

void* allocate(std::size_t size) {
  const bool fail = failing();
  for (;;) {
    if (void* block = fail ? nullptr : std::malloc(size ? size : 1)) return block;
    std::new_handler handler = std::get_new_handler();
    if (!handler) throw std::bad_alloc();
    handler();
  }
}

void* allocateOrNull(std::size_t size) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocateOrNull(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocateOrNull(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

#include "memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <string_view>

namespace {

std::atomic<std::size_t> g_in_use = 0;

void* TakeOrNull(std::size_t size) noexcept {
  void* const taken = std::malloc(size == 0 ? 1 : size);
  g_in_use += malloc_usable_size(taken);  // 0 of null
  return taken;
}

void* Take(std::size_t size) {
  void* const taken = TakeOrNull(size);
  if (taken == nullptr) throw std::bad_alloc();
  return taken;
}

void Give(void* taken) noexcept {
  if (taken == nullptr) return;
  g_in_use -= malloc_usable_size(taken);
  std::free(taken);
}

// A line of what the system says of the process.
std::size_t StatusLine(std::string_view name) {
  std::ifstream file("/proc/self/status");
  std::string word;
  while (file >> word && word != name) {
  }
  std::size_t kilobytes = 0;
  file >> kilobytes;
  return kilobytes * 1024;
}

// Bytes of private memory that the process has mapped, which is what the limit is about.
std::size_t MappedData() { return StatusLine("VmData:"); }

}  // namespace

void* operator new(std::size_t size) { return Take(size); }
void* operator new[](std::size_t size) { return Take(size); }
// Sanitizers have ones of their own, which do not ask those above.
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return TakeOrNull(size); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return TakeOrNull(size); }
void operator delete(void* taken) noexcept { Give(taken); }
void operator delete[](void* taken) noexcept { Give(taken); }
void operator delete(void* taken, std::size_t) noexcept { Give(taken); }
void operator delete[](void* taken, std::size_t) noexcept { Give(taken); }

namespace sagleme_soak {

std::size_t BytesInUse() { return g_in_use; }
std::size_t ResidentBytes() { return StatusLine("RssAnon:"); }

std::uint64_t FromEnvironment(char const* name, std::uint64_t otherwise) {
  char const* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

MemoryLimit::MemoryLimit(std::size_t more) {
  getrlimit(RLIMIT_DATA, &before_);
  rlimit const limit{MappedData() + more, before_.rlim_max};
  setrlimit(RLIMIT_DATA, &limit);
}

MemoryLimit::~MemoryLimit() { setrlimit(RLIMIT_DATA, &before_); }

}  // namespace sagleme_soak

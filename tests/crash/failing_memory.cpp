#include "crash/failing_memory.h"

#include <cstdlib>
#include <new>

namespace failing_memory {
namespace {

thread_local int until_failure = 0;
thread_local bool failed = false;

void* Allocate(std::size_t size) noexcept {
  if (until_failure > 0 && --until_failure == 0) {
    failed = true;
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void FailNth(int nth) {
  until_failure = nth;
  failed = false;
}

bool Failed() { return failed; }

}  // namespace failing_memory

#define FOR_ALL __attribute__((visibility("default")))

FOR_ALL void* operator new(std::size_t size) { return failing_memory::AllocateOrThrow(size); }
FOR_ALL void* operator new[](std::size_t size) { return failing_memory::AllocateOrThrow(size); }
FOR_ALL void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  return failing_memory::Allocate(size);
}
FOR_ALL void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return failing_memory::Allocate(size);
}
FOR_ALL void operator delete(void* memory) noexcept { std::free(memory); }
FOR_ALL void operator delete[](void* memory) noexcept { std::free(memory); }
FOR_ALL void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
FOR_ALL void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
FOR_ALL void operator delete(void* memory, std::nothrow_t const&) noexcept { std::free(memory); }
FOR_ALL void operator delete[](void* memory, std::nothrow_t const&) noexcept { std::free(memory); }

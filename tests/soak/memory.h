#ifndef SAGLEME_TESTS_SOAK_MEMORY_H
#define SAGLEME_TESTS_SOAK_MEMORY_H

// How much memory the process has taken by operator new, which this executable replaces, and not
// given back. Any thread.

#include <sys/resource.h>

#include <cstddef>
#include <cstdint>

namespace sagleme_soak {

std::size_t BytesInUse();
// Resident private memory of the process.
std::size_t ResidentBytes();

// A number from the environment, `otherwise` when there is none.
std::uint64_t FromEnvironment(char const* name, std::uint64_t otherwise);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kLimitsWork = false;  // a sanitizer's own memory counts too
#else
inline constexpr bool kLimitsWork = true;
#endif

// As long as it lives the process may not take more than `more` bytes in addition to what it has.
class MemoryLimit {
 public:
  explicit MemoryLimit(std::size_t more);
  ~MemoryLimit();
  MemoryLimit(MemoryLimit const&) = delete;
  MemoryLimit& operator=(MemoryLimit const&) = delete;

 private:
  rlimit before_{};
};

}  // namespace sagleme_soak

#endif

#ifndef SAGLEME_SRC_FRAME_KERNEL_HOST_H
#define SAGLEME_SRC_FRAME_KERNEL_HOST_H

// What the layer asks of a kernel beyond the contract, bound weakly: a kernel need not have it.
// <lscoredb/host.h> of the embedded kernel describes the functions.

#include <cstdint>

extern "C" {
using lscoredb_release_callback = void (*)(void* value);

[[gnu::weak]] uint32_t lscoredb_attach(uint64_t context, void const* key, void* value,
                                       lscoredb_release_callback release, void** out);
[[gnu::weak]] uint32_t lscoredb_attached(uint64_t context, void const* key, void** out);
[[gnu::weak]] uint32_t lscoredb_context_attach(uint64_t context, void const* key, void* value,
                                               lscoredb_release_callback release, void** out);
[[gnu::weak]] uint32_t lscoredb_context_attached(uint64_t context, void const* key, void** out);
[[gnu::weak]] uint32_t lscoredb_close_set(uint64_t context, char16_t const* setspec,
                                          uint32_t flags);
}

namespace metalayer {

// Whether the kernel distinguishes databases.
inline bool KernelKeepsStates() {
  return lscoredb_attach != nullptr && lscoredb_attached != nullptr &&
         lscoredb_context_attach != nullptr && lscoredb_context_attached != nullptr;
}

// As lscoredb_close_set: the commit fails if an object entered the set since.
inline constexpr uint32_t kCloseEmpty = 1;

}  // namespace metalayer

#endif

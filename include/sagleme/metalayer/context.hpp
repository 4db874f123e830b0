#ifndef SAGLEME_METALAYER_CONTEXT_HPP
#define SAGLEME_METALAYER_CONTEXT_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The context of the calling thread, and the stop for what must never be.

#include <lscoredb/lscoredb.h>
#include <sagleme/export.h>

namespace metalayer {

// The kernel context in which the thread's code works; 0 in a thread that never entered a frame.
// Every exported function with a frame sets it for the duration of the call and then restores the
// previous one. A C++ host that calls functions of this namespace directly sets it itself.
class SAGLEME_API TlsMetalayerContext {
 public:
  static unsigned long* Current();

 private:
  static constinit thread_local unsigned long tls_metactx_;
};

// The catalogue contradicts its own definition. Ends the process.
[[noreturn]] SAGLEME_API void FatalError();

}  // namespace metalayer

#endif

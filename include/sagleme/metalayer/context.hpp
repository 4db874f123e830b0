#ifndef SAGLEME_METALAYER_CONTEXT_HPP
#define SAGLEME_METALAYER_CONTEXT_HPP

// The context of the calling thread, and the stops for what must never be.

#include <lscoredb/lscoredb.h>
#include <sagleme/export.h>

namespace metalayer {

// The kernel context that the thread's code works in: 0 in a thread that never entered a frame.
// Every exported function that has a frame stores its context here for the time of the call and
// puts the one it found back. A C++ host that calls functions of this namespace directly sets it
// itself.
class SAGLEME_API TlsMetalayerContext {
 public:
  static unsigned long* Current();

 private:
  static constinit thread_local unsigned long tls_metactx_;
};

// A catalogue that contradicts its own definition. Ends the process.
[[noreturn]] SAGLEME_API void FatalError();

}  // namespace metalayer

extern "C" {
// Emergency stops: each calls abort, whatever it is given.
[[noreturn]] void raise_unexpected_except(unsigned int code);
[[noreturn]] void raise_assertion_failure_except();
[[noreturn]] void raise_assertion_failure_except_with_data(void const* data);
[[noreturn]] void raise_no_memory_except();
[[noreturn]] void raise_unhandled_except();
}

#endif

#ifndef SAGLEME_SRC_FRAME_FRAME_H
#define SAGLEME_SRC_FRAME_FRAME_H

// The frame of the exported functions: the way from a context argument and a status to thread-local
// context and exceptions, and back.
//
// A frame puts the context it found back on every way out, also for exceptions that it does not
// translate. It takes no transaction, retries nothing and frees nothing that the body handed out.

#include <sagleme/metalayer/errors.hpp>
#include <utility>

namespace metalayer {

// Makes `context` the thread's context for the length of a scope.
class ContextScope {
 public:
  explicit ContextScope(unsigned long context)
      : saved_(std::exchange(*TlsMetalayerContext::Current(), context)) {}
  ContextScope(ContextScope const&) = delete;
  ContextScope& operator=(ContextScope const&) = delete;
  ~ContextScope() { *TlsMetalayerContext::Current() = saved_; }

 private:
  unsigned long const saved_;
};

// Runs `body` in `context` and returns 0, or the code of the db_exception that it threw; any other
// exception goes on to the caller.
//
// Eager: the context's error buffer is emptied now, and the old context is back before a failure's
// code is read. For calls that are rare. Lazy: the buffer is emptied by the next write to it, if
// there is one; no lock is taken. For calls made once an object.
template <bool Eager, typename F>
unsigned int MetalayerFunction(unsigned long const& context, F&& body) {
  if constexpr (Eager) {
    try {
      ContextScope const scope(context);
      clean_errbuf_by_ctx(context);
      body();
      return 0;
    } catch (...) {
      return db_util::db_exception::rethrow_and_get_error_code();
    }
  } else {
    ContextScope const scope(context);
    request_clear_errbuf();
    try {
      body();
      return 0;
    } catch (...) {
      return db_util::db_exception::rethrow_and_get_error_code();
    }
  }
}

}  // namespace metalayer

#endif

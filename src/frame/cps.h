#ifndef SAGLEME_SRC_FRAME_CPS_H
#define SAGLEME_SRC_FRAME_CPS_H

// Resumable computations behind a handle that C code can hold.
//
// A continuation works in the context that its thread was in when the body stopped first, and keeps
// the layer's state of that context's database. Between two legs the context stays the thread's; a
// leg that begins in a context of another database is refused, and the computation can go on later.
//
// The body runs on a stack of its own, up to its first yield while the handle is made, then one leg
// per run_continuation. All of it belongs to the thread that made the handle. It ends when the body
// returns or throws, or when the last handle is freed, which unwinds the body where it is
// suspended.

#include <sagleme/sagleme.h>

// The coroutine library is the older of two, and says so at every inclusion.
#ifndef BOOST_COROUTINES_NO_DEPRECATION_WARNING
#define BOOST_COROUTINES_NO_DEPRECATION_WARNING
#endif
#ifndef BOOST_ALLOW_DEPRECATED_HEADERS
#define BOOST_ALLOW_DEPRECATED_HEADERS
#endif
#include <boost/coroutine/asymmetric_coroutine.hpp>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

#include "frame/database_state.h"
#include "frame/stack_switch.h"

struct continuation_context {
  class continuation_context_impl;

  // Shared: each step of a computation has a handle of its own.
  std::shared_ptr<continuation_context_impl> impl;
};

// A coroutine and the value that it stopped at; no value before the first step and after the last
// one.
class continuation_context::continuation_context_impl {
 public:
  using Coroutine = boost::coroutines::pull_coroutine<unsigned int>;
  using Body = std::function<void(boost::coroutines::push_coroutine<unsigned int>&)>;

  explicit continuation_context_impl(Body const& body);
  ~continuation_context_impl();

 private:
  friend unsigned int run_continuation_impl(continuation_context_impl& impl, bool* finished);

  void Start(Body const& body);
  void Resume();
  void PassOnFailure();
  bool InItsDatabase() const;

  std::shared_ptr<metalayer::DatabaseState> database_;
  metalayer::CoroutineStack stack_;
  std::exception_ptr failure_;  // what left the body and has not been thrown on yet
  std::optional<Coroutine> coroutine_;
  Coroutine::iterator value_;
};

// One leg. `*finished`: the body is through, and the result is 0. What the body threw is thrown
// here. LORV_STATUS_FOREIGN_DATABASE, with a text: no leg was run.
unsigned int run_continuation_impl(continuation_context::continuation_context_impl& impl,
                                   bool* finished);

namespace metalayer {

// Runs `body` up to its first yield and returns the handle of what is left. The value 0 asks to be
// resumed; any other is a status and the last value. Throws std::bad_alloc when there is no stack.
SAGLEME_API continuation_context* create_continuation_handle(
    std::function<void(boost::coroutines::push_coroutine<unsigned int>&)> const& body);

}  // namespace metalayer

#endif

#include "frame/cps.h"

#include <sagleme/metalayer/errors.hpp>
#include <utility>

using boost::coroutines::push_coroutine;
using boost::coroutines::stack_traits;
using metalayer::CoroutineStack;
using metalayer::StackSwitch;
using Impl = continuation_context::continuation_context_impl;

namespace {

// Four times the usual 64 KiB of a coroutine: a kernel and the libraries below it run on this
// stack, which has no guard page. Pages that are never touched cost nothing.
constexpr std::size_t kStackSize = 256 * 1024;

std::size_t StackSize() {
  bool const fits = stack_traits::is_unbounded() || stack_traits::maximum_size() >= kStackSize;
  return fits ? kStackSize : stack_traits::maximum_size();
}

// The coroutine library's allocator: lends it a stack that stays with its owner.
struct StackLoan {
  void allocate(boost::coroutines::stack_context& context, std::size_t) {
    context.sp = stack->top();
    context.size = stack->size();
  }
  void deallocate(boost::coroutines::stack_context&) {}

  CoroutineStack const* stack;
};

}  // namespace

Impl::continuation_context_impl(Body const& body) : stack_(StackSize()) {
  Start(body);
  database_ = metalayer::DatabaseState::Share(*metalayer::TlsMetalayerContext::Current());
  PassOnFailure();
}

// A body that is still suspended is unwound.
Impl::~continuation_context_impl() {
  StackSwitch const there_and_back(stack_);
  coroutine_.reset();
}

// A coroutine that is still being made when its body throws would never be destroyed. So the body's
// exception is kept aside until there is an owner.
void Impl::Start(Body const& body) {
  StackSwitch const there_and_back(stack_);
  coroutine_.emplace(
      [this, body](push_coroutine<unsigned int>& yield) {
        try {
          body(yield);
        } catch (boost::coroutines::detail::forced_unwind const&) {
          throw;
        } catch (...) {
          failure_ = std::current_exception();
        }
      },
      boost::coroutines::attributes(stack_.size()), StackLoan{&stack_});
}

void Impl::Resume() {
  StackSwitch const there_and_back(stack_);
  ++value_;
}

bool Impl::InItsDatabase() const {
  unsigned long const context = *metalayer::TlsMetalayerContext::Current();
  return &metalayer::DatabaseState::Of(context) == database_.get();
}

void Impl::PassOnFailure() {
  if (failure_ != nullptr) std::rethrow_exception(std::exchange(failure_, nullptr));
}

namespace metalayer {
namespace {

unsigned int RefuseForeignLeg() {
  request_clear_errbuf();
  ucs2_stream<ErrBlt>() << u"The thread is in a context of another database than this continuation "
                           u"works in. Run or free the one that was begun last.";
  return LORV_STATUS_FOREIGN_DATABASE;
}

}  // namespace
}  // namespace metalayer

unsigned int run_continuation_impl(Impl& impl, bool* finished) {
  // Without a value there is nothing to continue: the first leg already ran, or all of it is over.
  bool const stopped_at_value = impl.value_ != Impl::Coroutine::iterator();
  if (stopped_at_value && *impl.coroutine_) {
    if (!impl.InItsDatabase()) return metalayer::RefuseForeignLeg();
    impl.Resume();
  } else {
    impl.value_ = boost::coroutines::begin(*impl.coroutine_);
  }
  impl.PassOnFailure();
  *finished = impl.value_ == Impl::Coroutine::iterator();
  return *finished ? 0 : *impl.value_;
}

continuation_context* metalayer::create_continuation_handle(Impl::Body const& body) {
  return std::make_unique<continuation_context>(continuation_context{std::make_shared<Impl>(body)})
      .release();
}

uint32_t run_continuation(continuation_context* handle, continuation_context** next, bool* more) {
  bool finished = false;
  *more = false;
  *next = nullptr;
  unsigned int const status = run_continuation_impl(*handle->impl, &finished);
  if (status == 0 && !finished) {
    *next = std::make_unique<continuation_context>(*handle).release();
    *more = true;
  }
  return status;
}

void free_continuation_handle(continuation_context* handle) {
  std::unique_ptr<continuation_context> const last_use(handle);
}

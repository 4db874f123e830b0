#ifndef SAGLEME_SRC_FRAME_STACK_SWITCH_H
#define SAGLEME_SRC_FRAME_STACK_SWITCH_H

// The memory of a coroutine's stack, and its announcement to tools that watch stacks.

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define SAGLEME_WATCHED_STACKS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SAGLEME_WATCHED_STACKS
#endif
#endif

#ifdef SAGLEME_WATCHED_STACKS
#include <sanitizer/common_interface_defs.h>
#endif

namespace metalayer {

// Memory for one stack. Throws std::bad_alloc when there is none.
class CoroutineStack {
 public:
  explicit CoroutineStack(std::size_t size) : bottom_(std::malloc(size)), size_(size) {
    if (bottom_ == nullptr) throw std::bad_alloc();
  }

  void* bottom() const { return bottom_.get(); }
  void* top() const { return static_cast<char*>(bottom_.get()) + size_; }
  std::size_t size() const { return size_; }

 private:
  struct Freer {
    void operator()(void* memory) const { std::free(memory); }
  };

  std::unique_ptr<void, Freer> bottom_;
  std::size_t size_;
};

// Spans the time that the thread spends on another stack, seen from the one that it comes back to.
class StackSwitch {
 public:
#ifdef SAGLEME_WATCHED_STACKS
  explicit StackSwitch(CoroutineStack const& to) {
    __sanitizer_start_switch_fiber(&fake_stack_, to.bottom(), to.size());
  }
  // The way back has no announcement of its own, so the switch is completed and reversed here.
  ~StackSwitch() {
    void const* bottom = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(fake_stack_, &bottom, &size);
    __sanitizer_start_switch_fiber(&fake_stack_, bottom, size);
    __sanitizer_finish_switch_fiber(fake_stack_, nullptr, nullptr);
  }
#else
  explicit StackSwitch(CoroutineStack const&) {}
  ~StackSwitch() = default;
#endif
  StackSwitch(StackSwitch const&) = delete;
  StackSwitch& operator=(StackSwitch const&) = delete;

 private:
#ifdef SAGLEME_WATCHED_STACKS
  void* fake_stack_ = nullptr;
#endif
};

}  // namespace metalayer

#endif

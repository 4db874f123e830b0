#ifndef SAGLEME_TOOL_BASE_INTERRUPT_H
#define SAGLEME_TOOL_BASE_INTERRUPT_H

// Ctrl-C as an exception, for programs that outlive it.
//
// Outside the scope of an InterruptGuard, Ctrl-C ends the process as usual. Inside, it sets a flag
// that long work checks between two objects.

#include <csignal>
#include <exception>

namespace tool {

class Interrupted : public std::exception {
 public:
  char const* what() const noexcept override { return "interrupted"; }
};

class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(InterruptGuard const&) = delete;
  InterruptGuard& operator=(InterruptGuard const&) = delete;

 private:
  struct sigaction previous_ {};
};

bool InterruptPending();
// Returns whether one is pending, and forgets it.
bool TakeInterrupt();
// Waits until the file has data or has ended. False if Ctrl-C came first, or if `output` is given
// and nobody reads it any more.
bool WaitForInput(int file, int output = -1);
// Throws Interrupted if one is pending. It stays pending until it is taken.
void CheckInterrupt();

}  // namespace tool

#endif

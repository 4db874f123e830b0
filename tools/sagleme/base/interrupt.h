#ifndef SAGLEME_TOOL_BASE_INTERRUPT_H
#define SAGLEME_TOOL_BASE_INTERRUPT_H

// Ctrl-C as an exception, for programs that outlive it.
//
// Outside of the scope of an InterruptGuard Ctrl-C ends the process, as it does everywhere. Inside
// it sets a flag, which long work looks at between two objects.

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
// Tells whether one is pending and forgets it.
bool TakeInterrupt();
// Waits until the standard input has something to read, or has ended. False when Ctrl-C came first.
bool WaitForInput();
// Throws Interrupted when one is pending, which it stays until it is taken.
void CheckInterrupt();

}  // namespace tool

#endif

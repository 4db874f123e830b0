#include "base/interrupt.h"

#include <poll.h>
#include <unistd.h>

#include <array>

namespace tool {
namespace {

volatile std::sig_atomic_t pending = 0;

void Note(int) { pending = 1; }

}  // namespace

InterruptGuard::InterruptGuard() {
  struct sigaction action {};
  action.sa_handler = Note;
  action.sa_flags = SA_RESTART;  // the database's own reads and writes know nothing of this
  sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() { sigaction(SIGINT, &previous_, nullptr); }

bool InterruptPending() { return pending != 0; }

bool TakeInterrupt() {
  bool const taken = pending != 0;
  pending = 0;
  return taken;
}

// The signal is unblocked only while the process waits, so none is missed between the check and the
// wait.
bool WaitForInput(int file, int output) {
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigprocmask(SIG_BLOCK, &interrupt, &before);
  std::array<pollfd, 2> files{{{file, POLLIN, 0}, {output, 0, 0}}};
  while (!InterruptPending() && ppoll(files.data(), files.size(), nullptr, &before) < 0) {
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return !InterruptPending() && files[1].revents == 0;
}

void CheckInterrupt() {
  if (InterruptPending()) throw Interrupted();
}

}  // namespace tool

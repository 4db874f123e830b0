#include "cli/interrupt.h"

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

void CheckInterrupt() {
  if (InterruptPending()) throw Interrupted();
}

}  // namespace tool

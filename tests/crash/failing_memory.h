#ifndef SAGLEME_TESTS_CRASH_FAILING_MEMORY_H
#define SAGLEME_TESTS_CRASH_FAILING_MEMORY_H

// Memory that runs out on demand: the executable's operators new serve the libraries too.
// Each thread has its own count.

namespace failing_memory {

// The nth request from now on is refused, and no other. 0: none is.
void FailNth(int nth);
// Whether a request was refused since.
bool Failed();

}  // namespace failing_memory

#endif

#ifndef SAGLEME_TESTS_CRASH_ROUNDS_H
#define SAGLEME_TESTS_CRASH_ROUNDS_H

// How often a test that draws its cases at random repeats them.

#include <algorithm>
#include <cstdlib>

namespace crash_test {

// SAGLEME_CRASH_ROUNDS says it for runs of hours.
inline int Rounds(int usual, [[maybe_unused]] int under_sanitizers) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  usual = under_sanitizers;
#endif
  char const* const wanted = std::getenv("SAGLEME_CRASH_ROUNDS");
  return wanted == nullptr ? usual : std::max(1, std::atoi(wanted));
}

}  // namespace crash_test

#endif

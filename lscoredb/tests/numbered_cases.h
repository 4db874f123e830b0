#ifndef LSCOREDB_TESTS_NUMBERED_CASES_H
#define LSCOREDB_TESTS_NUMBERED_CASES_H

// Cases that follow from their numbers alone. SAGLEME_DAMAGE_CASES says how many of them a test
// tries, SAGLEME_DAMAGE_FIRST which is the first.

#include <cstdint>
#include <cstdlib>

namespace lscoredb_test {

inline std::uint64_t NumberFrom(char const* variable, std::uint64_t otherwise) {
  char const* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

template <typename Try>
void ForEachCase(std::uint64_t usual, Try&& try_case) {
  std::uint64_t const first = NumberFrom("SAGLEME_DAMAGE_FIRST", 1);
  std::uint64_t const count = NumberFrom("SAGLEME_DAMAGE_CASES", usual);
  for (std::uint64_t number = first; number < first + count; ++number) try_case(number);
}

}  // namespace lscoredb_test

#endif

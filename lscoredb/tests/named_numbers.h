#ifndef LSCOREDB_TESTS_NAMED_NUMBERS_H
#define LSCOREDB_TESTS_NAMED_NUMBERS_H

// A table of numbers with names, for tests of indexes.

#include "kernel_test.h"

namespace lscoredb_test {

inline constexpr std::uint32_t kNumber = 2;
inline constexpr std::uint32_t kName = 3;
inline constexpr std::uint64_t kNumberToken = 100;
inline constexpr std::uint64_t kNameToken = 101;

inline LayoutId CreateNamedNumbers(Session& session) {
  return session.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, kNameToken}});
}

// With an index over the number and a unique one over the name; a transaction is open.
class NamedNumbersTest : public KernelTest {
 protected:
  NamedNumbersTest() {
    session_.Begin();
    layout_ = CreateNamedNumbers(session_);
    by_number_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    by_name_ = session_.CreateIndex(61, kSet, {{LORV_TYPE_STRING, kNameToken}}, kUnique);
  }

  LayoutId layout_ = 0;
  IndexId by_number_ = 0;
  IndexId by_name_ = 0;
};

}  // namespace lscoredb_test

#endif

#include "access/c_host.h"

#include <gtest/gtest.h>
#include <sagleme/statuses.h>

#include <string>

namespace {

TEST(CHostTest, Version_IsKnownWithoutADatabase) { EXPECT_EQ(9u, c_host_version()); }

TEST(CHostTest, Failure_GivesAStatusAndAText) {
  constexpr unsigned long kContext = 4711;
  char16_t text[64];
  EXPECT_EQ(SAGLEME_BAD_ARGUMENT, c_host_create_table_without_name(kContext));
  EXPECT_EQ(0, c_host_reads_message(kContext, text, 64));
  EXPECT_EQ(u"Argument name is null.", std::u16string(text));
}

TEST(CHostTest, NullContinuation_MayBeFreed) { c_host_frees_nothing(); }

}  // namespace

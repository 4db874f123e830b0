#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <sagleme/metalayer/keys.hpp>

#include "support/recording_kernel.h"

namespace {

std::atomic<bool> no_memory{false};

}  // namespace

// The library's request for memory that may be refused comes here, since an executable's operators
// replace the standard ones.
__attribute__((visibility("default"))) void* operator new[](std::size_t size,
                                                            std::nothrow_t const&) noexcept {
  if (no_memory) return nullptr;
  return ::operator new[](size);
}

namespace {

TEST(KeysWithoutMemory, LongText_IsRefusedAsOutOfMemory) {
  recording_kernel::Reset();
  std::u16string const name(300, u'n');
  alignas(8) unsigned char buffer[1024];
  no_memory = true;
  unsigned int code = 0;
  try {
    metalayer::Key(buffer).Text(name.c_str());
  } catch (db_util::db_exception const& failure) {
    code = failure.code();
  }
  no_memory = false;
  EXPECT_EQ(1003u, code);
}

TEST(KeysWithoutMemory, ShortText_NeedsNone) {
  recording_kernel::Reset();
  alignas(8) unsigned char buffer[1024];
  no_memory = true;
  metalayer::Key(buffer).Text(u"short");
  no_memory = false;
  EXPECT_EQ(0x25, buffer[0]);
}

}  // namespace

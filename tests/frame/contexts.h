#ifndef SAGLEME_TESTS_FRAME_CONTEXTS_H
#define SAGLEME_TESTS_FRAME_CONTEXTS_H

// Two contexts: the one that a thread is in, and the one that it calls the layer with.

#include <gtest/gtest.h>
#include <sagleme/sagleme.h>

#include <cstdint>
#include <sagleme/metalayer/errors.hpp>
#include <string>

#include "support/recording_kernel.h"

namespace frame_test {

inline constexpr uint64_t kOuter = 5;
inline constexpr uint64_t kInner = 6;

inline unsigned long Current() { return *metalayer::TlsMetalayerContext::Current(); }

inline std::u16string TextOf(uint64_t context) {
  char16_t const* const text = lorv_metalayer_errbuf(context);
  return text == nullptr ? u"(null)" : text;
}

class ContextsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = kOuter;
    metalayer::clean_errbuf_by_ctx(kOuter);
    metalayer::clean_errbuf_by_ctx(kInner);
    metalayer::is_errbuf_clear_requested();
  }
  void TearDown() override {
    *metalayer::TlsMetalayerContext::Current() = 0;
    recording_kernel::Reset();
  }
};

}  // namespace frame_test

#endif

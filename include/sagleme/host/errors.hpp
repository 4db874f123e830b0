#ifndef SAGLEME_HOST_ERRORS_HPP
#define SAGLEME_HOST_ERRORS_HPP

// Failures as exceptions that carry the status and the text.

#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#include <sagleme/host/text.hpp>
#include <sagleme/metalayer.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace sagleme {

class Error : public std::runtime_error {
 public:
  Error(std::uint32_t status, std::string const& text)
      : std::runtime_error(text), status_(status) {}

  std::uint32_t status() const { return status_; }
  // The text as the library wrote it.
  std::u16string text() const { return ToUtf16(what()); }

 private:
  std::uint32_t status_;
};

namespace detail {

// A non-zero status of the kernel, which has one sentence for each.
inline void CheckKernel(std::uint32_t status) {
  if (status != 0) throw Error(status, lscoredb_status_text(status));
}

// A non-zero status of the metadata layer. Its text, where the layer wrote one, is taken out of the
// buffer, so that a later failure without a text of its own does not show it again.
[[noreturn]] inline void ThrowLayer(std::uint64_t context, std::uint32_t status) {
  char16_t const* const buffer = lorv_metalayer_errbuf(context);
  std::string text = buffer == nullptr ? "" : ToUtf8(buffer);
  metalayer::clean_errbuf_by_ctx(context);
  if (text.empty()) text = lscoredb_status_text(status);
  throw Error(status, text);
}

inline void CheckLayer(std::uint64_t context, std::uint32_t status) {
  if (status != 0) ThrowLayer(context, status);
}

// The thread's context for as long as the object lives. Every function here that calls the layer's
// C++ stands in one, so hosts may mix contexts on one thread.
class Enter {
 public:
  explicit Enter(std::uint64_t context) : saved_(*metalayer::TlsMetalayerContext::Current()) {
    *metalayer::TlsMetalayerContext::Current() = context;
  }
  ~Enter() { *metalayer::TlsMetalayerContext::Current() = saved_; }
  Enter(Enter const&) = delete;
  Enter& operator=(Enter const&) = delete;

 private:
  unsigned long saved_;
};

// Runs code on the layer's C++ in a context, with its failures as Error.
template <typename Work>
auto Inside(std::uint64_t context, Work&& work) {
  Enter const enter(context);
  try {
    return std::forward<Work>(work)();
  } catch (db_util::db_exception const& failure) {
    ThrowLayer(context, failure.code());
  }
}

}  // namespace detail
}  // namespace sagleme

#endif

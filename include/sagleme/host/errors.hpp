#ifndef SAGLEME_HOST_ERRORS_HPP
#define SAGLEME_HOST_ERRORS_HPP

// Failures as exceptions that carry the status and the text.

#include <lscoredb/host.h>
#include <sagleme/export.h>
#include <sagleme/sagleme.h>

#include <sagleme/host/text.hpp>
#include <sagleme/metalayer.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace sagleme {

class SAGLEME_EXCEPTION Error : public std::runtime_error {
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

// What a status of the metadata layer means where the layer wrote no text of its own; null for
// others.
inline char const* LayerStatusText(std::uint32_t status) {
  switch (status) {
    case 1001:
      return "An argument is missing or not allowed.";
    case 1070:
      return "An iterator was not freed.";
    case 4197:
      return "A name is too long to be looked up.";
    case 4226:
      return "The type of a column is not known.";
    case 4230:
      return "There is no such table.";
    case 4280:
      return "The type of a column was dropped.";
    case 7035:
      return "The catalogue contradicts itself; sagleme check says where.";
    case 7043:
      return "The database has no catalogue yet.";
    case 15002:
      return "A column has a type that is not allowed there.";
    case 15003:
      return "There is no such table.";
    case 15007:
      return "There are more columns than a table or an index can hold.";
    case 15010:
      return "The catalogue has a version that this library cannot use.";
    case 15012:
      return "Another table refers to the table.";
    default:
      return nullptr;
  }
}

// A sentence for every status of either library.
inline char const* StatusText(std::uint32_t status) {
  char const* const text = LayerStatusText(status);
  return text == nullptr ? lscoredb_status_text(status) : text;
}

// A non-zero status of the kernel, which has one sentence for each.
inline void CheckKernel(std::uint32_t status) {
  if (status != 0) throw Error(status, StatusText(status));
}

// A non-zero status of lscoredb_open: the file that the system refused, or else the directory.
inline void CheckOpened(std::uint32_t status, std::string const& directory) {
  if (status == 0) return;
  std::string const refused = lscoredb_open_error();
  if (!refused.empty()) throw Error(status, "Cannot open " + refused);
  throw Error(status, "Cannot open the database in " + directory + ": " + StatusText(status));
}

// A non-zero status of the metadata layer. Its text, where the layer wrote one, is taken out of the
// buffer, so that a later failure without a text of its own does not show it again.
[[noreturn]] inline void ThrowLayer(std::uint64_t context, std::uint32_t status) {
  char16_t const* const buffer = lorv_metalayer_errbuf(context);
  std::string text = buffer == nullptr ? "" : ToUtf8(buffer);
  metalayer::clean_errbuf_by_ctx(context);
  if (text.empty()) text = StatusText(status);
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

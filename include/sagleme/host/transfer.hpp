#ifndef SAGLEME_HOST_TRANSFER_HPP
#define SAGLEME_HOST_TRANSFER_HPP

// Callbacks of import, export, dump and load: one receives text, the other progress. Both run on
// the thread that called. They may throw, which ends the work; the exception leaves the function
// that was called.

#include <cstdint>
#include <functional>
#include <string_view>

namespace sagleme {

// Receives the text piece by piece, in order. The view is valid during the call.
using TextSink = std::function<void(std::string_view)>;

struct TransferProgress {
  std::uint64_t objects = 0;  // so far
  // Progress in bytes or objects; `total` is 0 while it is unknown.
  std::uint64_t done = 0;
  std::uint64_t total = 0;
};

using TransferReport = std::function<void(TransferProgress const&)>;

}  // namespace sagleme

#endif

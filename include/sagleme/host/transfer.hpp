#ifndef SAGLEME_HOST_TRANSFER_HPP
#define SAGLEME_HOST_TRANSFER_HPP

// What moving data in and out of a database has in common: where text goes, and who is told how far
// the work is. Both are called on the thread that does the work, and may throw: that ends the work,
// and what they threw comes out of the function that was called.

#include <cstdint>
#include <functional>
#include <string_view>

namespace sagleme {

// Takes text in the order in which it is to stand. The view ends with the call.
using TextSink = std::function<void(std::string_view)>;

struct TransferProgress {
  std::uint64_t objects = 0;  // so far
  // How much of the whole that is, in bytes or objects; `total` is 0 while it is not known.
  std::uint64_t done = 0;
  std::uint64_t total = 0;
};

using TransferReport = std::function<void(TransferProgress const&)>;

}  // namespace sagleme

#endif

#ifndef LSCOREDB_SRC_RESULT_BUFFERS_H
#define LSCOREDB_SRC_RESULT_BUFFERS_H

// The writable copies of texts and binaries that a transaction hands out. They live until the
// innermost read scope that was open at their making, or the transaction, ends. A value that
// is asked for again is not copied again. One thread at a time.

#include <lscoredb/lscoredb.h>

#include <string_view>
#include <vector>

#include "arena.h"
#include "oid_map.h"
#include "text.h"

namespace lscore {

class ResultBuffers {
 public:
  // The bytes must stay where and what they are until Clear or ForgetSince.
  LORV_STRING* Text(PackedText text);
  LORV_BINARY* Binary(std::string_view bytes);

  // How many values were handed out that are still known.
  std::size_t made() const { return made_.size(); }
  // Whoever asks again for what was handed out behind the first `made` gets another copy; the
  // present ones stay.
  void ForgetSince(std::size_t made);

  void BeginScope();
  // Returns whether a scope was open.
  bool EndScope();
  void Clear();

 private:
  struct Scope {
    Arena::Mark mark;
    std::size_t made;
  };

  template <typename Make>
  char* FindOrMake(std::string_view bytes, Make&& make);
  void Drop(std::size_t down_to);

  Arena arena_;
  OidMap<char*> by_source_;
  std::vector<std::uint64_t> made_;  // the sources in the order of their copies
  std::vector<Scope> scopes_;
};

}  // namespace lscore

#endif

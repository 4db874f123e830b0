#ifndef LSCOREDB_SRC_RESULT_BUFFERS_H
#define LSCOREDB_SRC_RESULT_BUFFERS_H

// The writable copies of texts and binaries that a transaction returns. A copy lives until the
// innermost read scope that was open when it was made, or else the transaction, ends. Reading the
// same value again returns the same copy. One thread at a time.

#include <lscoredb/lscoredb.h>

#include <string_view>
#include <vector>

#include "arena.h"
#include "oid_map.h"
#include "text.h"

namespace lscore {

class ResultBuffers {
 public:
  // REQUIRES: the source bytes neither move nor change until Clear or ForgetSince.
  LORV_STRING* Text(PackedText text);
  LORV_BINARY* Binary(std::string_view bytes);

  // The number of values whose copies can still be found.
  std::size_t made() const { return made_.size(); }
  // Forgets the sources of all copies but the first `made`: reading such a value makes a new copy.
  // The copies themselves stay valid.
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
  std::vector<std::uint64_t> made_;  // the sources, oldest copy first
  std::vector<Scope> scopes_;
};

}  // namespace lscore

#endif

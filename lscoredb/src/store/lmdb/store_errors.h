#ifndef LSCOREDB_SRC_STORE_ERRORS_H
#define LSCOREDB_SRC_STORE_ERRORS_H

// Maps the codes of the underlying store to the kernel's statuses. For the store's own source
// files.

#include "status.h"

namespace lscore {

Status StatusOfStore(int code);

inline void CheckStore(int code) {
  if (code != 0) [[unlikely]] {
    Throw(StatusOfStore(code));
  }
}

}  // namespace lscore

#endif

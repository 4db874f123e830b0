#ifndef LSCOREDB_SRC_SYSTEM_CALL_H
#define LSCOREDB_SRC_SYSTEM_CALL_H

// Turns failed system calls into statuses.

#include <cerrno>

#include "status.h"

namespace lscore {

// That of an error number of the system.
inline Status StatusOfSystem(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return LSCOREDB_DISK_FULL;
    case ENOMEM:
      return LSCOREDB_NO_MEMORY;
    default:
      return LSCOREDB_IO_ERROR;
  }
}

[[noreturn]] inline void ThrowErrno() { Throw(StatusOfSystem(errno)); }

// Calls again after a signal. Throws if the result is -1.
template <typename Call>
auto Retry(Call const& call) {
  for (;;) {
    auto const result = call();
    if (result != -1) return result;
    if (errno != EINTR) ThrowErrno();
  }
}

}  // namespace lscore

#endif

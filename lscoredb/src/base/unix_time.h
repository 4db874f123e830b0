#ifndef LSCOREDB_SRC_UNIX_TIME_H
#define LSCOREDB_SRC_UNIX_TIME_H

#include <chrono>
#include <cstdint>

namespace lscore {

// Microseconds since 1970, by the system's clock.
inline std::uint64_t UnixMicroseconds() {
  auto const now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace lscore

#endif

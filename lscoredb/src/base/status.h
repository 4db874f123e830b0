#ifndef LSCOREDB_SRC_STATUS_H
#define LSCOREDB_SRC_STATUS_H

// Statuses inside the kernel. Expected results (a null column, no such object) are returned as a
// Status; what ends an operation (a full disk, a damaged page, a conflict) is thrown as a Failure
// and caught once in each exported function.

#include <lscoredb/host.h>

#include <cstdint>
#include <exception>
#include <new>
#include <stdexcept>

namespace lscore {

using Status = std::uint32_t;

class Failure : public std::exception {
 public:
  explicit Failure(Status status) : status_(status) {}
  Status status() const { return status_; }
  char const* what() const noexcept override;

 private:
  Status status_;
};

[[noreturn]] void Throw(Status status);

// Throws unless `status` is success.
inline void Check(Status status) {
  if (status != LORV_STATUS_OK) Throw(status);
}

// The sentence for a status; static memory.
char const* StatusText(Status status) noexcept;

// Runs `work`, which returns a Status, and turns its exceptions into one.
template <typename Work>
Status Guarded(Work&& work) noexcept {
  try {
    return work();
  } catch (Failure const& failure) {
    return failure.status();
  } catch (std::bad_alloc const&) {
    return LSCOREDB_NO_MEMORY;
  } catch (std::length_error const&) {
    return LSCOREDB_TOO_LARGE;
  } catch (std::exception const&) {
    return LSCOREDB_IO_ERROR;
  }
}

}  // namespace lscore

#endif

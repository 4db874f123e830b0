#ifndef SAGLEME_HOST_C_JOB_OPTIONS_H
#define SAGLEME_HOST_C_JOB_OPTIONS_H

// What the functions of <sagleme/jobs.h> have in common.

#include <sagleme/jobs.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sagleme/failure.hpp>
#include <sagleme/jobs.hpp>

#include "c/words.h"

struct sagleme_job_control {
  sagleme::JobControl control;
};

namespace sagleme {

// Options as the caller's version of the header has them.
inline sagleme_job_options Whole(sagleme_job_options const* given) {
  sagleme_job_options whole{};
  if (given != nullptr) std::memcpy(&whole, given, std::min(given->size, sizeof whole));
  return whole;
}

inline JobControl const* ControlOf(sagleme_job_options const& options) {
  return options.control == nullptr ? nullptr : &options.control->control;
}

inline void Require(void const* pointer) {
  if (pointer == nullptr) detail::CheckKernel(LSCOREDB_NULL_ARGUMENT);
}

inline std::uint32_t StatusOf(Failure const& failure) {
  return failure.kind() == Failure::Kind::kCannotOpen ? LSCOREDB_CANNOT_OPEN
                                                      : LSCOREDB_INVALID_ARGUMENT;
}

// Runs work that returns a status. No exception leaves it.
template <typename Work>
std::uint32_t Guarded(Work&& work) {
  try {
    std::uint32_t const status = work();
    return status == 0 ? 0 : Failed(status, detail::StatusText(status));
  } catch (Error const& error) {
    return Failed(error.status(), error.what());
  } catch (Failure const& failure) {
    std::string const advice = failure.advice().empty() ? "" : ". " + failure.advice();
    return Failed(StatusOf(failure), (failure.what() + advice).c_str());
  } catch (std::bad_alloc const&) {
    return Failed(LSCOREDB_NO_MEMORY, detail::StatusText(LSCOREDB_NO_MEMORY));
  } catch (std::exception const& error) {  // a bad row or text
    return Failed(LSCOREDB_INVALID_ARGUMENT, error.what());
  }
}

}  // namespace sagleme

#endif

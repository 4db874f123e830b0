#ifndef SAGLEME_SQL_FAILURE_H
#define SAGLEME_SQL_FAILURE_H

// Failures on their way to SQLite: a result code and a text.

#include <new>
#include <sagleme/host.hpp>
#include <stdexcept>
#include <string>

#include "api.h"

namespace sagleme::sql {

class Failure : public std::runtime_error {
 public:
  // `status` is the library's, 0 where there is none.
  Failure(int code, std::string const& text, std::uint32_t status = 0)
      : std::runtime_error(text), code_(code), status_(status) {}
  int code() const { return code_; }
  std::uint32_t status() const { return status_; }

 private:
  int code_;
  std::uint32_t status_;
};

// The result code that tells a client what to do about a status.
int ResultCode(std::uint32_t status);

// The status behind the last failure in this thread that Guarded met, if it gave that result code;
// 0 for none, and from then on.
std::uint32_t TakeLastStatus(int code);
void NoteStatus(int code, std::uint32_t status) noexcept;

// Runs `work` at the border to SQLite, which knows no exceptions: SQLITE_OK, or the code of what
// was thrown, with its text handed to `report`. Asks for no memory of its own.
template <typename Work, typename Report>
int Guarded(Work&& work, Report&& report) noexcept {
  try {
    work();
    return SQLITE_OK;
  } catch (Failure const& failure) {
    report(failure.what());
    NoteStatus(failure.code(), failure.status());
    return failure.code();
  } catch (Error const& error) {
    report(error.what());
    int const code = ResultCode(error.status());
    NoteStatus(code, error.status());
    return code;
  } catch (std::bad_alloc const&) {
    return SQLITE_NOMEM;
  } catch (std::exception const& error) {
    report(error.what());
    return SQLITE_ERROR;
  }
}

// The same for a method of a virtual table, whose text SQLite frees.
template <typename Work>
int GuardedMethod(sqlite3_vtab* table, Work&& work) {
  return Guarded(work, [table](char const* text) {
    sqlite3_free(table->zErrMsg);
    table->zErrMsg = sqlite3_mprintf("%s", text);
  });
}

}  // namespace sagleme::sql

#endif

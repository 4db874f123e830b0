#include "open_error.h"

#include <cerrno>
#include <exception>
#include <system_error>

#include "status.h"

namespace lscore {
namespace {

thread_local std::string text;

}  // namespace

std::string const& OpenError() noexcept { return text; }

void ForgetOpenError() noexcept { text.clear(); }

void NoteOpenError(std::string_view path, std::string_view reason) noexcept {
  try {
    text.assign(path).append(": ").append(reason);
  } catch (std::exception const&) {
    text.clear();  // the status still tells what kind of failure it was
  }
}

void NoteOpenError(std::string_view path, int error) noexcept {
  try {
    NoteOpenError(path, std::generic_category().message(error));
  } catch (std::exception const&) {
    text.clear();
  }
}

void ThrowCannotOpen(std::string_view path, int error) {
  NoteOpenError(path, error);
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      Throw(LSCOREDB_DISK_FULL);
    case ENOMEM:
      Throw(LSCOREDB_NO_MEMORY);
    default:
      Throw(LSCOREDB_CANNOT_OPEN);
  }
}

}  // namespace lscore

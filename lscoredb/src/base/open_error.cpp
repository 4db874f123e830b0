#include "open_error.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <system_error>

#include "status.h"

namespace lscore {
namespace {

// Without a destructor: one would hold the library in memory after dlclose, until the thread ends.
// Small, since a library that is loaded later gets few bytes for its threads.
constinit thread_local char text[512] = "";

void Append(std::size_t& length, std::string_view part) noexcept {
  std::size_t const room = sizeof text - 1 - length;
  length += part.copy(text + length, std::min(room, part.size()));
  text[length] = '\0';
}
constinit thread_local int number = 0;  // of the system, 0 when it gave none

}  // namespace

char const* OpenError() noexcept { return text; }

void ForgetOpenError() noexcept {
  text[0] = '\0';
  number = 0;
}

bool OpenErrorIsOfWriting() noexcept {
  return number == EACCES || number == EPERM || number == EROFS || number == ENOSPC ||
         number == EDQUOT;
}

// Keeps the end of a long path.
void NoteOpenError(std::string_view path, std::string_view reason) noexcept {
  constexpr std::size_t kLongestPath = 384;
  std::size_t length = 0;
  number = 0;
  if (path.size() > kLongestPath) {
    Append(length, "...");
    path.remove_prefix(path.size() - kLongestPath);
  }
  Append(length, path);
  Append(length, ": ");
  Append(length, reason);
}

void NoteOpenError(std::string_view path, int error) noexcept {
  try {
    NoteOpenError(path, std::generic_category().message(error));
    number = error;
  } catch (std::exception const&) {
    ForgetOpenError();  // the status alone must do
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

#ifndef LSCOREDB_SRC_OPEN_ERROR_H
#define LSCOREDB_SRC_OPEN_ERROR_H

// The file that the system refused while a database was opened, and why. One text per thread.

#include <string_view>

namespace lscore {

// `path: reason` of the thread's last refusal; empty if there is none.
char const* OpenError() noexcept;
void ForgetOpenError() noexcept;
// Whether it was a refusal of writing only: no right to it, a read-only disk, or a full one.
bool OpenErrorIsOfWriting() noexcept;

// Records that the system refused `path` with this error number.
void NoteOpenError(std::string_view path, int error) noexcept;
void NoteOpenError(std::string_view path, std::string_view reason) noexcept;

// Records it, and throws LSCOREDB_DISK_FULL, LSCOREDB_NO_MEMORY, or else LSCOREDB_CANNOT_OPEN.
[[noreturn]] void ThrowCannotOpen(std::string_view path, int error);

}  // namespace lscore

#endif

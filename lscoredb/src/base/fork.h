#ifndef LSCOREDB_SRC_FORK_H
#define LSCOREDB_SRC_FORK_H

// What a process must not inherit across a fork. In the child, the parent's handles name nothing,
// its locks are not waited for, and its files are closed, which unlocks nothing, before fork
// returns. The parent is not affected. Any thread.

#include <cstdint>

namespace lscore {

// Differs between a process and its ancestors.
std::uint64_t ProcessNumber() noexcept;

// What runs around every fork: before it, then in the parent, and in the child before anything else
// of it. Null runs nothing. None of them may throw. An object of this class belongs at namespace
// scope: registered on first use, a fork by another thread could copy the half-done registration,
// and the child would wait for its end without end.
class AtFork {
 public:
  AtFork(void (*before)(), void (*in_parent)(), void (*in_child)());
};

// A child closes the file; until it is said to be closed here.
void KeepFromChildren(int file);
void ForgetFile(int file) noexcept;

// As open and close, of a file that is kept from children from its first moment on: no child keeps
// its locks alive.
int OpenKept(char const* path, int flags, unsigned mode = 0) noexcept;
void CloseKept(int file) noexcept;

}  // namespace lscore

#endif

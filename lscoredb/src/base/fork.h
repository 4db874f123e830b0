#ifndef LSCOREDB_SRC_FORK_H
#define LSCOREDB_SRC_FORK_H

// What a process must not take over from the one that it was forked from. In the child the parent's
// handles name nothing, its locks are not to be waited for, and its files are closed, which unlocks
// nothing, before fork returns. The parent notices nothing. Any thread.

#include <cstdint>

namespace lscore {

// Differs between a process and those it was forked from.
std::uint64_t ProcessNumber() noexcept;

// Calls `forget` in every process that is forked off from now on, before anything else of it runs.
// It may neither throw nor wait.
void InEveryChild(void (*forget)());

// A child closes the file; until it is said to be closed here.
void KeepFromChildren(int file);
void ForgetFile(int file) noexcept;

}  // namespace lscore

#endif

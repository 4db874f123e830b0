#ifndef LSCOREDB_SRC_LIBRARY_CALL_H
#define LSCOREDB_SRC_LIBRARY_CALL_H

// Calls into the store's library that may meet a broken page.
//
// The library looks at some of what pages say and, where they contradict themselves, calls a
// function that must not return. That function leaves the call by a jump over the library's own
// frames, which are plain C: no exception ever travels through them. Every call that reads or
// writes pages goes through CallLibrary. For the store's own source files; any thread.

#include <type_traits>

struct MDB_env;

namespace lscore {

// The code of a call that was left over a broken page. None of the library's own.
inline constexpr int kBrokenPage = -30000;

// For the library to call.
void OnBrokenPage(MDB_env* env, char const* text);

int CallLibrary(int (*call)(void const*), void const* argument);

// Runs `call`, which returns a code of the library and holds nothing that has a destructor.
template <typename Call>
int CallLibrary(Call const& call) {
  static_assert(std::is_trivially_destructible_v<Call>);
  return CallLibrary([](void const* it) { return (*static_cast<Call const*>(it))(); }, &call);
}

// Frees the library's lock for writing, which this thread holds. After a call that was left in the
// midst of a write the transaction cannot be aborted: it still names cursors on frames that are
// gone. Returns false when the lock is not found; then it stays until the thread ends.
// REQUIRES: nothing is written through `env` any more.
bool ReleaseWriteLock(MDB_env* env) noexcept;

}  // namespace lscore

#endif

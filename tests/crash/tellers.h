#ifndef SAGLEME_TESTS_CRASH_TELLERS_H
#define SAGLEME_TESTS_CRASH_TELLERS_H

// Tellers who work in a process until it ends, and what has to be there afterwards.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "crash/bank.h"
#include "crash/child.h"

namespace crash_test {

// Gets the lines that are said; called from any thread.
using Listener = std::function<void(std::string const&)>;

// In a child: everyone of `tellers` works in a thread of his own, for ever. Says "teller step" for
// each step that is known to be committed, first of all how far everyone is. `ready` is called
// before they begin.
using Tellers = std::vector<std::size_t>;
Tellers EveryTeller();
void WorkUntilTheEnd(Listener const& listener, Bank& bank, Tellers const& tellers,
                     std::function<void()> const& ready = {});
void WorkUntilTheEnd(Channel& channel, Bank& bank, std::function<void()> const& ready = {});

// Puts down what a child said.
void Note(std::string const& line, Progress& acknowledged);
// Puts down all that a child goes on to say.
void NoteRest(Child& child, Progress& acknowledged);

// What was said until the power failed; of a line behind kSynced, that it is on the disk.
inline constexpr std::string_view kSynced = "synced ";
struct Said {
  Progress acknowledged{};
  Progress synced{};

  void Hear(std::string_view line);
};

// Opens the database in a process of its own: every acknowledged step is there in full, one more of
// each teller may be, and everything fits together.
void ExpectWholeAfter(std::string const& directory, std::uint64_t seed,
                      Progress const& acknowledged);
// The same, where each is at least at `least` and at most one behind `most`.
void ExpectWholeBetween(std::string const& directory, std::uint64_t seed, Progress const& least,
                        Progress const& most);

}  // namespace crash_test

#endif

#ifndef SAGLEME_TESTS_CRASH_TELLERS_H
#define SAGLEME_TESTS_CRASH_TELLERS_H

// Tellers who work in a process until it ends, and what has to be there afterwards.

#include "crash/bank.h"
#include "crash/child.h"

namespace crash_test {

// In a child: everyone works in a thread of his own, for ever. Says "teller step" for each step
// that is known to be committed, first of all how far everyone is. `ready` is called before they
// begin.
void WorkUntilTheEnd(Channel& channel, Bank& bank, std::function<void()> const& ready = {});

// Puts down what a child said.
void Note(std::string const& line, Progress& acknowledged);
// Puts down all that a child goes on to say.
void NoteRest(Child& child, Progress& acknowledged);

// Opens the database in a process of its own: every acknowledged step is there in full, one more of
// each teller may be, and everything fits together.
void ExpectWholeAfter(std::string const& directory, std::uint64_t seed,
                      Progress const& acknowledged);

}  // namespace crash_test

#endif

#ifndef SAGLEME_TESTS_CRASH_WAITERS_H
#define SAGLEME_TESTS_CRASH_WAITERS_H

// Who waits for whom: the executable counts its threads that wait on a condition, as committers do
// whose turn has not come.

namespace waiters {

// Returns once `count` threads wait on conditions.
void Await(int count);

}  // namespace waiters

#endif

#ifndef SAGLEME_TESTS_CRASH_WAITERS_H
#define SAGLEME_TESTS_CRASH_WAITERS_H

// Counts the threads of the executable that wait on a condition, as committers do in the queue.

namespace waiters {

// Returns once `count` threads wait on conditions.
void Await(int count);

}  // namespace waiters

#endif

#ifndef LSCOREDB_TESTS_STEP_KILLS_H
#define LSCOREDB_TESTS_STEP_KILLS_H

// Death at a chosen step of what the kernel does with its files.

namespace lscoredb_test {

// Kills this process at the `step`th of its following steps; the first is 1. Steps are: before a
// file lock is taken or changed, before a record is deleted, before and after a batch is committed,
// before and after a record of the log is written.
void KillAtStep(int step);

}  // namespace lscoredb_test

#endif

#ifndef LSCOREDB_TESTS_FILE_CALLS_H
#define LSCOREDB_TESTS_FILE_CALLS_H

// Death, or a full disk, at a chosen call that changes files: a write, a sync, a change of a length
// or of a name, a new directory.

namespace lscoredb_test {

// Kills this process before the `call`th of its following calls; the first is 1.
void KillAtFileCall(int call);
// Makes that call fail, and all after it that need room, as on a full disk. 0: none any more.
void FillDiskAtFileCall(int call);
// Whether that call has come.
bool DiskWasFull();

}  // namespace lscoredb_test

#endif

#ifndef SAGLEME_PYTHON_BACKUP_H
#define SAGLEME_PYTHON_BACKUP_H

// Backups, and databases made of them. Directories are texts, bytes or path-like. `report`, or
// None, is called with two numbers, what is done and in all.

#include "types.h"

namespace binding {

// backup(database, directory, full, prune, report) -> (full, number, first, last, time, bytes), or
// None if nothing was committed since the last part.
PyObject* AddBackup(PyObject* module, PyObject* args);
// backups(directory, verify, report) -> [what backup returns, of each part]
PyObject* Backups(PyObject* module, PyObject* args);
// restore(directory, target, commit, time, check, report) -> (commit, time); a limit of 0 is none.
PyObject* RestoreBackup(PyObject* module, PyObject* args);

}  // namespace binding

#endif

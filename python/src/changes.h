#ifndef SAGLEME_PYTHON_CHANGES_H
#define SAGLEME_PYTHON_CHANGES_H

// Readers of a database's feed of changes.

#include "types.h"

namespace binding {

extern PyTypeObject g_changes_type;

// Closes the readers of a database, which must not outlive it. REQUIRES: none of them is at work.
void CloseReaders(Database* database);

PyObject* KeepChanges(PyObject* module, PyObject* args);  // database, bytes, seconds
// kept_changes(database) -> (bytes, seconds, first, last)
PyObject* KeptChanges(PyObject* module, PyObject* database);

}  // namespace binding

#endif

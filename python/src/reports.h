#ifndef SAGLEME_PYTHON_REPORTS_H
#define SAGLEME_PYTHON_REPORTS_H

// What work in many transactions needs from Python: an idle context, and reports of its batches.

#include "types.h"
#include "watched.h"

namespace binding {

// A context in which work may begin transactions of its own.
inline Context* IdleContext(PyObject* object, std::string const& work) {
  auto* const context = As<Context>(object);
  if (context->handle == nullptr) Raise("ClosedError", "the database is closed");
  if (context->current != nullptr) {
    Raise("NestedTransaction", "a transaction is open in this thread; end it before " + work);
  }
  return context;
}

// Reports a batch to Python, with the dictionary that `progress` makes. False ends the work, and so
// do an exception, which stays set, and Ctrl-C. REQUIRES: the interpreter's lock was given up.
template <typename Progress>
bool Report(PyObject* report, Progress&& progress) {
  PyGILState_STATE const state = PyGILState_Ensure();
  bool go_on = PyErr_CheckSignals() == 0;
  if (go_on && report != Py_None) {
    Ref const told(progress());
    Ref const answer(told ? PyObject_CallOneArg(report, told.get()) : nullptr);
    go_on = answer && answer.get() != Py_False;
  }
  PyGILState_Release(state);
  return go_on;
}

}  // namespace binding

#endif

#ifndef SAGLEME_PYTHON_WATCHED_H
#define SAGLEME_PYTHON_WATCHED_H

// Progress of long work for Python, and how Ctrl-C ends it.

#include <lscoredb/watch.h>

#include <chrono>

#include "types.h"

namespace binding {

// Watches the kernel's long work in this thread while it lives, with the interpreter's lock given
// up: `report`, or None, gets (done, total) a few times a second; False from it, an exception and
// Ctrl-C stop the work, which fails with LSCOREDB_STOPPED then.
class Watched {
 public:
  explicit Watched(PyObject* report) : report_(report) { lscoredb_watch(Call, this); }
  ~Watched() { lscoredb_watch(nullptr, nullptr); }
  Watched(Watched const&) = delete;
  Watched& operator=(Watched const&) = delete;

 private:
  static std::uint32_t Call(void* user, std::uint64_t done, std::uint64_t total) {
    auto* const self = static_cast<Watched*>(user);
    auto const now = std::chrono::steady_clock::now();
    if (now < self->next_) return 0;
    self->next_ = now + std::chrono::milliseconds(50);
    return self->Report(done, total) ? 0 : 1;
  }

  bool Report(std::uint64_t done, std::uint64_t total) {
    PyGILState_STATE const state = PyGILState_Ensure();
    bool go_on = PyErr_CheckSignals() == 0;
    if (go_on && report_ != Py_None) {
      Ref const answer(PyObject_CallFunction(report_, "KK", static_cast<unsigned long long>(done),
                                             static_cast<unsigned long long>(total)));
      go_on = answer && answer.get() != Py_False;
    }
    PyGILState_Release(state);
    return go_on;
  }

  PyObject* report_;
  std::chrono::steady_clock::time_point next_{};
};

// What stopped work fails with: the exception that stopped it, if one did.
template <typename Work>
auto NotStopped(Work&& work) {
  try {
    return work();
  } catch (...) {
    if (PyErr_Occurred()) throw PythonError{};
    throw;
  }
}

}  // namespace binding

#endif

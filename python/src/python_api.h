#ifndef SAGLEME_PYTHON_PYTHON_API_H
#define SAGLEME_PYTHON_PYTHON_API_H

// Included by every file of the extension: CPython's C API, owners for it, and the conversion of
// C++ exceptions to Python's.
//
// A function that returns PyObject* returns a new reference, or null with a Python exception set.

#include <Python.h>

#include <new>
#include <sagleme/failure.hpp>
#include <sagleme/host.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace binding {

// A strong reference.
class Ref {
 public:
  Ref() = default;
  explicit Ref(PyObject* stolen) : object_(stolen) {}
  static Ref Share(PyObject* borrowed) { return Ref(Py_XNewRef(borrowed)); }
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref& operator=(Ref&& other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  Ref(Ref const&) = delete;
  Ref& operator=(Ref const&) = delete;
  ~Ref() { Py_XDECREF(object_); }

  PyObject* get() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  PyObject* object_ = nullptr;
};

// Thrown when a Python exception is already set.
struct PythonError {};

inline PyObject* Need(PyObject* object) {
  if (object == nullptr) throw PythonError{};
  return object;
}

// Lets other threads run Python while it lives.
class Unlocked {
 public:
  Unlocked() : state_(PyEval_SaveThread()) {}
  ~Unlocked() { PyEval_RestoreThread(state_); }
  Unlocked(Unlocked const&) = delete;
  Unlocked& operator=(Unlocked const&) = delete;

 private:
  PyThreadState* state_;
};

// Sets the exception of a status, with the text that belongs to it.
void SetStatusError(std::uint32_t status, std::string const& text);
// Sets an exception of the class that sagleme.errors has under that name.
void SetError(char const* family, std::string const& text);

// Sets the exception of a failure that has no status, with its advice as the hint.
void SetFailure(sagleme::Failure const& failure);

[[noreturn]] inline void Raise(char const* family, std::string const& text) {
  SetError(family, text);
  throw PythonError{};
}

// Runs code that may throw; if it does, sets the Python exception and returns `failed`.
template <typename Result, typename Work>
Result Guarded(Result failed, Work&& work) {
  try {
    return work();
  } catch (PythonError const&) {
  } catch (sagleme::Error const& error) {
    SetStatusError(error.status(), error.what());
  } catch (db_util::db_exception const& error) {
    SetStatusError(error.code(), lscoredb_status_text(error.code()));
  } catch (sagleme::BadUtf8 const& error) {
    SetError("BadValue", error.what());
  } catch (sagleme::Failure const& failure) {
    SetFailure(failure);
  } catch (std::bad_alloc const&) {
    PyErr_NoMemory();
  } catch (std::exception const& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
  return failed;
}

template <typename Work>
PyObject* Guard(Work&& work) {
  return Guarded(static_cast<PyObject*>(nullptr), std::forward<Work>(work));
}

// The UTF-16 of a Python text, and back; lone surrogates survive both ways.
std::u16string ToUnits(PyObject* text);
PyObject* FromUnits(std::u16string_view text);
// For messages: any object's repr, cut to a line.
std::string ReprOf(PyObject* object);
std::string TextOf(PyObject* text);

}  // namespace binding

#endif

#include "backup.h"

#include <sagleme/backup.hpp>

#include "watched.h"

namespace binding {
namespace {

PyObject* PartOf(sagleme::BackupPart const& part) {
  return Py_BuildValue(
      "(NIKKKK)", PyBool_FromLong(part.full ? 1 : 0), part.number,
      static_cast<unsigned long long>(part.first), static_cast<unsigned long long>(part.last),
      static_cast<unsigned long long>(part.time), static_cast<unsigned long long>(part.bytes));
}

// Runs what may take long, without the interpreter's lock, until it is done or `report` ends it.
template <typename Work>
void Run(PyObject* report, Work&& work) {
  NotStopped([&] {
    Unlocked const unlocked;
    Watched const watched(report);
    work();
  });
  if (PyErr_Occurred()) throw PythonError{};
}

}  // namespace

PyObject* AddBackup(PyObject*, PyObject* args) {
  PyObject* database = nullptr;
  PyObject* directory = nullptr;
  int full = 0;
  int prune = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "OO&ppO", &database, PyUnicode_FSConverter, &directory, &full, &prune,
                        &report)) {
    return nullptr;
  }
  Ref const held(directory);
  return Guard([&]() -> PyObject* {
    sagleme::Database const& handle = HandleOf(database);
    std::string const name = PyBytes_AS_STRING(directory);
    std::optional<sagleme::BackupPart> part;
    {
      Working const working(As<Database>(database));
      Run(report, [&] { part = sagleme::Backup(handle, name, {full != 0, prune != 0}); });
    }
    if (!part) Py_RETURN_NONE;
    return PartOf(*part);
  });
}

PyObject* Backups(PyObject*, PyObject* args) {
  PyObject* directory = nullptr;
  int verify = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "O&pO", PyUnicode_FSConverter, &directory, &verify, &report)) {
    return nullptr;
  }
  Ref const held(directory);
  return Guard([&] {
    std::string const name = PyBytes_AS_STRING(directory);
    std::vector<sagleme::BackupPart> parts;
    Run(report, [&] {
      if (verify != 0) sagleme::VerifyBackup(name);
      parts = sagleme::ListBackup(name);
    });
    Ref list(Need(PyList_New(0)));
    for (sagleme::BackupPart const& each : parts) {
      Ref const part(Need(PartOf(each)));
      if (PyList_Append(list.get(), part.get()) != 0) throw PythonError{};
    }
    return list.release();
  });
}

PyObject* RestoreBackup(PyObject*, PyObject* args) {
  PyObject* directory = nullptr;
  PyObject* target = nullptr;
  unsigned long long commit = 0;
  unsigned long long time = 0;
  int check = 1;
  PyObject* report = nullptr;
  // The first path is let go of by its converter if the second one is none.
  if (!PyArg_ParseTuple(args, "O&O&KKpO", PyUnicode_FSConverter, &directory, PyUnicode_FSConverter,
                        &target, &commit, &time, &check, &report)) {
    return nullptr;
  }
  Ref const held(directory);
  Ref const target_held(target);
  return Guard([&] {
    std::string const from = PyBytes_AS_STRING(directory);
    std::string const to = PyBytes_AS_STRING(target);
    sagleme::RestoredState state;
    Run(report, [&] { state = sagleme::Restore(from, to, {commit, time, check != 0}); });
    return Py_BuildValue("(KK)", static_cast<unsigned long long>(state.commit),
                         static_cast<unsigned long long>(state.time));
  });
}

}  // namespace binding

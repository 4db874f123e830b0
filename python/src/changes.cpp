// The feed of changes: sagleme.changes waits and iterates, here it is read.

#include "changes.h"

#include <Python.h>

#include <map>
#include <sagleme/changes.hpp>
#include <set>

namespace binding {
namespace {

struct Reader {
  PyObject_HEAD Database* database;  // strong
  sagleme::Changes* changes;         // null once closed
};

// The kernel's readers must be closed before their database, which does not own them.
std::map<Database*, std::set<Reader*>> g_readers;

sagleme::Changes& ChangesOf(Reader* reader) {
  HandleOf(Plain(reader->database));
  if (reader->changes == nullptr) Raise("ClosedError", "the changes are closed");
  return *reader->changes;
}

void CloseReader(Reader* reader) {
  auto const found = g_readers.find(reader->database);
  if (found == g_readers.end() || found->second.erase(reader) == 0) return;
  if (found->second.empty()) g_readers.erase(found);
  // A child leaves what its parent has open alone.
  sagleme::Changes* const changes = std::exchange(reader->changes, nullptr);
  if (!reader->database->forked) delete changes;
}

// Changes(database, commit, place): reads what follows that position; place -1: after the commit.
PyObject* ReaderNew(PyTypeObject* type, PyObject* args, PyObject*) {
  PyObject* database = nullptr;
  unsigned long long commit = 0;
  long long place = 0;
  if (!PyArg_ParseTuple(args, "OKL", &database, &commit, &place)) return nullptr;
  return Guard([&] {
    sagleme::Database const& handle = HandleOf(database);
    sagleme::ChangePosition after{commit};
    if (place >= 0) after.place = static_cast<std::uint32_t>(place);
    Ref made(Need(type->tp_alloc(type, 0)));
    auto* const reader = As<Reader>(made.get());
    reader->database = As<Database>(Py_NewRef(database));
    {
      Working const working(reader->database);
      Unlocked const unlocked;
      reader->changes = new sagleme::Changes(handle, after);
    }
    g_readers[reader->database].insert(reader);
    return made.release();
  });
}

void ReaderDealloc(PyObject* object) {
  auto* const self = As<Reader>(object);
  if (self->database != nullptr) CloseReader(self);
  Py_XDECREF(Plain(self->database));
  Py_TYPE(object)->tp_free(object);
}

PyObject* Names(std::vector<std::u16string> const& names) {
  Ref made(Need(PyTuple_New(static_cast<Py_ssize_t>(names.size()))));
  for (std::size_t i = 0; i < names.size(); ++i) {
    PyTuple_SET_ITEM(made.get(), static_cast<Py_ssize_t>(i), Need(FromUnits(names[i])));
  }
  return made.release();
}

PyObject* EntryOf(sagleme::DataChange const& change) {
  return Py_BuildValue(
      "(KIINKiKNNN)", static_cast<unsigned long long>(change.position.commit),
      change.position.place, change.transaction, PyBool_FromLong(change.last ? 1 : 0),
      static_cast<unsigned long long>(change.time), static_cast<int>(change.kind),
      static_cast<unsigned long long>(change.object.value), FromUnits(change.table),
      FromUnits(change.former_table), Names(change.columns));
}

// take(most) -> [(commit, place, transaction, last, time, kind, object, table, former, columns)]
PyObject* Take(PyObject* object, PyObject* most) {
  return Guard([&] {
    auto* const self = As<Reader>(object);
    sagleme::Changes& changes = ChangesOf(self);
    std::size_t const limit = PyLong_AsSize_t(most);
    if (PyErr_Occurred()) throw PythonError{};
    std::vector<sagleme::DataChange> found;
    {
      Working const working(self->database);
      Unlocked const unlocked;
      while (found.size() < limit) {
        std::optional<sagleme::DataChange> next = changes.Next();
        if (!next) break;
        found.push_back(std::move(*next));
      }
    }
    Ref list(Need(PyList_New(0)));
    for (sagleme::DataChange const& change : found) {
      Ref const entry(Need(EntryOf(change)));
      if (PyList_Append(list.get(), entry.get()) != 0) throw PythonError{};
    }
    return list.release();
  });
}

PyObject* FileOf(PyObject* object, PyObject*) {
  return Guard([&] { return PyLong_FromLong(ChangesOf(As<Reader>(object)).file()); });
}

PyObject* Close(PyObject* object, PyObject*) {
  CloseReader(As<Reader>(object));
  Py_RETURN_NONE;
}

PyMethodDef g_methods[] = {{"take", Take, METH_O, "The next changes, at most so many."},
                           {"file", FileOf, METH_NOARGS, "Readable when there may be some."},
                           {"close", Close, METH_NOARGS, nullptr},
                           {nullptr, nullptr, 0, nullptr}};

PyTypeObject MakeType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Changes";
  type.tp_basicsize = sizeof(Reader);
  type.tp_flags = Py_TPFLAGS_DEFAULT;
  type.tp_new = ReaderNew;
  type.tp_dealloc = ReaderDealloc;
  type.tp_methods = g_methods;
  return type;
}

}  // namespace

PyTypeObject g_changes_type = MakeType();

void CloseReaders(Database* database) {
  for (auto found = g_readers.find(database); found != g_readers.end();
       found = g_readers.find(database)) {
    CloseReader(*found->second.begin());
  }
}

PyObject* KeepChanges(PyObject*, PyObject* args) {
  PyObject* database = nullptr;
  unsigned long long bytes = 0;
  unsigned long long seconds = 0;
  if (!PyArg_ParseTuple(args, "OKK", &database, &bytes, &seconds)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Database const& handle = HandleOf(database);
    {
      Working const working(As<Database>(database));
      Unlocked const unlocked;
      sagleme::KeepChanges(handle, {bytes, seconds});
    }
    Py_RETURN_NONE;
  });
}

PyObject* KeptChanges(PyObject*, PyObject* database) {
  return Guard([&] {
    sagleme::KeptChanges const kept = sagleme::Kept(HandleOf(database));
    return Py_BuildValue("(KKKK)", static_cast<unsigned long long>(kept.retention.bytes),
                         static_cast<unsigned long long>(kept.retention.seconds),
                         static_cast<unsigned long long>(kept.first),
                         static_cast<unsigned long long>(kept.last));
  });
}

}  // namespace binding

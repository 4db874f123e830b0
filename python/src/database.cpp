// Databases and contexts.

#include <algorithm>
#include <set>

#include "changes.h"
#include "types.h"
#include "watched.h"

namespace binding {
namespace {

// Those that are open, for the child of a fork to give up.
std::set<Database*> g_open;

sagleme::Database Opened(PyObject* path, int create, sagleme::Options const& options) {
  std::string const directory = path == Py_None ? "" : TextOf(path);
  Unlocked const unlocked;
  if (directory.empty()) return sagleme::Database::InMemory({}, options);
  if (create != 0) return sagleme::Database::Create(directory, {}, options);
  return sagleme::Database::Open(directory, options);
}

// None: the kernel's default.
std::uint32_t LogOf(PyObject* log) {
  if (log == Py_None) return LSCOREDB_DEFAULT_LOG;
  int const wanted = PyObject_IsTrue(log);
  if (wanted < 0) throw PythonError();
  return wanted != 0 ? LSCOREDB_LOG : LSCOREDB_NO_LOG;
}

PyObject* DatabaseNew(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
  static char const* names[] = {"path",       "create", "no_sync", "max_file_size",
                                "row_memory", "log",    nullptr};
  PyObject* path = nullptr;
  int create = 0;
  int no_sync = 0;
  unsigned long long max_file_size = 0;
  unsigned long long row_memory = 0;
  PyObject* log = Py_None;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O|ppKKO", const_cast<char**>(names), &path,
                                   &create, &no_sync, &max_file_size, &row_memory, &log)) {
    return nullptr;
  }
  return Guard([&] {
    sagleme::Options options{no_sync != 0, max_file_size, row_memory};
    options.log = LogOf(log);
    auto handle = std::make_unique<sagleme::Database>(Opened(path, create, options));
    auto* const self = As<Database>(Need(type->tp_alloc(type, 0)));
    self->contexts = new std::vector<Context*>;
    self->handle = handle.release();
    g_open.insert(self);
    return Plain(self);
  });
}

void EndTransaction(Transaction* transaction) {
  if (transaction == nullptr) return;
  transaction->state = State::kEnded;
}

// Rolls back what is open. The kernel's context is gone then, though the Python object may live.
void CloseContext(Context* context) {
  if (context->handle == nullptr) return;
  Transaction* const current = std::exchange(context->current, nullptr);
  EndTransaction(current);
  if (current != nullptr) {
    delete std::exchange(current->kernel, nullptr);
    current->orphans->clear();
  }
  delete std::exchange(context->handle, nullptr);
  std::erase(*context->database->contexts, context);
}

void CloseDatabase(Database* database) {
  if (database->handle == nullptr) return;
  bool busy = database->working > 0;
  for (Context const* const context : *database->contexts) {
    Transaction const* const current = context->current;
    busy |= current != nullptr && (current->state == State::kBusy || current->held);
  }
  if (busy) Raise("InUse", "another thread is busy in this database; close it later");
  CloseReaders(database);
  while (!database->contexts->empty()) CloseContext(database->contexts->back());
  g_open.erase(database);
  sagleme::Database* const handle = std::exchange(database->handle, nullptr);
  Unlocked const unlocked;
  delete handle;
}

void DatabaseDealloc(PyObject* object) {
  auto* const self = As<Database>(object);
  if (self->handle != nullptr && !self->forked) {
    Guarded(0, [&] {
      CloseDatabase(self);
      return 0;
    });
    PyErr_Clear();
  }
  g_open.erase(self);
  delete self->contexts;
  Py_TYPE(object)->tp_free(object);
}

PyObject* Close(PyObject* object, PyObject*) {
  return Guard([&]() -> PyObject* {
    auto* const self = As<Database>(object);
    if (!self->forked) CloseDatabase(self);
    Py_RETURN_NONE;
  });
}

PyObject* NewContext(PyObject* object, PyObject*) {
  return Guard([&] {
    auto* const self = As<Database>(object);
    sagleme::Database const& handle = HandleOf(object);
    Ref made(Need(g_context_type.tp_alloc(&g_context_type, 0)));
    auto* const context = As<Context>(made.get());
    context->database = self;
    Py_INCREF(object);
    context->handle = new sagleme::Context(handle);
    self->contexts->push_back(context);
    return made.release();
  });
}

// What another thread may not take away meanwhile: the database closes only without contexts.
PyObject* Copy(PyObject* object, PyObject* args) {
  PyObject* directory = nullptr;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "UO", &directory, &report)) return nullptr;
  return Guard([&]() -> PyObject* {
    lscoredb* const handle = HandleOf(object).handle();
    std::string const name = TextOf(directory);
    std::uint32_t status = 0;
    {
      Working const working(As<Database>(object));
      Unlocked const unlocked;
      Watched const watched(report);
      status = lscoredb_copy(handle, name.c_str());
    }
    if (PyErr_Occurred()) throw PythonError{};
    sagleme::detail::CheckKernel(status);
    Py_RETURN_NONE;
  });
}

PyObject* Statistics(PyObject* object, PyObject*) {
  return Guard([&] {
    lscoredb_statistics const found = HandleOf(object).Statistics();
    PyObject* const log = found.log == LSCOREDB_LOG ? Py_True : Py_False;
    return Py_BuildValue("{sKsKsKsKsIsIsO}", "file_size", found.file_size, "max_file_size",
                         found.max_file_size, "last_commit", found.last_commit, "oldest_commit",
                         found.oldest_commit, "transactions", found.transactions, "max_readers",
                         found.max_readers, "log", log);
  });
}

PyObject* IsClosed(PyObject* object, void*) {
  auto const* const self = As<Database>(object);
  return PyBool_FromLong(self->handle == nullptr);
}

void ContextDealloc(PyObject* object) {
  auto* const self = As<Context>(object);
  if (self->database != nullptr && !self->database->forked) CloseContext(self);
  Py_XDECREF(Plain(self->database));
  Py_TYPE(object)->tp_free(object);
}

PyObject* HasTransaction(PyObject* object, void*) {
  return PyBool_FromLong(As<Context>(object)->current != nullptr);
}

PyObject* ContextIsOpen(PyObject* object, void*) {
  return PyBool_FromLong(As<Context>(object)->handle != nullptr);
}

PyMethodDef g_database_methods[] = {
    {"close", Close, METH_NOARGS, "Ends all transactions and closes."},
    {"context", NewContext, METH_NOARGS, "A context for one thread."},
    {"copy", Copy, METH_VARARGS, "Writes a packed copy into a directory."},
    {"statistics", Statistics, METH_NOARGS, "Figures of the whole database."},
    {nullptr, nullptr, 0, nullptr}};

PyGetSetDef g_database_members[] = {{"closed", IsClosed, nullptr, nullptr, nullptr},
                                    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyGetSetDef g_context_members[] = {{"busy", HasTransaction, nullptr, nullptr, nullptr},
                                   {"open", ContextIsOpen, nullptr, nullptr, nullptr},
                                   {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyTypeObject MakeDatabaseType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Database";
  type.tp_basicsize = sizeof(Database);
  type.tp_flags = Py_TPFLAGS_DEFAULT;
  type.tp_new = DatabaseNew;
  type.tp_dealloc = DatabaseDealloc;
  type.tp_methods = g_database_methods;
  type.tp_getset = g_database_members;
  return type;
}

PyTypeObject MakeContextType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Context";
  type.tp_basicsize = sizeof(Context);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
  type.tp_dealloc = ContextDealloc;
  type.tp_getset = g_context_members;
  return type;
}

}  // namespace

PyTypeObject g_database_type = MakeDatabaseType();
PyTypeObject g_context_type = MakeContextType();

sagleme::Database& HandleOf(PyObject* object) {
  if (!PyObject_TypeCheck(object, &g_database_type)) Raise("WrongType", "a database is needed");
  auto* const database = As<Database>(object);
  if (database->forked) {
    Raise("ForkedError",
          "this database was opened before the process forked; open it anew in the child");
  }
  if (database->handle == nullptr) Raise("ClosedError", "the database is closed");
  return *database->handle;
}

// In the child of a fork: the parent's handles are not for its use, not even to be closed.
PyObject* GiveUpAfterFork(PyObject*, PyObject*) {
  for (Database* const database : g_open) {
    database->forked = true;
    for (Context* const context : *database->contexts) {
      if (context->current != nullptr) context->current->state = State::kForked;
    }
  }
  g_open.clear();
  Py_RETURN_NONE;
}

}  // namespace binding

// Transactions: what keeps their objects, and what ends them.

#include <Python.h>
#include <structmember.h>

#include <sagleme/host/duplicates.hpp>

#include "types.h"

namespace binding {
namespace {

int TransactionInit(PyObject* object, PyObject* args, PyObject*) {
  PyObject* context_object = nullptr;
  int writes = 0;
  if (!PyArg_ParseTuple(args, "O!p", &g_context_type, &context_object, &writes)) return -1;
  return Guarded(-1, [&] {
    auto* const self = As<Transaction>(object);
    auto* const context = As<Context>(context_object);
    if (context->database->forked) {
      Raise("ForkedError",
            "this database was opened before the process forked; open it anew in the child");
    }
    if (context->handle == nullptr) Raise("ClosedError", "the database is closed");
    if (context->current != nullptr || self->context != nullptr) {
      Raise("NestedTransaction",
            "a transaction is open in this thread already; use it, or take a savepoint in it");
    }
    auto const access = writes != 0 ? sagleme::Access::kReadWrite : sagleme::Access::kReadOnly;
    self->objects = new IdentityMap<Object>;
    self->gone = new IdentityMap<Object>;
    self->orphans = new std::vector<std::uint64_t>;
    self->writes = writes != 0;
    self->stamp = 1;
    self->context_id = context->handle->id();
    context->current = self;  // keeps other threads and close away while the lock is released
    self->state = State::kBusy;
    try {
      Unlocked const unlocked;
      self->kernel = new sagleme::Transaction(*context->handle, access);
      self->generation = self->kernel->Generation();
    } catch (...) {
      delete std::exchange(self->kernel, nullptr);
      context->current = nullptr;
      self->state = State::kEnded;
      throw;
    }
    self->state = State::kOpen;
    self->context = context;
    Py_INCREF(context_object);
    return 0;
  });
}

void FreeOrphans(Transaction* transaction) {
  for (std::uint64_t const iterator : *transaction->orphans) lorv_iterator_free(iterator);
  transaction->orphans->clear();
}

// The transaction is over then, whatever the result.
template <typename Work>
void End(Transaction* self, Work&& work) {
  NeedOpen(self);
  if (self->held) Raise("InUse", "the transaction is in the middle of a call; end it afterwards");
  FreeOrphans(self);
  std::unique_ptr<sagleme::Transaction> kernel(std::exchange(self->kernel, nullptr));
  self->state = State::kBusy;
  struct Over {
    Transaction* self;
    ~Over() {
      self->state = State::kEnded;
      if (self->context->current == self) self->context->current = nullptr;
    }
  } const over{self};
  Unlocked const unlocked;
  work(*kernel);
  kernel.reset();
}

PyObject* Commit(PyObject* object, PyObject*) {
  return Guard([&]() -> PyObject* {
    auto* const self = As<Transaction>(object);
    End(self,
        [self](sagleme::Transaction& kernel) { sagleme::Commit(kernel, *self->context->handle); });
    Py_RETURN_NONE;
  });
}

PyObject* Rollback(PyObject* object, PyObject*) {
  return Guard([&]() -> PyObject* {
    End(As<Transaction>(object), [](sagleme::Transaction& kernel) { kernel.Rollback(); });
    Py_RETURN_NONE;
  });
}

void TransactionDealloc(PyObject* object) {
  auto* const self = As<Transaction>(object);
  if (self->weak_references != nullptr) PyObject_ClearWeakRefs(object);
  if (self->state == State::kOpen && self->kernel != nullptr) {
    Guarded(0, [&] {
      End(self, [](sagleme::Transaction& kernel) { kernel.Rollback(); });
      return 0;
    });
    PyErr_Clear();
  }
  Py_XDECREF(Plain(self->context));
  Py_XDECREF(Plain(self->view));
  delete self->objects;
  delete self->gone;
  delete self->orphans;
  Py_TYPE(object)->tp_free(object);
}

PyObject* Bind(PyObject* object, PyObject* view) {
  auto* const self = As<Transaction>(object);
  if (Py_TYPE(view) != &g_view_type || self->view != nullptr) {
    PyErr_SetString(PyExc_TypeError, "bind takes a View, once");
    return nullptr;
  }
  self->view = As<View>(Py_NewRef(view));
  Py_RETURN_NONE;
}

// Says that something else has written in this context.
PyObject* Touch(PyObject* object, PyObject*) {
  ++As<Transaction>(object)->stamp;
  Py_RETURN_NONE;
}

// Lends the context to SQL: the transaction is busy until it is taken back.
PyObject* Lend(PyObject* object, PyObject*) {
  return Guard([&] {
    auto* const self = As<Transaction>(object);
    NeedOpen(self);
    FreeOrphans(self);
    self->state = State::kBusy;
    return PyLong_FromUnsignedLongLong(self->context_id);
  });
}

// take_back(wrote): whether objects may have changed meanwhile.
PyObject* TakeBack(PyObject* object, PyObject* wrote) {
  return Guard([&]() -> PyObject* {
    auto* const self = As<Transaction>(object);
    if (self->state != State::kBusy) Raise("WrongType", "the transaction was not lent");
    self->state = State::kOpen;
    if (PyObject_IsTrue(wrote) == 1) {
      ++self->stamp;
      SettleObjects(self);
    }
    Py_RETURN_NONE;
  });
}

PyObject* Get(PyObject* object, PyObject* id) {
  return Guard([&] {
    auto* const self = As<Transaction>(object);
    NeedView(self);
    unsigned long long const oid = PyLong_AsUnsignedLongLong(id);
    if (PyErr_Occurred()) throw PythonError{};
    return ObjectById(self, oid);
  });
}

PyObject* Delete(PyObject* object, PyObject* argument) {
  return Guard([&]() -> PyObject* {
    auto* const self = As<Transaction>(object);
    if (!IsObject(argument)) {
      Raise("WrongType", "delete takes an object of a table, not " + ReprOf(argument));
    }
    auto* const target = As<Object>(argument);
    NeedLive(target);
    if (target->transaction != self) {
      Raise("WrongTransaction", ReprOf(argument) + " belongs to another transaction");
    }
    DeleteRow(self, target->oid, target->addr);
    ++self->stamp;
    EndObject(target);
    Py_RETURN_NONE;
  });
}

// savepoint() -> (the kernel's number, ours)
PyObject* SetSavepoint(PyObject* object, PyObject*) {
  return Guard([&] {
    auto* const self = As<Transaction>(object);
    NeedOpen(self);
    std::uint64_t number = 0;
    sagleme::detail::CheckKernel(lscoredb_savepoint(self->context_id, &number));
    return Py_BuildValue("(KK)", static_cast<unsigned long long>(number),
                         static_cast<unsigned long long>(++self->savepoints));
  });
}

// What was read since is stale. Objects that Python got since may have been made since, also by
// SQL, or be of the table that they were in before; those that went since are there again.
PyObject* RollbackTo(PyObject* object, PyObject* args) {
  unsigned long long number = 0;
  unsigned long long ours = 0;
  if (!PyArg_ParseTuple(args, "KK", &number, &ours)) return nullptr;
  return Guard([&]() -> PyObject* {
    auto* const self = As<Transaction>(object);
    NeedOpen(self);
    sagleme::detail::CheckKernel(lscoredb_rollback_to(self->context_id, number));
    ++self->stamp;
    self->kernel->Forget();
    SettleObjects(self, ours);
    Py_RETURN_NONE;
  });
}

PyObject* Release(PyObject* object, PyObject* number) {
  return Guard([&]() -> PyObject* {
    auto* const self = As<Transaction>(object);
    NeedOpen(self);
    unsigned long long const savepoint = PyLong_AsUnsignedLongLong(number);
    if (PyErr_Occurred()) throw PythonError{};
    sagleme::detail::CheckKernel(lscoredb_release(self->context_id, savepoint));
    Py_RETURN_NONE;
  });
}

void WriteColumns(Object* made, PyObject* const* values, PyObject* names) {
  Binding const& binding = *made->binding;
  std::vector<bool> given(binding.columns.size());
  Py_ssize_t const count = names == nullptr ? 0 : PyTuple_GET_SIZE(names);
  for (Py_ssize_t i = 0; i < count; ++i) {
    BoundColumn const& column = ColumnNamed(binding, PyTuple_GET_ITEM(names, i));
    WriteValue(made->transaction, CellOf(made, column.ordinal), column, values[i]);
    given[static_cast<std::size_t>(column.field->slot)] = true;
  }
  for (std::size_t slot = 0; slot < given.size(); ++slot) {
    BoundColumn const& column = binding.columns[slot];
    if (given[slot] || column.fallback == nullptr) continue;
    WriteValue(made->transaction, CellOf(made, column.ordinal), column, column.fallback);
  }
}

// new(cls, **columns). An object whose columns are refused is deleted again.
PyObject* New(PyObject* object, PyObject* const* args, Py_ssize_t count, PyObject* names) {
  return Guard([&] {
    auto* const self = As<Transaction>(object);
    if (count != 1) Raise("WrongType", "new takes a class, and its columns by name");
    NeedView(self);
    Binding* const binding = BindingOf(self, args[0]);
    std::uint64_t const oid = InsertRow(self, *binding);
    Ref made(NewObject(self, binding, oid));
    if (!made) throw PythonError{};
    try {
      WriteColumns(As<Object>(made.get()), args + 1, names);
      EnterIndexes(self, *binding, oid);
    } catch (...) {
      static_cast<void>(lorv_context_delete(self->context_id, oid, binding->layout));
      EndObject(As<Object>(made.get()));
      throw;
    }
    ++self->stamp;
    return made.release();
  });
}

PyObject* IsOpen(PyObject* object, void*) {
  return PyBool_FromLong(As<Transaction>(object)->state == State::kOpen);
}
PyObject* IsWriting(PyObject* object, void*) {
  return PyBool_FromLong(As<Transaction>(object)->writes);
}
PyObject* Generation(PyObject* object, void*) {
  return PyLong_FromUnsignedLongLong(As<Transaction>(object)->generation);
}
PyObject* LiveCount(PyObject* object, void*) {
  auto const* const objects = As<Transaction>(object)->objects;
  return PyLong_FromSize_t(objects == nullptr ? 0 : objects->size());
}

PyMethodDef g_methods[] = {
    {"commit", Commit, METH_NOARGS, "Keeps what was written."},
    {"rollback", Rollback, METH_NOARGS, "Forgets what was written."},
    {"_bind", Bind, METH_O, "Takes the view of the schema."},
    {"_touch", Touch, METH_NOARGS, "What was read before may be stale."},
    {"_lend", Lend, METH_NOARGS, "Gives the context away for a while; returns its number."},
    {"_take_back", TakeBack, METH_O, nullptr},
    {"_savepoint", SetSavepoint, METH_NOARGS, nullptr},
    {"_rollback_to", RollbackTo, METH_VARARGS, nullptr},
    {"_release", Release, METH_O, nullptr},
    {"_get", Get, METH_O, "An object by its identity, or None."},
    {"delete", Delete, METH_O, "Deletes an object."},
    {"new", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(New)),
     METH_FASTCALL | METH_KEYWORDS, "Makes an object of a class, its columns given by name."},
    {nullptr, nullptr, 0, nullptr}};

PyGetSetDef g_members[] = {
    {"open", IsOpen, nullptr, "Whether it can still be used.", nullptr},
    {"writing", IsWriting, nullptr, "Whether it was begun to write.", nullptr},
    {"generation", Generation, nullptr, "The count of schema changes that it sees.", nullptr},
    {"live", LiveCount, nullptr, "How many of its objects Python holds.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyTypeObject MakeType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Transaction";
  type.tp_basicsize = sizeof(Transaction);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
  type.tp_new = PyType_GenericNew;
  type.tp_init = TransactionInit;
  type.tp_dealloc = TransactionDealloc;
  type.tp_methods = g_methods;
  type.tp_getset = g_members;
  type.tp_weaklistoffset = offsetof(Transaction, weak_references);
  return type;
}

}  // namespace

PyTypeObject g_transaction_type = MakeType();

void NeedOpen(Transaction* transaction) {
  switch (transaction->state) {
    case State::kOpen:
      if (transaction->kernel != nullptr) return;
      [[fallthrough]];
    case State::kEnded:
      Raise("EndedError",
            "the transaction has ended; begin a new one with db.read() or db.write()");
    case State::kBusy:
      Raise("InUse", "another thread is busy in this transaction; a thread begins its own");
    case State::kForked:
      Raise("ForkedError",
            "the process forked inside this transaction; open the database anew in the child");
  }
}

View* NeedView(Transaction* transaction) {
  NeedOpen(transaction);
  if (transaction->view == nullptr) Raise("SchemaError", "the transaction has no view of classes");
  return transaction->view;
}

void EnterIndexes(Transaction* transaction, Binding const& binding, std::uint64_t oid) {
  auto const status = lorv_context_put_setspec(transaction->context_id, oid, binding.layout,
                                               binding.setspec.c_str());
  if (status == 0) return;
  throw sagleme::Error(status,
                       std::string(NameOf(binding.type)) + ": " + lscoredb_status_text(status));
}

}  // namespace binding

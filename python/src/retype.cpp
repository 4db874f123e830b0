// Objects that become objects of another class.

#include <sagleme/hierarchy.hpp>

#include "catalogue.h"
#include "reports.h"

namespace binding {
namespace {

void WriteGiven(Transaction* transaction, Binding const& binding, std::uint64_t oid,
                PyObject* values) {
  PyObject* name = nullptr;
  PyObject* value = nullptr;
  Py_ssize_t at = 0;
  while (PyDict_Next(values, &at, &name, &value) != 0) {
    BoundColumn const& column = ColumnNamed(binding, name);
    WriteValue(transaction, {transaction->context_id, oid, binding.layout, column.ordinal}, column,
               value);
  }
}

// Gives the interpreter's lock and the transaction back to Python for a while, inside of Away. The
// values to be written may run any code of Python, which cannot end the transaction.
class Back {
 public:
  explicit Back(Transaction* transaction) : transaction_(transaction), state_(PyGILState_Ensure()) {
    transaction->state = State::kOpen;
    transaction->held = true;
  }
  ~Back() {
    transaction_->held = false;
    if (transaction_->state == State::kOpen) transaction_->state = State::kBusy;
    PyGILState_Release(state_);
  }
  Back(Back const&) = delete;
  Back& operator=(Back const&) = delete;

 private:
  Transaction* transaction_;
  PyGILState_STATE state_;
};

// Rules of references may end other objects, and a failure brings all of them back.
template <typename Work>
PyObject* Settled(Transaction* transaction, Work&& work) {
  auto const settle = [transaction] {
    ++transaction->stamp;
    if (transaction->kernel->rules() != nullptr) SettleObjects(transaction);
  };
  try {
    Ref made(work());
    settle();
    return made.release();
  } catch (...) {
    settle();
    throw;
  }
}

// The object has the class already.
void WriteAllOrNone(Transaction* transaction, Object const* object, PyObject* values) {
  transaction->kernel->rules();  // what they require of the transaction outlives the savepoint
  sagleme::Savepoint savepoint(*transaction->kernel);
  WriteGiven(transaction, *object->binding, object->oid, values);
  savepoint.Release();
}

void Retype(Transaction* transaction, Object const* object, Binding const& to, PyObject* values,
            sagleme::RetypeOptions const& options) {
  sagleme::Transaction& kernel = *transaction->kernel;
  sagleme::ObjectId const id{object->oid};
  auto const write = [&](sagleme::Object&) {
    Back const back(transaction);
    WriteGiven(transaction, to, id.value, values);
  };
  Away(transaction, [&] {
    sagleme::TablePtr const table = kernel.BySetspec(to.setspec);
    if (table == nullptr) throw sagleme::Error(SAGLEME_TABLE_NOT_FOUND, "The table was dropped.");
    if (PyDict_GET_SIZE(values) == 0) {
      sagleme::Retype(kernel, {&id, 1}, *table, options);
    } else {
      sagleme::Retype(kernel, {&id, 1}, *table, options, write);
    }
  });
}

sagleme::RetypeOptions OptionsOf(int by_name, int references, int allow_losses) {
  constexpr sagleme::Referring kReferring[] = {
      sagleme::Referring::kRefuse, sagleme::Referring::kSetNull, sagleme::Referring::kKeep};
  sagleme::RetypeOptions options;
  options.by_name = by_name != 0;
  options.referring = kReferring[references];
  options.loss = allow_losses != 0 ? sagleme::Loss::kAllow : sagleme::Loss::kRefuse;
  return options;
}

std::vector<sagleme::ObjectId> IdsIn(PyObject* buffer) {
  Py_buffer view{};
  if (PyObject_GetBuffer(buffer, &view, PyBUF_SIMPLE) != 0) throw PythonError{};
  auto const* const ids = static_cast<std::uint64_t const*>(view.buf);
  std::vector<sagleme::ObjectId> found;
  auto const count = static_cast<std::size_t>(view.len) / sizeof(std::uint64_t);
  for (std::size_t i = 0; i < count; ++i) found.push_back({ids[i]});
  PyBuffer_Release(&view);
  return found;
}

template <typename Entries, typename Make>
PyObject* ListOf(Entries const& entries, Make&& make) {
  Ref list(Need(PyList_New(0)));
  for (auto const& each : entries) {
    Ref const entry(Need(make(each)));
    if (PyList_Append(list.get(), entry.get()) != 0) throw PythonError{};
  }
  return list.release();
}

PyObject* LostEntry(sagleme::LostColumn const& lost) {
  return Py_BuildValue("(NNK)", FromUnits(lost.table), FromUnits(lost.column),
                       static_cast<unsigned long long>(lost.values));
}

PyObject* ReferrerEntry(sagleme::Referrer const& referrer) {
  return Py_BuildValue("(KNNK)", static_cast<unsigned long long>(referrer.object.value),
                       FromUnits(referrer.table), FromUnits(referrer.column),
                       static_cast<unsigned long long>(referrer.target.value));
}

}  // namespace

PyObject* RetypeObject(PyObject*, PyObject* args) {
  PyObject* transaction_object = nullptr;
  PyObject* argument = nullptr;
  PyObject* type = nullptr;
  PyObject* values = nullptr;
  int by_name = 0;
  int references = 0;
  int allow_losses = 0;
  if (!PyArg_ParseTuple(args, "O!OOO!pip", &g_transaction_type, &transaction_object, &argument,
                        &type, &PyDict_Type, &values, &by_name, &references, &allow_losses)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const transaction = As<Transaction>(transaction_object);
    NeedView(transaction);
    if (!IsObject(argument)) {
      Raise("WrongType", "retype takes an object of a table, not " + ReprOf(argument));
    }
    auto* const object = As<Object>(argument);
    NeedLive(object);
    if (object->transaction != transaction) {
      Raise("WrongTransaction", ReprOf(argument) + " belongs to another transaction");
    }
    Binding const& to = *BindingOf(transaction, type);
    return Settled(transaction, [&] {
      if (object->binding == &to) {
        WriteAllOrNone(transaction, object, values);
        return Py_NewRef(argument);
      }
      Retype(transaction, object, to, values, OptionsOf(by_name, references, allow_losses));
      EndObject(object);
      return Need(ObjectById(transaction, object->oid));
    });
  });
}

PyObject* PlanRetyping(PyObject*, PyObject* args) {
  PyObject* transaction_object = nullptr;
  PyObject* buffer = nullptr;
  PyObject* type = nullptr;
  int by_name = 0;
  if (!PyArg_ParseTuple(args, "O!OOp", &g_transaction_type, &transaction_object, &buffer, &type,
                        &by_name)) {
    return nullptr;
  }
  return Guard([&] {
    sagleme::Transaction& kernel = KernelOf(transaction_object);
    auto* const transaction = As<Transaction>(transaction_object);
    std::u16string const to = BindingOf(transaction, type)->setspec;
    std::vector<sagleme::ObjectId> const ids = IdsIn(buffer);
    sagleme::RetypePlan plan;
    Away(transaction, [&] {
      plan = sagleme::PlanRetype(kernel, ids, *kernel.BySetspec(to), {.by_name = by_name != 0});
    });
    Ref lost(ListOf(plan.lost, LostEntry));
    Ref referrers(ListOf(plan.referrers, ReferrerEntry));
    return Py_BuildValue("(KNN)", static_cast<unsigned long long>(plan.objects), lost.release(),
                         referrers.release());
  });
}

PyObject* RetypeObjects(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  PyObject* buffer = nullptr;
  PyObject* table = nullptr;
  int by_name = 0;
  int references = 0;
  int allow_losses = 0;
  unsigned long long batch = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "O!OUpipKO", &g_context_type, &context_object, &buffer, &table,
                        &by_name, &references, &allow_losses, &batch, &report)) {
    return nullptr;
  }
  return Guard([&] {
    Context const* const context = IdleContext(context_object, "objects change their class");
    std::vector<sagleme::ObjectId> const ids = IdsIn(buffer);
    std::u16string const to = ToUnits(table);
    sagleme::RetypeJob job;
    job.batch = batch;
    job.report = [report](std::uint64_t done, std::uint64_t total) {
      return Report(report, [&] {
        return Py_BuildValue("{sKsK}", "done", static_cast<unsigned long long>(done), "total",
                             static_cast<unsigned long long>(total));
      });
    };
    std::uint64_t const changed = NotStopped([&] {
      Working const working(context->database);
      Unlocked const unlocked;
      return sagleme::RetypeInBatches(*context->handle, ids, to,
                                      OptionsOf(by_name, references, allow_losses), job);
    });
    if (PyErr_Occurred()) throw PythonError{};
    return PyLong_FromUnsignedLongLong(changed);
  });
}

}  // namespace binding

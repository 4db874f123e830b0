// Plans that lead from one schema to another: made by the host library, told to Python, and applied
// as a whole.

#include "evolution.h"

#include <sagleme/counts.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/schema_plan.hpp>

#include "catalogue.h"
#include "reports.h"

namespace binding {
namespace {

constexpr char kPlan[] = "sagleme.plan";

void Append(PyObject* list, PyObject* item) {
  Ref const owned(Need(item));
  if (PyList_Append(list, item) != 0) throw PythonError{};
}

PyObject* FromUtf8(std::string const& text) {
  return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass");
}

// ---- schemas from Python

sagleme::ColumnDoc ColumnFrom(PyObject* told) {
  PyObject* name = nullptr;
  PyObject* target = nullptr;
  PyObject* was = nullptr;
  int type = 0;
  int nullable = 0;
  if (!PyArg_ParseTuple(told, "UipUU", &name, &type, &nullable, &target, &was)) throw PythonError{};
  sagleme::ColumnDoc column;
  column.name = TextOf(name);
  column.type = static_cast<sagleme::Type>(type);
  column.nullable = nullable != 0;
  column.target = TextOf(target);
  column.was = TextOf(was);
  return column;
}

sagleme::IndexDoc IndexFrom(PyObject* told) {
  PyObject* name = nullptr;
  PyObject* columns = nullptr;
  int unique = 0;
  if (!PyArg_ParseTuple(told, "UOp", &name, &columns, &unique)) throw PythonError{};
  sagleme::IndexDoc index;
  index.name = TextOf(name);
  index.unique = unique != 0;
  for (sagleme::IndexColumnSpec const& column : IndexColumns(columns)) {
    index.columns.push_back({sagleme::ToUtf8(column.name), !column.ascending});
  }
  return index;
}

sagleme::TableDoc TableFrom(PyObject* told) {
  PyObject* name = nullptr;
  PyObject* base = nullptr;
  PyObject* columns = nullptr;
  PyObject* indexes = nullptr;
  if (!PyArg_ParseTuple(told, "UUOO", &name, &base, &columns, &indexes)) throw PythonError{};
  sagleme::TableDoc table;
  table.name = TextOf(name);
  table.base = TextOf(base);
  ForEach(columns, [&](PyObject* each) { table.columns.push_back(ColumnFrom(each)); });
  ForEach(indexes, [&](PyObject* each) { table.indexes.push_back(IndexFrom(each)); });
  return table;
}

// ---- changes for Python

PyObject* Names(std::vector<std::string> const& names) {
  Ref list(Need(PyList_New(0)));
  for (std::string const& name : names) Append(list.get(), FromUtf8(name));
  return list.release();
}

PyObject* Names(std::vector<sagleme::ColumnDoc> const& columns) {
  std::vector<std::string> names;
  for (sagleme::ColumnDoc const& column : columns) names.push_back(column.name);
  return Names(names);
}

PyObject* IndexKey(std::string const& table, sagleme::IndexDoc const& index) {
  Ref columns(Need(PyList_New(0)));
  for (sagleme::IndexColumnDoc const& column : index.columns) {
    Append(columns.get(), Py_BuildValue("(NN)", FromUtf8(column.name),
                                        PyBool_FromLong(column.descending ? 0 : 1)));
  }
  return Py_BuildValue("(NNNN)", FromUtf8(index.name), FromUtf8(table), columns.release(),
                       PyBool_FromLong(index.unique ? 1 : 0));
}

// What a change is, and what it is made of.
struct Parts {
  PyObject* operator()(sagleme::change::DropIndex const& it) const {
    return Py_BuildValue("(sN)", "drop index", FromUtf8(it.index));
  }
  PyObject* operator()(sagleme::change::DropColumn const& it) const {
    return Py_BuildValue("(sNN)", "drop column", FromUtf8(it.table), FromUtf8(it.column));
  }
  PyObject* operator()(sagleme::change::CreateTable const& it) const {
    return Py_BuildValue("(sNNN)", "create table", FromUtf8(it.table.name), FromUtf8(it.table.base),
                         Names(it.table.columns));
  }
  PyObject* operator()(sagleme::change::AddColumns const& it) const {
    return Py_BuildValue("(sNN)", "add columns", FromUtf8(it.table), Names(it.columns));
  }
  PyObject* operator()(sagleme::change::CreateIndex const& it) const {
    return Py_BuildValue("(sN)", "create index", IndexKey(it.table, it.index));
  }
  PyObject* operator()(sagleme::change::PullUpColumn const& it) const {
    return Py_BuildValue("(sNNN)", "pull up", FromUtf8(it.column), Names(it.tables),
                         FromUtf8(it.base));
  }
  PyObject* operator()(sagleme::change::PushDownColumn const& it) const {
    return Py_BuildValue("(sNNN)", "push down", FromUtf8(it.table), FromUtf8(it.column),
                         Names(it.tables));
  }
  PyObject* operator()(sagleme::change::ChangeColumn const& it) const {
    sagleme::ColumnDoc const& after = it.after;
    return Py_BuildValue("(sNNiNN)", "change column", FromUtf8(it.table), FromUtf8(after.name),
                         static_cast<int>(after.type), PyBool_FromLong(after.nullable ? 1 : 0),
                         FromUtf8(after.target));
  }
  PyObject* operator()(sagleme::change::SetBase const& it) const {
    return Py_BuildValue("(sNN)", "set base", FromUtf8(it.table), FromUtf8(it.base));
  }
  template <typename Other>
  PyObject* operator()(Other const& it) const {
    return Py_BuildValue("(sN)", "other", FromUtf8(sagleme::DescribeChange(it)));
  }
};

PyObject* Told(sagleme::Change const& change) {
  std::string_view const label = sagleme::LabelName(sagleme::LabelOf(change));
  return Py_BuildValue("(s#N)", label.data(), static_cast<Py_ssize_t>(label.size()),
                       std::visit(Parts{}, change));
}

void Delete(PyObject* capsule) {
  delete static_cast<sagleme::Plan*>(PyCapsule_GetPointer(capsule, kPlan));
}

PyObject* CapsuleOf(sagleme::Plan plan) {
  auto owned = std::make_unique<sagleme::Plan>(std::move(plan));
  PyObject* const capsule = PyCapsule_New(owned.get(), kPlan, Delete);
  if (capsule != nullptr) owned.release();
  return capsule;
}

sagleme::Plan const& PlanFrom(PyObject* capsule) {
  void* const plan = PyCapsule_GetPointer(capsule, kPlan);
  if (plan == nullptr) throw PythonError{};
  return *static_cast<sagleme::Plan const*>(plan);
}

PyObject* ProgressOf(sagleme::ColumnChangeProgress const& done) {
  return Py_BuildValue("{sKsKsK}", "done", static_cast<unsigned long long>(done.done), "total",
                       static_cast<unsigned long long>(done.total), "conflicts",
                       static_cast<unsigned long long>(done.conflicts));
}

// Names alone say what is the same: what a class calls a former name is settled before.
sagleme::Plan Compare(sagleme::SchemaDoc const& from, sagleme::SchemaDoc to) {
  sagleme::ValidateSchema(to, "the classes");
  for (;;) {
    std::vector<sagleme::Doubt> const doubts = sagleme::FindDoubts(from, to);
    if (doubts.empty()) return sagleme::CompareSchemas(from, to);
    for (sagleme::Doubt const& doubt : doubts) Settle(to, doubt, sagleme::Reading::kNew);
  }
}

// Objects of its own keep a table from being abstract.
std::string RefusalOfAbstract(sagleme::Transaction& kernel, std::string const& name) {
  sagleme::TablePtr const table = kernel.Find(name);
  std::uint64_t const count = table == nullptr ? 0 : sagleme::ObjectCounts(kernel).Own(*table);
  if (count == 0) return "";
  return "it has " + std::to_string(count) + (count == 1 ? " object" : " objects") +
         " of its own; delete them, or make them objects of a class below it";
}

// A change as ("change column", table, column), ("push down", table, column, tables) or ("set
// base", table, base).
sagleme::Change ChangeFrom(PyObject* told) {
  char const* kind = nullptr;
  PyObject* table = nullptr;
  PyObject* more = nullptr;
  PyObject* tables = nullptr;
  if (!PyArg_ParseTuple(told, "sUO|O", &kind, &table, &more, &tables)) throw PythonError{};
  std::string_view const name = kind;
  if (name == "change column") {
    return sagleme::change::ChangeColumn{TextOf(table), {}, ColumnFrom(more)};
  }
  if (name == "set base") return sagleme::change::SetBase{TextOf(table), TextOf(more)};
  sagleme::change::PushDownColumn change{TextOf(table), TextOf(more), {}};
  ForEach(tables, [&](PyObject* each) { change.tables.push_back(TextOf(each)); });
  return change;
}

}  // namespace

sagleme::SchemaDoc SchemaFrom(PyObject* tables) {
  sagleme::SchemaDoc schema;
  ForEach(tables, [&](PyObject* each) { schema.tables.push_back(TableFrom(each)); });
  return schema;
}

PyObject* PlanChanges(PyObject*, PyObject* args) {
  PyObject* from = nullptr;
  PyObject* to = nullptr;
  if (!PyArg_ParseTuple(args, "OO", &from, &to)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::SchemaDoc const before = SchemaFrom(from);
    sagleme::SchemaDoc const after = SchemaFrom(to);
    sagleme::Plan plan = WithoutLosses([&] { return Compare(before, after); });
    Ref list(Need(PyList_New(0)));
    for (sagleme::Change const& change : plan) Append(list.get(), Told(change));
    Ref capsule(Need(CapsuleOf(std::move(plan))));
    return Py_BuildValue("(NN)", capsule.release(), list.release());
  });
}

PyObject* ApplyChanges(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* capsule = nullptr;
  int allow_losses = 0;
  if (!PyArg_ParseTuple(args, "OOp", &transaction, &capsule, &allow_losses)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    sagleme::Plan plan = PlanFrom(capsule);
    if (allow_losses != 0) sagleme::AllowLosses(plan);
    WithoutLosses(
        [&] { Away(As<Transaction>(transaction), [&] { sagleme::ApplyPlan(kernel, plan); }); });
    Py_RETURN_NONE;
  });
}

PyObject* RefusalOf(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* told = nullptr;
  if (!PyArg_ParseTuple(args, "OO!", &transaction, &PyTuple_Type, &told)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    std::string refusal;
    auto const look = [&](auto const& refuse) {
      Away(As<Transaction>(transaction), [&] { refusal = refuse(); });
    };
    if (TextOf(PyTuple_GET_ITEM(told, 0)) == "abstract") {
      std::string const table = TextOf(Need(PyTuple_GetItem(told, 1)));
      look([&] { return RefusalOfAbstract(kernel, table); });
    } else {
      sagleme::Change const change = ChangeFrom(told);
      look([&] { return sagleme::RefusalOf(kernel, change); });
    }
    return FromUtf8(refusal);
  });
}

PyObject* IndexesToPrepare(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* capsule = nullptr;
  unsigned long long objects = 0;
  if (!PyArg_ParseTuple(args, "OOK", &transaction, &capsule, &objects)) return nullptr;
  return Guard([&] {
    sagleme::Transaction& kernel = KernelOf(transaction);
    sagleme::Plan const& plan = PlanFrom(capsule);
    std::vector<sagleme::IndexSpec> found;
    Away(As<Transaction>(transaction),
         [&] { found = sagleme::IndexesToPrepare(kernel, plan, objects); });
    Ref names(Need(PyList_New(0)));
    for (sagleme::IndexSpec const& each : found) Append(names.get(), FromUnits(each.name));
    return names.release();
  });
}

PyObject* ChangesToPrepare(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* capsule = nullptr;
  unsigned long long objects = 0;
  if (!PyArg_ParseTuple(args, "OOK", &transaction, &capsule, &objects)) return nullptr;
  return Guard([&] {
    sagleme::Transaction& kernel = KernelOf(transaction);
    sagleme::Plan const& plan = PlanFrom(capsule);
    sagleme::Plan found;
    Away(As<Transaction>(transaction),
         [&] { found = sagleme::ChangesToPrepare(kernel, plan, objects); });
    Ref list(Need(PyList_New(0)));
    for (sagleme::Change& change : found) {
      Ref const parts(Need(std::visit(Parts{}, change)));
      Ref const plan_of_one(Need(CapsuleOf({std::move(change)})));
      Append(list.get(), PyTuple_Pack(2, parts.get(), plan_of_one.get()));
    }
    return list.release();
  });
}

PyObject* PrepareChange(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  PyObject* capsule = nullptr;
  int allow_losses = 0;
  unsigned int batch = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "O!OpIO", &g_context_type, &context_object, &capsule, &allow_losses,
                        &batch, &report)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const context = IdleContext(context_object, "a change is prepared");
    sagleme::Plan plan = PlanFrom(capsule);
    if (allow_losses != 0) sagleme::AllowLosses(plan);
    sagleme::ColumnChangeOptions options;
    options.batch = batch;
    options.report = [report](auto const& done) {
      return Report(report, [&] { return ProgressOf(done); });
    };
    bool const prepared = WithoutLosses([&] {
      return NotStopped([&] {
        Working const working(context->database);
        Unlocked const unlocked;
        return sagleme::PrepareChange(*context->handle, plan.at(0), options);
      });
    });
    if (PyErr_Occurred()) throw PythonError{};
    return PyBool_FromLong(prepared ? 1 : 0);
  });
}

PyObject* AbandonChange(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  PyObject* capsule = nullptr;
  if (!PyArg_ParseTuple(args, "O!O", &g_context_type, &context_object, &capsule)) return nullptr;
  return Guard([&]() -> PyObject* {
    auto* const context = IdleContext(context_object, "a change is abandoned");
    sagleme::Plan const plan = PlanFrom(capsule);
    {
      Working const working(context->database);
      Unlocked const unlocked;
      sagleme::AbandonChange(*context->handle, plan.at(0));
    }
    Py_RETURN_NONE;
  });
}

}  // namespace binding

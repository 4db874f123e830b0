// The record of a plan whose parts are prepared beside writers, for others to see and to resume.

#include <sagleme/failure.hpp>
#include <sagleme/schema_job.hpp>

#include "catalogue.h"
#include "evolution.h"
#include "reports.h"

namespace binding {
namespace {

constexpr char kJob[] = "sagleme.job";

// Owns the job until it is left: one that is given up by an exception at a bad moment is left to
// the end of the process, which cuts it off.
struct RecordedJob {
  Ref context;
  std::unique_ptr<sagleme::SchemaJob> job;
};

void Delete(PyObject* capsule) {
  auto* const recorded = static_cast<RecordedJob*>(PyCapsule_GetPointer(capsule, kJob));
  if (recorded->job != nullptr) recorded->job.release();
  delete recorded;
}

RecordedJob& JobFrom(PyObject* capsule) {
  void* const found = PyCapsule_GetPointer(capsule, kJob);
  if (found == nullptr) throw PythonError{};
  auto& recorded = *static_cast<RecordedJob*>(found);
  if (recorded.job == nullptr) Raise("EndedError", "the job was left");
  return recorded;
}

// Runs work on the job without the interpreter's lock and without a transaction.
template <typename Work>
PyObject* WithRecorded(PyObject* capsule, Work&& work) {
  return Guard([&]() -> PyObject* {
    RecordedJob& recorded = JobFrom(capsule);
    auto* const context = IdleContext(recorded.context.get(), "work on a job");
    {
      Working const working(context->database);
      Unlocked const unlocked;
      work(recorded);
    }
    Py_RETURN_NONE;
  });
}

bool IsInLine(sagleme::SchemaDoc const& schema, std::string const& table, std::string const& base) {
  for (auto const* at = schema.Find(table); at != nullptr; at = schema.Find(at->base)) {
    if (at->name == base) return true;
  }
  return false;
}

// The column of that name in the table, or in one above or below it; null if there is none.
sagleme::ColumnDoc const* Source(sagleme::SchemaDoc const& present, sagleme::SchemaDoc const& after,
                                 std::string const& table, std::string const& column) {
  sagleme::TableDoc const* const own = present.Find(table);
  if (own != nullptr && own->FindColumn(column) != nullptr) return own->FindColumn(column);
  for (sagleme::TableDoc const& each : present.tables) {
    bool const in_line = IsInLine(after, table, each.name) || IsInLine(after, each.name, table);
    if (in_line && each.FindColumn(column) != nullptr) return each.FindColumn(column);
  }
  return nullptr;
}

// Gives the schema the annotations that its tables, columns and indexes have.
void TakeAnnotations(sagleme::SchemaDoc const& present, sagleme::SchemaDoc& schema) {
  sagleme::SchemaDoc const after = schema;
  for (sagleme::TableDoc& table : schema.tables) {
    for (sagleme::ColumnDoc& column : table.columns) {
      sagleme::ColumnDoc const* const source = Source(present, after, table.name, column.name);
      if (source == nullptr) continue;
      column.comment = source->comment;
      if (column.type == source->type) column.fallback = source->fallback;
      if (column.type == sagleme::Type::kReference) column.on_delete = source->on_delete;
    }
    sagleme::TableDoc const* const own = present.Find(table.name);
    if (own == nullptr) continue;
    table.comment = own->comment;
    table.abstract = own->abstract;
    for (sagleme::IndexDoc& index : table.indexes) {
      for (sagleme::IndexDoc const& same : own->indexes) {
        if (same.name == index.name) index.comment = same.comment;
      }
    }
  }
}

template <typename Doc>
Doc& Named(std::vector<Doc>& docs, PyObject* name) {
  std::string const wanted = TextOf(name);
  for (Doc& each : docs) {
    if (each.name == wanted) return each;
  }
  Raise("SchemaError", "the schema has no " + wanted);
}

// (table, column or "", index or "", comment or None, default)
void TakeAnnotation(sagleme::SchemaDoc& schema, PyObject* told) {
  PyObject* table_name = nullptr;
  PyObject* column_name = nullptr;
  PyObject* index_name = nullptr;
  PyObject* comment = nullptr;
  PyObject* value = nullptr;
  if (!PyArg_ParseTuple(told, "UUUOO", &table_name, &column_name, &index_name, &comment, &value)) {
    throw PythonError{};
  }
  sagleme::TableDoc& table = Named(schema.tables, table_name);
  if (PyUnicode_GET_LENGTH(index_name) != 0) {
    Named(table.indexes, index_name).comment = TextOf(comment);
  } else if (PyUnicode_GET_LENGTH(column_name) == 0) {
    table.comment = TextOf(comment);
  } else if (comment != Py_None) {
    Named(table.columns, column_name).comment = TextOf(comment);
  } else {
    sagleme::ColumnDoc& column = Named(table.columns, column_name);
    column.fallback = ValueFrom(value, column.type);
  }
}

}  // namespace

PyObject* SchemaDocument(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* tables = nullptr;
  PyObject* annotations = nullptr;
  if (!PyArg_ParseTuple(args, "OOO", &transaction, &tables, &annotations)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::SchemaDoc schema = SchemaFrom(tables);
    TakeAnnotations(sagleme::ReadSchema(KernelOf(transaction), false), schema);
    ForEach(annotations, [&](PyObject* each) { TakeAnnotation(schema, each); });
    std::string const json = sagleme::SchemaJson(schema);
    return PyUnicode_DecodeUTF8(json.data(), static_cast<Py_ssize_t>(json.size()), "surrogatepass");
  });
}

PyObject* RecordSchemaJob(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  PyObject* document = nullptr;
  int allow_losses = 0;
  unsigned long long steps = 0;
  if (!PyArg_ParseTuple(args, "O!UpK", &g_context_type, &context_object, &document, &allow_losses,
                        &steps)) {
    return nullptr;
  }
  return Guard([&]() -> PyObject* {
    auto* const context = IdleContext(context_object, "a schema is changed");
    std::string const json = TextOf(document);
    std::unique_ptr<RecordedJob> recorded(new RecordedJob{Ref(Py_NewRef(context_object)), nullptr});
    {
      Working const working(context->database);
      Unlocked const unlocked;
      sagleme::SchemaDoc const wanted = sagleme::ParseSchema(json, "the classes");
      recorded->job =
          std::make_unique<sagleme::SchemaJob>(*context->handle, wanted, allow_losses != 0, steps);
    }
    PyObject* const capsule = PyCapsule_New(recorded.get(), kJob, Delete);
    if (capsule != nullptr) recorded.release();
    return capsule;
  });
}

PyObject* StepSchemaJob(PyObject*, PyObject* capsule) {
  return WithRecorded(capsule, [](RecordedJob& recorded) { recorded.job->Step(); });
}

PyObject* LeaveSchemaJob(PyObject*, PyObject* args) {
  PyObject* capsule = nullptr;
  int forget = 0;
  if (!PyArg_ParseTuple(args, "Op", &capsule, &forget)) return nullptr;
  return WithRecorded(capsule, [&](RecordedJob& recorded) {
    if (forget != 0) recorded.job->Abandon();
    recorded.job.reset();
  });
}

PyObject* FinishSchemaJob(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* capsule = nullptr;
  if (!PyArg_ParseTuple(args, "OO", &transaction, &capsule)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    RecordedJob const& recorded = JobFrom(capsule);
    Away(As<Transaction>(transaction), [&] { recorded.job->Finish(kernel); });
    Py_RETURN_NONE;
  });
}

}  // namespace binding

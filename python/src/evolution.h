#ifndef SAGLEME_PYTHON_EVOLUTION_H
#define SAGLEME_PYTHON_EVOLUTION_H

// Functions of the module that lead from one schema to another. A schema is a list of tables, bases
// first: (name, base, columns, indexes), a column (name, type, nullable, target, former name), an
// index (name, [(column, ascending)], unique). Names are full names; "" stands for none.

#include <sagleme/failure.hpp>
#include <sagleme/schema_document.hpp>

#include "types.h"

namespace binding {

// A schema without annotations from Python.
sagleme::SchemaDoc SchemaFrom(PyObject* tables);

template <typename Item>
void ForEach(PyObject* sequence, Item&& item) {
  Ref const list(Need(PySequence_Fast(sequence, "a schema is made of lists")));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    item(PySequence_Fast_GET_ITEM(list.get(), i));
  }
}

// Runs work on a schema. What it is refused for is a SchemaError, also values that it would lose.
template <typename Work>
auto WithoutLosses(Work&& work) {
  try {
    return work();
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_WRONG_TYPE) throw;
    Raise("SchemaError", error.what());
  } catch (sagleme::Failure const& failure) {
    Raise("SchemaError", failure.what());
  }
}

// plan_changes(from, to): the plan, and a list of (label, change) of its changes, in their order. A
// change is a tuple of its kind and what it is made of, see Parts. SchemaError if no database can
// have the schema `to`.
PyObject* PlanChanges(PyObject* module, PyObject* args);
// apply_changes(transaction, plan, allow_losses): makes all changes of the plan.
PyObject* ApplyChanges(PyObject* module, PyObject* args);
// refusal_of(transaction, change): why a change of the present schema would be refused for values
// or references; "" if it would not. A change is ("change column", table, column), ("push down",
// table, column, tables), ("set base", table, base) or ("abstract", table).
PyObject* RefusalOf(PyObject* module, PyObject* args);
// indexes_to_prepare(transaction, plan, objects): the names of those that are worth building beside
// writers, since their tables have so many objects; none if the plan moves what they are built on.
PyObject* IndexesToPrepare(PyObject* module, PyObject* args);
// changes_to_prepare(transaction, plan, objects): [(change, plan of it alone)] of the changes of
// columns for which that pays, likewise.
PyObject* ChangesToPrepare(PyObject* module, PyObject* args);
// prepare_change(context, plan of one, allow_losses, objects in a batch, report or None):
// whether it was prepared to the end. `report` is called with a dictionary after each batch; False
// ends it, and what was written stays.
PyObject* PrepareChange(PyObject* module, PyObject* args);
// abandon_change(context, plan of one): removes what was written for it.
PyObject* AbandonChange(PyObject* module, PyObject* args);

// schema_document(transaction, schema, annotations): the schema as a document, with the annotations
// that its tables, columns and indexes have in the database, and then the given ones: (table,
// column or "", index or "", comment or None, default).
PyObject* SchemaDocument(PyObject* module, PyObject* args);
// record_schema_job(context, document, allow_losses, steps): a job that others see and, once it is
// left, can resume. To be left by leave_schema_job.
PyObject* RecordSchemaJob(PyObject* module, PyObject* args);
// step_schema_job(job): one of its steps is done.
PyObject* StepSchemaJob(PyObject* module, PyObject* job);
// finish_schema_job(transaction, job): the transaction does the last step.
PyObject* FinishSchemaJob(PyObject* module, PyObject* args);
// leave_schema_job(job, forget): cut off, unless it is finished or to be forgotten.
PyObject* LeaveSchemaJob(PyObject* module, PyObject* args);

}  // namespace binding

#endif

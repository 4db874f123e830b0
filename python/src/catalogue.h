#ifndef SAGLEME_PYTHON_CATALOGUE_H
#define SAGLEME_PYTHON_CATALOGUE_H

// Functions of the module over the catalogue. The first argument is always the transaction; names
// are full names; columns are [(name, type, nullable, target)], index columns [(name, ascending)].

#include "types.h"

namespace binding {

// The transaction of an argument. Fails for anything else, and for one that has ended.
sagleme::Transaction& KernelOf(PyObject* transaction);
std::vector<sagleme::IndexColumnSpec> IndexColumns(PyObject* columns);
// A value of a column by itself; decimals are whole numbers of millionths, references None.
PyObject* FromValue(sagleme::Value const& value);
// The same back, for a column of that type.
sagleme::Value ValueFrom(PyObject* value, sagleme::Type type);

// Parses two to four texts and runs a change on them.
template <typename Change>
PyObject* WithTexts(PyObject* args, char const* format, Change&& change) {
  PyObject* transaction = nullptr;
  PyObject* texts[3] = {nullptr, nullptr, nullptr};
  if (!PyArg_ParseTuple(args, format, &transaction, &texts[0], &texts[1], &texts[2])) {
    return nullptr;
  }
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    std::u16string units[3];
    for (int i = 0; i < 3; ++i) {
      if (texts[i] != nullptr) units[i] = ToUnits(texts[i]);
    }
    Away(As<Transaction>(transaction), [&] { change(kernel, units[0], units[1], units[2]); });
    Py_RETURN_NONE;
  });
}

// All tables but the library's own, with columns and indexes, as dictionaries.
PyObject* Catalogue(PyObject* module, PyObject* transaction);
PyObject* AddColumns(PyObject* module, PyObject* args);       // table, columns
PyObject* SetOnDelete(PyObject* module, PyObject* args);      // table, column, rule
PyObject* SetComment(PyObject* module, PyObject* args);       // table, column or "", text
PyObject* SetIndexComment(PyObject* module, PyObject* args);  // index, text
PyObject* SetDefault(PyObject* module, PyObject* args);       // table, column, value or None
PyObject* SetAbstract(PyObject* module, PyObject* args);      // table, whether
PyObject* RenameColumn(PyObject* module, PyObject* args);     // table, column, new name
PyObject* RenameTable(PyObject* module, PyObject* args);      // table, new name
PyObject* DropTable(PyObject* module, PyObject* args);        // table, with its descendants

// vacuum(context, objects in a batch, report or None): moves objects to the shape of their tables.
// `report` is called with a dictionary after each batch; False ends the run.
PyObject* Vacuum(PyObject* module, PyObject* args);
// build_index(context, (name, table, columns, unique), whether to create it too, objects in a
// batch, report or None): whether it was built to the end. `report` is called as that of vacuum.
// One that is not to be created is forgotten if it cannot be for its duplicates.
PyObject* BuildIndex(PyObject* module, PyObject* args);
// retype_object(transaction, object, class, values, by_name, references, allow_losses) -> the
// object of the class. `references` is 0 to refuse those that may not lead there, 1 for null, 2 to
// keep.
PyObject* RetypeObject(PyObject* module, PyObject* args);
// plan_retype(transaction, ids, class, by_name) -> (number of objects,
// [(table, column, values that are lost)], [(object, table, column, target) of a reference]). `ids`
// is a buffer of numbers of 64 bits.
PyObject* PlanRetyping(PyObject* module, PyObject* args);
// retype(context, ids, name of a table, by_name, references, allow_losses, objects in a batch,
// report or None) -> how many objects it changed.
PyObject* RetypeObjects(PyObject* module, PyObject* args);
// jobs(context) -> [a dictionary of each]. The others take (context, id), and a report or None if
// their work is long, and return whether it was done to the end.
PyObject* Jobs(PyObject* module, PyObject* context);
PyObject* ResumeJob(PyObject* module, PyObject* args);
PyObject* StopJob(PyObject* module, PyObject* args);
PyObject* AbandonJob(PyObject* module, PyObject* args);
// check(directory, references, report or None) -> [(rule, table, object, sentence)]. `report` is
// called with two numbers, what is done and in all.
PyObject* Check(PyObject* module, PyObject* args);

}  // namespace binding

#endif

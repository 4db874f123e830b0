#ifndef SAGLEME_PYTHON_CATALOGUE_H
#define SAGLEME_PYTHON_CATALOGUE_H

// Functions of the module over the catalogue. The first argument is always the transaction; names
// are full names; columns are [(name, type, nullable, target)], index columns [(name, ascending)].

#include "python_api.h"

namespace binding {

// All tables but the library's own, with columns and indexes, as dictionaries.
PyObject* Catalogue(PyObject* module, PyObject* transaction);
PyObject* CreateTable(PyObject* module, PyObject* args);  // name, base, columns
PyObject* AddColumns(PyObject* module, PyObject* args);   // table, columns
PyObject* FinishReferences(PyObject* module, PyObject* args);
PyObject* DropColumn(PyObject* module, PyObject* args);    // table, column
PyObject* SetOnDelete(PyObject* module, PyObject* args);   // table, column, rule
PyObject* RenameColumn(PyObject* module, PyObject* args);  // table, column, new name
PyObject* RenameTable(PyObject* module, PyObject* args);   // table, new name
PyObject* DropTable(PyObject* module, PyObject* args);     // table, with its descendants
PyObject* CreateIndex(PyObject* module, PyObject* args);   // name, table, columns, unique
PyObject* DropIndex(PyObject* module, PyObject* args);     // name

// vacuum(context, objects in a batch, report or None): moves objects to the shape of their tables.
// `report` is called with a dictionary after each batch; False ends the run.
PyObject* Vacuum(PyObject* module, PyObject* args);
// check(directory, references) -> [(rule, table, object, sentence)]
PyObject* Check(PyObject* module, PyObject* args);

}  // namespace binding

#endif

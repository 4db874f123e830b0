// The module sagleme._core. The package's Python code uses it; programs do not import it.

#include <lscoredb/host.h>

#include "backup.h"
#include "catalogue.h"
#include "changes.h"
#include "columns.h"
#include "evolution.h"

namespace binding {

PyObject* GiveUpAfterFork(PyObject*, PyObject*);

namespace {

// status_text(n): the kernel's sentence.
PyObject* StatusText(PyObject*, PyObject* status) {
  unsigned long const number = PyLong_AsUnsignedLong(status);
  if (PyErr_Occurred()) return nullptr;
  return PyUnicode_FromString(lscoredb_status_text(static_cast<std::uint32_t>(number)));
}

// holds_database(place): whether there is a database to open, as far as one can tell.
PyObject* HoldsDatabase(PyObject*, PyObject* place) {
  return Guard([&] {
    std::string const name = TextOf(place);
    bool found = false;
    {
      Unlocked const unlocked;
      found = sagleme::Database::ExistsIn(name);
    }
    return PyBool_FromLong(found);
  });
}

// is_url(place): whether it is on a server.
PyObject* IsUrl(PyObject*, PyObject* place) {
  return Guard([&] { return PyBool_FromLong(sagleme::IsServerUrl(TextOf(place)) ? 1 : 0); });
}

// shown_place(place): as anybody may see it.
PyObject* ShownPlace(PyObject*, PyObject* place) {
  return Guard([&] {
    std::string const shown = sagleme::ShownPlace(TextOf(place));
    return PyUnicode_DecodeFSDefaultAndSize(shown.data(), static_cast<Py_ssize_t>(shown.size()));
  });
}

PyMethodDef g_functions[] = {{"scan", NewScan, METH_VARARGS, nullptr},
                             {"collect", Collect, METH_VARARGS, nullptr},
                             {"insert_arrow", InsertArrow, METH_VARARGS, nullptr},
                             {"insert_rows", InsertRows, METH_VARARGS, nullptr},
                             {"catalogue", Catalogue, METH_O, nullptr},
                             {"vacuum", Vacuum, METH_VARARGS, nullptr},
                             {"build_index", BuildIndex, METH_VARARGS, nullptr},
                             {"indexes_to_prepare", IndexesToPrepare, METH_VARARGS, nullptr},
                             {"keep_changes", KeepChanges, METH_VARARGS, nullptr},
                             {"kept_changes", KeptChanges, METH_O, nullptr},
                             {"backup", AddBackup, METH_VARARGS, nullptr},
                             {"backups", Backups, METH_VARARGS, nullptr},
                             {"restore", RestoreBackup, METH_VARARGS, nullptr},
                             {"retype_object", RetypeObject, METH_VARARGS, nullptr},
                             {"plan_retype", PlanRetyping, METH_VARARGS, nullptr},
                             {"retype", RetypeObjects, METH_VARARGS, nullptr},
                             {"jobs", Jobs, METH_O, nullptr},
                             {"resume_job", ResumeJob, METH_VARARGS, nullptr},
                             {"stop_job", StopJob, METH_VARARGS, nullptr},
                             {"abandon_job", AbandonJob, METH_VARARGS, nullptr},
                             {"check", Check, METH_VARARGS, nullptr},
                             {"set_on_delete", SetOnDelete, METH_VARARGS, nullptr},
                             {"set_comment", SetComment, METH_VARARGS, nullptr},
                             {"set_default", SetDefault, METH_VARARGS, nullptr},
                             {"set_abstract", SetAbstract, METH_VARARGS, nullptr},
                             {"set_index_comment", SetIndexComment, METH_VARARGS, nullptr},
                             {"add_columns", AddColumns, METH_VARARGS, nullptr},
                             {"plan_changes", PlanChanges, METH_VARARGS, nullptr},
                             {"apply_changes", ApplyChanges, METH_VARARGS, nullptr},
                             {"refusal_of", RefusalOf, METH_VARARGS, nullptr},
                             {"changes_to_prepare", ChangesToPrepare, METH_VARARGS, nullptr},
                             {"prepare_change", PrepareChange, METH_VARARGS, nullptr},
                             {"abandon_change", AbandonChange, METH_VARARGS, nullptr},
                             {"schema_document", SchemaDocument, METH_VARARGS, nullptr},
                             {"record_schema_job", RecordSchemaJob, METH_VARARGS, nullptr},
                             {"step_schema_job", StepSchemaJob, METH_O, nullptr},
                             {"finish_schema_job", FinishSchemaJob, METH_VARARGS, nullptr},
                             {"leave_schema_job", LeaveSchemaJob, METH_VARARGS, nullptr},
                             {"rename_column", RenameColumn, METH_VARARGS, nullptr},
                             {"rename_table", RenameTable, METH_VARARGS, nullptr},
                             {"drop_table", DropTable, METH_VARARGS, nullptr},
                             {"holds_database", HoldsDatabase, METH_O, nullptr},
                             {"is_url", IsUrl, METH_O, nullptr},
                             {"shown_place", ShownPlace, METH_O, nullptr},
                             {"status_text", StatusText, METH_O, nullptr},
                             {"give_up_after_fork", GiveUpAfterFork, METH_NOARGS, nullptr},
                             {nullptr, nullptr, 0, nullptr}};

PyModuleDef g_module = {PyModuleDef_HEAD_INIT,
                        "sagleme._core",
                        "The part of sagleme that is written in C++.",
                        -1,
                        g_functions,
                        nullptr,
                        nullptr,
                        nullptr,
                        nullptr};

bool AddType(PyObject* module, PyTypeObject& type) { return PyModule_AddType(module, &type) == 0; }

}  // namespace
}  // namespace binding

PyMODINIT_FUNC PyInit__core() {
  using namespace binding;
  Ref module(PyModule_Create(&g_module));
  if (!module) return nullptr;
  for (PyTypeObject* const type :
       {&g_database_type, &g_context_type, &g_transaction_type, &g_view_type, &g_object_type,
        &g_field_type, &g_scan_type, &g_columns_type, &g_buffer_type, &g_changes_type}) {
    if (!AddType(module.get(), *type)) return nullptr;
  }
  return module.release();
}

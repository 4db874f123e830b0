// Work on whole databases: the vacuum, the check, and indexes built beside writers.

#include <sagleme/check.hpp>
#include <sagleme/index_build.hpp>
#include <sagleme/vacuum.hpp>

#include "catalogue.h"
#include "reports.h"

namespace binding {
namespace {

PyObject* ProgressOf(sagleme::IndexBuildProgress const& done) {
  std::string_view const state = sagleme::IndexBuildStateName(done.state);
  return Py_BuildValue("{ss#sKsKsK}", "state", state.data(), static_cast<Py_ssize_t>(state.size()),
                       "done", done.done, "total", done.total, "conflicts", done.conflicts);
}

PyObject* ProgressOf(sagleme::VacuumProgress const& done) {
  return Py_BuildValue("{sKsKsKsKsKsK}", "moved", done.moved, "removed", done.removed,
                       "requests_done", done.requests_done, "requests", done.requests, "conflicts",
                       done.conflicts, "released", done.released);
}

PyObject* FindingOf(sagleme::Finding const& finding) {
  return Py_BuildValue("(s#s#Ks#)", finding.rule.data(),
                       static_cast<Py_ssize_t>(finding.rule.size()), finding.table.data(),
                       static_cast<Py_ssize_t>(finding.table.size()),
                       static_cast<unsigned long long>(finding.object), finding.what.data(),
                       static_cast<Py_ssize_t>(finding.what.size()));
}

// Of (name, table, columns, unique).
sagleme::IndexSpec IndexFrom(PyObject* told) {
  PyObject* name = nullptr;
  PyObject* table = nullptr;
  PyObject* columns = nullptr;
  int unique = 0;
  if (!PyArg_ParseTuple(told, "UUOp", &name, &table, &columns, &unique)) throw PythonError{};
  return {ToUnits(name), ToUnits(table), IndexColumns(columns),
          unique != 0 ? sagleme::Uniqueness::kUnique : sagleme::Uniqueness::kAny};
}

// Every writer would pay for the upkeep of a build that can come to nothing.
bool Prepare(sagleme::Context const& context, sagleme::IndexSpec const& index,
             sagleme::IndexBuildOptions const& options) {
  try {
    return sagleme::PrepareIndex(context, index, options);
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
    for (sagleme::IndexBuild const& build : sagleme::IndexBuilds(context)) {
      bool const same = build.index.name == index.name && build.index.table == index.table;
      if (same) sagleme::AbandonIndexBuild(context, build.id);
    }
    throw;
  }
}

}  // namespace

PyObject* BuildIndex(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  PyObject* told = nullptr;
  int create = 0;
  unsigned int batch = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "O!O!pIO", &g_context_type, &context_object, &PyTuple_Type, &told,
                        &create, &batch, &report)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const context = IdleContext(context_object, "an index is built");
    sagleme::IndexSpec const index = IndexFrom(told);
    sagleme::IndexBuildOptions options;
    options.batch = batch;
    options.report = [report](auto const& done) {
      return Report(report, [&] { return ProgressOf(done); });
    };
    bool const built = NotStopped([&] {
      Working const working(context->database);
      Unlocked const unlocked;
      return create != 0 ? sagleme::BuildIndex(*context->handle, index, options)
                         : Prepare(*context->handle, index, options);
    });
    if (PyErr_Occurred()) throw PythonError{};
    return PyBool_FromLong(built ? 1 : 0);
  });
}

PyObject* Vacuum(PyObject*, PyObject* args) {
  PyObject* context_object = nullptr;
  unsigned int batch = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "O!IO", &g_context_type, &context_object, &batch, &report)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const context = IdleContext(context_object, "the vacuum");
    sagleme::VacuumOptions options;
    options.batch = batch;
    options.report = [report](auto const& done) {
      return Report(report, [&] { return ProgressOf(done); });
    };
    sagleme::VacuumProgress done;
    {
      Working const working(context->database);
      Unlocked const unlocked;
      done = sagleme::RunVacuum(*context->handle, options);
    }
    if (PyErr_Occurred()) throw PythonError{};
    return ProgressOf(done);
  });
}

PyObject* Check(PyObject*, PyObject* args) {
  PyObject* path = nullptr;
  int references = 0;
  PyObject* report = nullptr;
  if (!PyArg_ParseTuple(args, "UpO", &path, &references, &report)) return nullptr;
  return Guard([&] {
    std::vector<sagleme::Finding> findings;
    std::string const directory = TextOf(path);
    NotStopped([&] {
      Unlocked const unlocked;
      Watched const watched(report);
      sagleme::CheckDatabase(directory, {.references = references != 0},
                             [&](sagleme::Finding const& each) { findings.push_back(each); });
    });
    if (PyErr_Occurred()) throw PythonError{};
    Ref list(Need(PyList_New(0)));
    for (sagleme::Finding const& each : findings) {
      Ref const entry(Need(FindingOf(each)));
      if (PyList_Append(list.get(), entry.get()) != 0) throw PythonError{};
    }
    return list.release();
  });
}

}  // namespace binding

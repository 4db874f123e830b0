// Long work that is recorded in the database: what runs, what was cut off, and its control.

#include <sagleme/jobs.hpp>

#include "catalogue.h"
#include "reports.h"

namespace binding {
namespace {

PyObject* TextFrom(std::string_view text) {
  return Need(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

PyObject* JobEntry(sagleme::Job const& job) {
  return Py_BuildValue("{sKsNsNsNsNsNsNsKsKsKsKsd}", "id", static_cast<unsigned long long>(job.id),
                       "kind", TextFrom(sagleme::JobKindName(job.kind)), "description",
                       TextFrom(job.description), "state",
                       TextFrom(sagleme::JobStateName(job.state)), "step", TextFrom(job.step),
                       "runner", TextFrom(job.runner), "reason", TextFrom(job.reason), "done",
                       static_cast<unsigned long long>(job.progress.done), "total",
                       static_cast<unsigned long long>(job.progress.total), "rate",
                       static_cast<unsigned long long>(job.progress.rate), "batch",
                       static_cast<unsigned long long>(job.batch), "pause",
                       static_cast<double>(job.pause.count()) / 1000);
}

PyObject* ProgressOf(sagleme::JobProgress const& done) {
  return Py_BuildValue("{sKsKsK}", "done", static_cast<unsigned long long>(done.done), "total",
                       static_cast<unsigned long long>(done.total), "rate",
                       static_cast<unsigned long long>(done.rate));
}

// Parses (context, id, report or None, allow_losses) and runs work that takes them.
template <typename Work>
PyObject* WithJob(PyObject* args, Work&& work) {
  PyObject* context_object = nullptr;
  unsigned long long id = 0;
  PyObject* report = Py_None;
  int allow_losses = 0;
  if (!PyArg_ParseTuple(args, "O!K|Op", &g_context_type, &context_object, &id, &report,
                        &allow_losses)) {
    return nullptr;
  }
  return Guard([&] {
    Context const* const context = IdleContext(context_object, "work on a job");
    sagleme::JobOptions options;
    options.allow_losses = allow_losses != 0;
    options.report = [report](auto const& done) {
      return Report(report, [&] { return ProgressOf(done); });
    };
    bool finished = false;
    try {
      finished = NotStopped([&] {
        Working const working(context->database);
        Unlocked const unlocked;
        return work(*context->handle, id, options);
      });
    } catch (sagleme::Error const& error) {
      if (error.status() != LSCOREDB_WRONG_TYPE) throw;
      Raise("SchemaError", error.what());  // values that it would lose
    }
    if (PyErr_Occurred()) throw PythonError{};
    return PyBool_FromLong(finished ? 1 : 0);
  });
}

}  // namespace

PyObject* Jobs(PyObject*, PyObject* context_object) {
  return Guard([&] {
    if (Py_TYPE(context_object) != &g_context_type) Raise("WrongType", "a context is needed");
    Context const* const context = IdleContext(context_object, "jobs are listed");
    std::vector<sagleme::Job> jobs;
    {
      Working const working(context->database);
      Unlocked const unlocked;
      jobs = sagleme::Jobs(*context->handle);
    }
    Ref list(Need(PyList_New(0)));
    for (sagleme::Job const& job : jobs) {
      Ref const entry(Need(JobEntry(job)));
      if (PyList_Append(list.get(), entry.get()) != 0) throw PythonError{};
    }
    return list.release();
  });
}

PyObject* ResumeJob(PyObject*, PyObject* args) {
  return WithJob(args, [](auto const& context, auto id, auto const& options) {
    return sagleme::ResumeJob(context, id, options);
  });
}

PyObject* StopJob(PyObject*, PyObject* args) {
  return WithJob(args, [](auto const& context, auto id, auto const&) {
    sagleme::StopJob(context, id);
    return true;
  });
}

PyObject* AbandonJob(PyObject*, PyObject* args) {
  return WithJob(args, [](auto const& context, auto id, auto const& options) {
    sagleme::AbandonJob(context, id, options);
    return true;
  });
}

}  // namespace binding

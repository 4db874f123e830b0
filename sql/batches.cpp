#include "batches.h"

#include <lscoredb/watch.h>

#include <sagleme/column_changes.hpp>

#include "api.h"
#include "failure.h"

namespace sagleme::sql {
namespace {

[[noreturn]] void ThrowStopped() {
  throw Failure(SQLITE_INTERRUPT,
                "The definition was stopped. What was done is kept: the same statement continues "
                "it, and so does the command sagleme jobs, which can abandon it, too.");
}

// A build that found duplicates stays for those who correct them. An error of SQL leaves nothing.
void RemoveBuild(Context const& context, Text const& name) {
  for (IndexBuild const& build : IndexBuilds(context)) {
    if (build.index.name == name) AbandonIndexBuild(context, build.id);
  }
}

bool Build(Context const& context, IndexSpec const& index, std::function<bool()> const& goes_on) {
  IndexBuildOptions options;
  options.report = [&goes_on](IndexBuildProgress const&) { return goes_on(); };
  try {
    return BuildIndex(context, index, options);
  } catch (Error const& error) {
    if (error.status() == LSCOREDB_STOPPED) return false;
    if (error.status() == LSCOREDB_DUPLICATE_KEY) RemoveBuild(context, index.name);
    throw;
  }
}

bool ChangeColumn(Context const& context, change::ChangeColumn const& it,
                  std::function<bool()> const& goes_on) {
  JobControl control;
  ColumnChangeOptions options;
  options.control = &control;
  options.report = [&](ColumnChangeProgress const&) {
    if (!goes_on()) control.Stop();
    return true;
  };
  ColumnSpec const column{it.after.name, it.after.type, it.after.nullable, it.after.target};
  try {
    return RunChangeColumnType(context, it.table, column, options);
  } catch (Error const& error) {
    if (error.status() == LSCOREDB_STOPPED) return false;
    throw;
  }
}

}  // namespace

LongWork LongWorkOf(Transaction& transaction, DefinitionStatement const& statement) {
  Plan const plan = ChangesOf(transaction, statement);
  LongWork work;
  work.indexes = IndexesToPrepare(transaction, plan);
  for (Change const& change : ChangesToPrepare(transaction, plan)) {
    if (auto const* const it = std::get_if<change::ChangeColumn>(&change)) {
      work.columns.push_back(*it);
    }
  }
  return work;
}

void RunInBatches(Context const& context, LongWork const& work,
                  std::function<bool()> const& goes_on) {
  for (IndexSpec const& index : work.indexes) {
    if (!Build(context, index, goes_on)) ThrowStopped();
  }
  for (change::ChangeColumn const& change : work.columns) {
    if (!ChangeColumn(context, change, goes_on)) ThrowStopped();
  }
}

}  // namespace sagleme::sql

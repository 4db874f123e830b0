#ifndef SAGLEME_SQL_BATCHES_H
#define SAGLEME_SQL_BATCHES_H

// Definitions over many objects, made in batches.
//
// A transaction that reads or writes all objects of a table conflicts with everybody who changes
// one of them meanwhile. So where nothing else belongs to the transaction, the host library's jobs
// (<sagleme/jobs.hpp>) do the work in small transactions of their own.

#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/index_build.hpp>
#include <vector>

#include "definition.h"

namespace sagleme::sql {

struct LongWork {
  std::vector<IndexSpec> indexes;  // to be built
  std::vector<change::ChangeColumn> columns;

  bool empty() const { return indexes.empty() && columns.empty(); }
};

// All that a statement does, if it is such a definition; otherwise nothing.
LongWork LongWorkOf(Transaction& transaction, DefinitionStatement const& statement);

// Does it. REQUIRES: the context has no transaction open. `goes_on`: asked after each batch. Throws
// Failure of SQLITE_INTERRUPT once it says no, and leaves a job that the same statement continues.
// What the objects refuse leaves nothing behind.
void RunInBatches(Context const& context, LongWork const& work,
                  std::function<bool()> const& goes_on);

}  // namespace sagleme::sql

#endif

// Changes of columns in batches.

#include <sagleme/column_changes.hpp>

#include "columns/column_job.h"
#include "columns/prepared.h"

namespace sagleme {

bool RunPullUpColumn(Context const& context, Text const& table, Text const& column,
                     Text const& base, ColumnChangeOptions const& options) {
  columns::Job job(context, options, [&](Transaction& transaction) {
    return columns::PreparationOfPullUp(transaction, table, column, base);
  });
  return job.Run([&](Transaction& transaction) { PullUpColumn(transaction, table, column, base); });
}

bool RunPushDownColumn(Context const& context, Text const& table, Text const& column,
                       std::span<Text const> tables, ColumnChangeOptions const& options) {
  columns::Job job(context, options, [&](Transaction& transaction) {
    if (options.loss == Loss::kRefuse) RequireNoneLost(transaction, table, column, tables);
    return columns::PreparationOfPushDown(transaction, table, column, tables);
  });
  return job.Run([&](Transaction& transaction) {
    PushDownColumn(transaction, table, column, tables, options.loss);
  });
}

bool RunChangeColumnType(Context const& context, Text const& table, ColumnSpec const& column,
                         ColumnChangeOptions const& options) {
  columns::Job job(context, options, [&](Transaction& transaction) {
    if (options.loss == Loss::kRefuse) RequireConvertible(transaction, table, column);
    return columns::PreparationOfRetype(transaction, table, column);
  });
  return job.Run([&](Transaction& transaction) {
    ChangeColumnType(transaction, table, column, options.loss);
  });
}

void AbandonColumnChange(Transaction& transaction, Text const& table, Text const& column) {
  TablePtr const top = transaction.table(table);
  std::vector<TablePtr> const children = transaction.Children(*top);
  columns::DropPrepared(transaction, top->name, column);
  for (TablePtr const& child : children) AbandonColumnChange(transaction, child->name, column);
}

}  // namespace sagleme

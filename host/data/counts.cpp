#include <sagleme/counts.hpp>

namespace sagleme {

std::vector<lscoredb_layout_statistics> LayoutStatistics(Transaction& transaction) {
  std::uint32_t count = 0;
  detail::CheckKernel(lscoredb_layout_stats(transaction.context(), &count, nullptr));
  std::vector<lscoredb_layout_statistics> statistics(count);
  if (count != 0) {
    detail::CheckKernel(lscoredb_layout_stats(transaction.context(), &count, statistics.data()));
  }
  return statistics;
}

ObjectCounts::ObjectCounts(Transaction& transaction) {
  std::map<std::uint16_t, TablePtr> by_layout;
  for (TablePtr const& table : transaction.Tables(true)) by_layout[table->layout] = table;
  bool superseded = false;
  for (lscoredb_layout_statistics const& layout : LayoutStatistics(transaction)) {
    total_ += layout.objects;
    auto const current = by_layout.find(layout.layout);
    if (current != by_layout.end()) {
      by_setspec_[current->second->setspec] += layout.objects;
    } else if (layout.objects != 0) {
      superseded = true;
    }
  }
  if (!superseded) return;
  by_setspec_.clear();
  for (Object const& object : Range::Subtree(transaction, *RootTable(transaction))) {
    ReadScope const scope(transaction.context());
    ++by_setspec_[object.setspec()];
  }
}

std::uint64_t ObjectCounts::Own(Table const& table) const {
  auto const found = by_setspec_.find(table.setspec);
  return found == by_setspec_.end() ? 0 : found->second;
}

std::uint64_t ObjectCounts::Subtree(Table const& table) const {
  std::uint64_t count = 0;
  for (auto at = by_setspec_.lower_bound(table.setspec);
       at != by_setspec_.end() && at->first.starts_with(table.setspec); ++at) {
    count += at->second;
  }
  return count;
}

std::vector<Column const*> UserColumns(Table const& table) {
  std::vector<Column const*> columns;
  for (Column const& column : table.columns) {
    if (!column.system()) columns.push_back(&column);
  }
  return columns;
}

}  // namespace sagleme

#include "columns/rewrite.h"

#include "columns/indexes.h"

namespace sagleme::columns {
namespace {

detail::ColumnLocation At(Transaction& transaction, Object const& object, Table const& table,
                          Column const& column) {
  std::uint64_t const position = object.reference().addr & ~std::uint64_t{0xFFFF};
  return {transaction.context(), object.id().value, position | table.layout, column.ordinal};
}

class Copier {
 public:
  Copier(Transaction& transaction, Rewrite const& rewrite)
      : transaction_(transaction), rewrite_(rewrite) {}

  // Reads by the layout from before, which still has the column, and writes by the new one.
  void CopyTable(Table const& before, bool same_form) {
    TablePtr const after = transaction_.ById(before.id());
    Column const& from = before.GetColumn(rewrite_.column);
    Column const& to = after->GetColumn(rewrite_.column);
    Converter const convert(transaction_, from.type, rewrite_.wanted);
    for (Object const& object : Range::Only(transaction_, *after)) {
      ReadScope const scope(transaction_.context());
      auto const reading = At(transaction_, object, before, from);
      auto const writing = At(transaction_, object, *after, to);
      Value const old = detail::GetValue(reading, from.type);
      Value const value = convert(old).value;
      Value const present = same_form ? old : detail::GetValue(writing, to.type);
      if (!SameValue(present, value)) detail::PutValue(writing, to.type, value);
    }
  }

 private:
  Transaction& transaction_;
  Rewrite const& rewrite_;
};

}  // namespace

void Apply(Transaction& transaction, Subtree& subtree, Rewrite const& rewrite) {
  IndexesOnColumn indexes(transaction, subtree, rewrite.column);
  std::vector<std::uint64_t> before;
  for (std::size_t i = 0; i < subtree.nodes().size(); ++i) {
    before.push_back(subtree.TokenBefore(i, rewrite.column));
  }
  subtree.Write();
  indexes.Detach();
  Copier copier(transaction, rewrite);
  for (std::size_t i = 0; i < subtree.nodes().size(); ++i) {
    std::uint64_t const after = subtree.TokenAfter(i, rewrite.column);
    bool const same = before[i] == after;
    if (before[i] == 0 || after == 0 || (same && !rewrite.losing)) continue;
    copier.CopyTable(*subtree.nodes()[i].before, same);
  }
  indexes.Attach(rewrite.tables);
  detail::Inside(transaction.context(), [] { metalayer::AdvanceSchemaGeneration(); });
  transaction.Forget();
}

}  // namespace sagleme::columns

#include "columns/rewrite.h"

#include "columns/indexes.h"

namespace sagleme::columns {
namespace {

class Copier {
 public:
  Copier(Transaction& transaction, Rewrite const& rewrite)
      : transaction_(transaction), rewrite_(rewrite) {}

  // Reads by the layout from before, which still has the column, and writes by the new one.
  void CopyTable(Table const& before, bool same_form) {
    TablePtr const after = transaction_.ById(before.id());
    Column const& from = before.GetColumn(rewrite_.column);
    Column const& to = after->GetColumn(rewrite_.column);
    // A zero that was never written would become null as soon as the object moves.
    bool const may_be_unwritten = same_form && !from.nullable && to.nullable;
    Value const zero = ZeroOf(to.type);
    Converter const convert(transaction_, from, rewrite_.wanted);
    for (Object const& object : Range::Only(transaction_, *after)) {
      ReadScope const scope(transaction_.context());
      Value const old = object.Get(before, from);
      Value const value = convert(old).value;
      Value const present = same_form ? old : object.Get(*after, to);
      bool const unwritten = may_be_unwritten && SameValue(value, zero);
      if (unwritten || !SameValue(present, value))
        PutConverted(transaction_, object, *after, to, value);
    }
  }

 private:
  Transaction& transaction_;
  Rewrite const& rewrite_;
};

}  // namespace

void Apply(Transaction& transaction, Subtree& subtree, Rewrite const& rewrite) {
  IndexesOnColumn indexes(transaction, subtree, rewrite.column, rewrite.wanted.nullable);
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
    if (before[i] == 0 || after == 0 || (same && !rewrite.values)) continue;
    copier.CopyTable(*subtree.nodes()[i].before, same);
  }
  indexes.Attach(rewrite.tables);
  detail::Inside(transaction.context(), [] { metalayer::AdvanceSchemaGeneration(); });
  transaction.Forget();
}

}  // namespace sagleme::columns

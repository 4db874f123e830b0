// What a change of a column would lose, found before it is made.

#include <algorithm>

#include "columns/convert.h"
#include "columns/requests.h"

namespace sagleme {
namespace {

class Gathering {
 public:
  Gathering(Transaction& transaction, Table const& table, Column const& column, std::size_t limit)
      : transaction_(transaction), table_(table), column_(column), limit_(limit) {}

  template <typename Work>
  void ForEach(Work&& work) {
    for (Object const& object : Range::Subtree(transaction_, table_)) {
      ReadScope const scope(transaction_.context());
      work(object, object.Get(table_, column_));
    }
  }
  void Add(Object const& object, Value value, Value instead) {
    if (++lost_.count > limit_) return;
    lost_.first.push_back(
        {object.id(), object.table()->name, std::move(value), std::move(instead)});
  }
  LostValues Take() { return std::move(lost_); }

 private:
  Transaction& transaction_;
  Table const& table_;
  Column const& column_;
  std::size_t limit_;
  LostValues lost_;
};

// Whether no value can be lost, whatever there is.
bool IsSafe(Transaction& transaction, columns::Retype const& request) {
  Column const& from = *request.column;
  columns::Wanted const& to = request.wanted;
  if (from.nullable && !to.nullable) return false;
  if (from.type == Type::kReference && to.type == Type::kReference) {
    return transaction.ById(from.target_id)->IsA(*transaction.ById(to.target));
  }
  return ConversionOf(from.type, to.type) == Conversion::kAll;
}

// Whether objects of the table have the column afterwards.
bool Keeps(columns::PushDown const& request, Table const& table) {
  return std::any_of(request.tables.begin(), request.tables.end(),
                     [&](TablePtr const& each) { return table.IsA(*each); });
}

}  // namespace

void columns::ClearLost(Transaction& transaction, PushDown const& request) {
  Value const nothing = request.column->nullable ? Null{} : ZeroOf(request.column->type);
  for (Object const& object : Range::Subtree(transaction, *request.base)) {
    TablePtr const table = object.table();
    if (Keeps(request, *table)) continue;
    ReadScope const scope(transaction.context());
    Column const& column = table->GetColumn(request.column->name);
    if (SameValue(object.Get(*table, column), nothing)) continue;
    PutConverted(transaction, object, *table, column, nothing);
  }
}

LostValues FindLost(Transaction& transaction, Text const& table, Text const& column,
                    std::span<Text const> tables, std::size_t limit) {
  columns::PushDown const request = columns::RequirePushDown(transaction, table, column, tables);
  Gathering gathering(transaction, *request.base, *request.column, limit);
  gathering.ForEach([&](Object const& object, Value value) {
    if (IsNull(value)) return;
    if (!Keeps(request, *object.table())) gathering.Add(object, std::move(value), Null{});
  });
  return gathering.Take();
}

LostValues FindUnconvertible(Transaction& transaction, Text const& table, ColumnSpec const& column,
                             std::size_t limit) {
  columns::Retype const request = columns::RequireRetype(transaction, table, column);
  if (request.same || IsSafe(transaction, request)) return {};
  columns::Converter const convert(transaction, *request.column, request.wanted);
  Gathering gathering(transaction, *request.table, *request.column, limit);
  gathering.ForEach([&](Object const& object, Value value) {
    columns::Converted converted = convert(value);
    if (!converted.exact) gathering.Add(object, std::move(value), std::move(converted.value));
  });
  return gathering.Take();
}

}  // namespace sagleme

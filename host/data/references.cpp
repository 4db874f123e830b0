#include <fmt/format.h>

#include <optional>
#include <sagleme/host/references.hpp>

namespace sagleme {
namespace {

// The unique index over only this column that covers a table; nothing if there is none.
std::optional<Index> UniqueIndexOver(Transaction& transaction, Table const& table,
                                     std::u16string const& column) {
  for (TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    for (Index const& index : at->indexes) {
      if (index.unique && index.columns.size() == 1 && index.columns[0].name == column)
        return index;
    }
  }
  return std::nullopt;
}

}  // namespace

ObjectId ReferencedObject(Transaction& transaction, Column const& column, std::string const& text) {
  auto const equals = text.find('=');
  if (equals == std::string::npos) {
    throw BadValue(fmt::format("\"{}\" is neither an object's id nor column=value", text));
  }
  std::string const name = text.substr(0, equals);
  std::string const value = text.substr(equals + 1);
  TablePtr const target = transaction.table(column.target);
  std::string const target_name = ToUtf8(target->name);
  auto const index = UniqueIndexOver(transaction, *target, ToUtf16(name));
  if (!index) {
    throw BadValue(fmt::format("there is no unique index over column {} of {}", name, target_name));
  }
  Value const key = ParseValue(index->columns[0].type, value);
  auto const found = Range::Matching(transaction, *index, {key}).Next();
  if (found) return found->id();
  throw BadValue(fmt::format("there is no {} with {} = {}", target_name, name, value));
}

}  // namespace sagleme

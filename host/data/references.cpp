#include "data/references.h"

#include <fmt/format.h>

#include <optional>

#include "text/json_value.h"

namespace tool {
namespace {

// The unique index over one column alone that covers a table; nothing when there is none.
std::optional<sagleme::Index> UniqueIndexOver(sagleme::Transaction& transaction,
                                              sagleme::Table const& table,
                                              std::u16string const& column) {
  for (sagleme::TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    for (sagleme::Index const& index : at->indexes) {
      if (index.unique && index.columns.size() == 1 && index.columns[0].name == column)
        return index;
    }
  }
  return std::nullopt;
}

}  // namespace

sagleme::ObjectId ReferencedObject(sagleme::Transaction& transaction, sagleme::Column const& column,
                                   std::string const& text) {
  auto const equals = text.find('=');
  if (equals == std::string::npos) {
    throw sagleme::BadValue(fmt::format("\"{}\" is neither an object's id nor column=value", text));
  }
  std::string const name = text.substr(0, equals);
  std::string const value = text.substr(equals + 1);
  sagleme::TablePtr const target = transaction.table(column.target);
  std::string const target_name = sagleme::ToUtf8(target->name);
  auto const index = UniqueIndexOver(transaction, *target, sagleme::ToUtf16(name));
  if (!index) {
    throw sagleme::BadValue(
        fmt::format("there is no unique index over column {} of {}", name, target_name));
  }
  sagleme::Value const key = sagleme::ParseValue(index->columns[0].type, value);
  auto const found = sagleme::Range::Matching(transaction, *index, {key}).Next();
  if (found) return found->id();
  throw sagleme::BadValue(fmt::format("there is no {} with {} = {}", target_name, name, value));
}

}  // namespace tool

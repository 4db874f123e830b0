#include "annotations/referrers.h"

#include <sagleme/annotations.hpp>

#include "annotations/rules.h"

namespace sagleme {
namespace detail {

Index const* IndexBeginningWith(Table const& table, std::u16string const& column) {
  for (Index const& index : table.indexes) {
    if (index.columns.front().name == column) return &index;
  }
  return nullptr;
}

std::string ReferrerIndexName(std::string const& table, std::string const& column) {
  std::string name = table;
  return name.append(".").append(column).append(".Referrers");
}

std::vector<Object> FindReferrers(Transaction& transaction, Table const& table,
                                  Column const& column, ObjectId target) {
  std::vector<Object> found;
  if (Index const* const index = IndexBeginningWith(table, column.name)) {
    for (Object const& each : Range::Matching(transaction, *index, {target})) found.push_back(each);
    return found;
  }
  Property<ObjectId> const reference(table, column);
  for (Object const& each : Range::Subtree(transaction, table)) {
    if (reference.Get(each) == target) found.push_back(each);
  }
  return found;
}

bool HasReferrer(Transaction& transaction, Table const& table, Column const& column,
                 ObjectId target) {
  if (Index const* const index = IndexBeginningWith(table, column.name)) {
    return Range::Matching(transaction, *index, {target}).Next().has_value();
  }
  Property<ObjectId> const reference(table, column);
  Range objects = Range::Subtree(transaction, table);
  while (auto const each = objects.Next()) {
    if (reference.Get(*each) == target) return true;
  }
  return false;
}

}  // namespace detail

std::vector<Object> Referrers(Transaction& transaction, ObjectId target, Table const& table,
                              TextView const& column) {
  detail::RequireOwn(transaction, table);
  Column const& found = table.GetColumn(column);
  if (found.type != Type::kReference) {
    throw Error(LSCOREDB_WRONG_TYPE, "Column " + ToUtf8(found.name) + " of table " +
                                         ToUtf8(table.name) + " is no reference.");
  }
  TablePtr const declaring = annotations::DeclaringTable(transaction, table, found);
  Column const& own = declaring->GetColumn(found.name);
  std::vector<Object> all = detail::FindReferrers(transaction, *declaring, own, target);
  // An index of the declaring table holds the objects of its other descendants too.
  std::erase_if(all, [&](Object const& each) {
    TablePtr const its = each.table();
    return its == nullptr || !its->IsA(table);
  });
  return all;
}

}  // namespace sagleme

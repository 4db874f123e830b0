#include "hierarchy/referrers.h"

#include <fmt/format.h>

#include <algorithm>

#include "hierarchy/known_referrers.h"

namespace sagleme {
namespace {

constexpr std::size_t kListed = 20;

bool IsReference(Column const& column) {
  return column.type == Type::kReference && !column.inherited && column.target_id.value != 0;
}

// An index that begins with the column and covers all objects that have it.
Index const* IndexBy(Table const& table, Column const& column) {
  auto const found =
      std::find_if(table.indexes.begin(), table.indexes.end(), [&](Index const& index) {
        return !index.columns.empty() && index.columns[0].name == column.name;
      });
  return found == table.indexes.end() ? nullptr : &*found;
}

void FindIn(Transaction& transaction, Table const& table, Column const& column,
            ReferrerQuery const& query, std::vector<Referrer>& found) {
  Index const* const index = query.objects.empty() ? nullptr : IndexBy(table, column);
  if (index == nullptr && query.known != nullptr) {
    return query.known->Find(transaction, table, column, query, found);
  }
  if (index == nullptr) {
    for (Object const& object : Range::Subtree(transaction, table)) {
      AddIfItLeaves(object, table, column, query, found);
    }
    return;
  }
  for (ObjectId const target : query.objects) {
    for (Object const& object : Range::Matching(transaction, *index, {target})) {
      AddIfItLeaves(object, table, column, query, found);
    }
  }
}

std::string Sentence(Transaction& transaction, Referrer const& referrer) {
  TablePtr const table = transaction.table(referrer.table);
  return fmt::format("object {} refers to object {} by {} of {}, which leads to {}",
                     referrer.object.value, referrer.target.value, ToUtf8(referrer.column),
                     ToUtf8(referrer.table), ToUtf8(table->GetColumn(referrer.column).target));
}

[[noreturn]] void Refuse(Transaction& transaction, std::vector<Referrer> const& referrers,
                         std::string const& what) {
  std::string text = what;
  for (std::size_t i = 0; i < std::min(referrers.size(), kListed); ++i) {
    text += (i == 0 ? ": " : ";\n  ") + Sentence(transaction, referrers[i]);
  }
  if (referrers.size() > kListed) {
    text += fmt::format(";\n  and {} more references", referrers.size() - kListed);
  }
  throw Failure(Failure::Kind::kRefused, text,
                "Change these references first, or ask for them to be set to null or kept.");
}

}  // namespace

std::optional<ObjectId> TargetOf(Object const& object, Table const& table, Column const& column) {
  Value const value = object.Get(table, column);
  auto const* const target = std::get_if<ObjectId>(&value);
  return target == nullptr || target->value == 0 ? std::nullopt : std::optional(*target);
}

void AddIfItLeaves(Object const& object, Table const& table, Column const& column,
                   ReferrerQuery const& query, std::vector<Referrer>& found) {
  auto const target = TargetOf(object, table, column);
  if (target && query.leaves(*target)) {
    found.push_back({object.id(), table.name, column.name, *target});
  }
}

std::vector<Referrer> FindReferrers(Transaction& transaction, ReferrerQuery const& query) {
  std::vector<Referrer> found;
  for (TablePtr const& table : transaction.Tables()) {
    for (Column const& column : table->columns) {
      if (!IsReference(column)) continue;
      TablePtr const target = transaction.ById(column.target_id);
      if (target != nullptr && query.loses(*target)) {
        FindIn(transaction, *table, column, query, found);
      }
    }
  }
  return found;
}

void SettleReferrers(Transaction& transaction, std::vector<Referrer> const& referrers,
                     Referring referring, std::string const& what) {
  if (referrers.empty() || referring == Referring::kKeep) return;
  if (referring == Referring::kRefuse) Refuse(transaction, referrers, what);
  for (Referrer const& referrer : referrers) {
    TablePtr const table = transaction.table(referrer.table);
    Column const& column = table->GetColumn(referrer.column);
    // Past the rules: the target of a last reference is moved, not deleted.
    detail::CheckKernel(
        detail::Put(detail::ColumnLocation{transaction.context(), referrer.object.value,
                                           table->layout, column.ordinal},
                    Null{}));
  }
}

}  // namespace sagleme

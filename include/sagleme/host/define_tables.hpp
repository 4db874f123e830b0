#ifndef SAGLEME_HOST_DEFINE_TABLES_HPP
#define SAGLEME_HOST_DEFINE_TABLES_HPP

// Tables from mappings (<sagleme/host/mapping.hpp>).

#include <sagleme/host/mapping.hpp>
#include <sagleme/host/savepoint.hpp>
#include <string>
#include <vector>

namespace sagleme {

// Creates the tables of the structs, or adds missing columns and indexes to them, bases first.
// Tables that refer to each other must be in one call, in any order. Existing definitions are
// compared and kept: nothing is dropped, renamed or changed, and nothing is written if nothing is
// missing. On failure nothing of the call is kept. Throws SAGLEME_SCHEMA_MISMATCH for another base
// or a reference to another table, LSCOREDB_WRONG_TYPE for a column that cannot hold a member,
// SAGLEME_TARGET_NOT_FOUND for a reference to a missing table, SAGLEME_INDEX_EXISTS for another
// index with the name.
template <Mapped... Structs>
void DefineTables(Transaction& transaction);

// ---- bodies -------------------------------------------------------------------------------------

namespace detail {

template <typename Struct, typename M>
ColumnSpec SpecOf(MemberMapping<Struct, M> const& member) {
  return {member.column, Storage<M>::kType, Storage<M>::kNullable,
          TargetOf<M>::Name(member.target)};
}

template <typename M>
void RequireSame(Table const& table, Column const& column, std::string_view target) {
  RequireFit<M>(table, column);
  if (Storage<M>::kType != Type::kReference || column.target == ToUtf16(target)) return;
  throw Error(SAGLEME_SCHEMA_MISMATCH,
              "Column " + ToUtf8(column.name) + " of table " + ToUtf8(table.name) + " refers to " +
                  ToUtf8(column.target) + ", not to " + std::string(target) + ".");
}

// The columns of T's own members that `table` lacks; null: all of them.
template <Mapped T>
std::vector<ColumnSpec> LackingColumns(TablePtr const& table) {
  std::vector<ColumnSpec> lacking;
  VisitOwnMembers<T>([&]<typename Struct, typename M>(MemberMapping<Struct, M> const& member) {
    Column const* const column = table == nullptr ? nullptr : table->FindColumn(member.column);
    if (column == nullptr) {
      lacking.push_back(SpecOf(member));
    } else {
      RequireSame<M>(*table, *column, TargetOf<M>::Name(member.target));
    }
  });
  return lacking;
}

template <Mapped T>
std::string_view BaseName() {
  if constexpr (std::is_void_v<MappedBase<T>>) {
    return {};
  } else {
    static_assert(std::is_base_of_v<MappedBase<T>, T>, "Base names a struct that T derives from");
    return mapping<MappedBase<T>>.table;
  }
}

// Whether the table was made.
template <Mapped T>
bool CreateLackingTable(Transaction& transaction) {
  bool made = false;
  if constexpr (!std::is_void_v<MappedBase<T>>)
    made = CreateLackingTable<MappedBase<T>>(transaction);
  std::string_view const base = BaseName<T>();
  TablePtr const table = transaction.Find(mapping<T>.table);
  if (table == nullptr) {
    CreateTable(transaction, mapping<T>.table, base, LackingColumns<T>(nullptr));
    return true;
  }
  Text const expected = base.empty() ? Text(RootTable(transaction)->name) : Text(base);
  if (table->base != expected) {
    throw Error(SAGLEME_SCHEMA_MISMATCH, "Table " + ToUtf8(table->name) + " derives from " +
                                             ToUtf8(table->base) + ", not from " +
                                             ToUtf8(expected) + ".");
  }
  return made;
}

template <Mapped T>
void AddLackingColumns(Transaction& transaction) {
  if constexpr (!std::is_void_v<MappedBase<T>>) AddLackingColumns<MappedBase<T>>(transaction);
  auto const lacking = LackingColumns<T>(transaction.table(mapping<T>.table));
  if (!lacking.empty()) AddColumns(transaction, mapping<T>.table, lacking);
}

template <Mapped T>
void CreateLackingIndexes(Transaction& transaction) {
  if constexpr (!std::is_void_v<MappedBase<T>>) CreateLackingIndexes<MappedBase<T>>(transaction);
  VisitIndexes<T>([&](auto const& index) {
    std::vector<IndexColumnSpec> columns;
    for (IndexPart const& part : index.parts) columns.push_back({part.column, part.ascending});
    CreateIndex(transaction, index.name, mapping<T>.table, columns, index.uniqueness);
  });
}

}  // namespace detail

// References whose tables come later get their types before anything else looks at them.
template <Mapped... Structs>
void DefineTables(Transaction& transaction) {
  Savepoint whole(transaction);
  bool made = false;
  ((made = detail::CreateLackingTable<Structs>(transaction) || made), ...);
  if (made) FinishReferences(transaction);
  (detail::AddLackingColumns<Structs>(transaction), ...);
  (detail::CreateLackingIndexes<Structs>(transaction), ...);
  whole.Release();
}

}  // namespace sagleme

#endif

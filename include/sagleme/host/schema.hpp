#ifndef SAGLEME_HOST_SCHEMA_HPP
#define SAGLEME_HOST_SCHEMA_HPP

// Schema changes. They belong to the given transaction and are committed or rolled back with it.
//
// Names are full names. If a change fails halfway, roll the transaction back. Objects are never
// touched: the catalogue records which objects must be moved or removed, and <sagleme/vacuum.hpp>
// does it later.

#include <initializer_list>
#include <sagleme/host/transaction.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

struct ColumnSpec {
  Text name;
  Type type = Type::kString;
  bool nullable = true;
  Text target = {};  // of a reference: the full name of its table
};

struct IndexColumnSpec {
  Text name;
  bool ascending = true;
};

enum class Uniqueness : bool { kAny, kUnique };

namespace detail {

// Arrays for the C interface, valid as long as this object and the specs it was made from.
class ColumnArray {
 public:
  explicit ColumnArray(std::span<ColumnSpec const> specs) {
    for (ColumnSpec const& spec : specs) {
      LORV_COLUMN_DEFINITION_NAMES entry{};
      entry.logical_type = static_cast<std::uint8_t>(spec.type);
      entry.type_name = spec.type == Type::kReference ? spec.target.c_str() : nullptr;
      entry.is_nullable = spec.nullable ? 1 : 0;
      entry.name = spec.name.c_str();
      entries_.push_back(entry);
    }
    entries_.push_back({});
  }
  LORV_COLUMN_DEFINITION_NAMES const* data() const { return entries_.data(); }

 private:
  std::vector<LORV_COLUMN_DEFINITION_NAMES> entries_;
};

// The layer makes no column of type key without null.
inline void RequireNullableKey(Text const& table, ColumnSpec const& column) {
  if (column.type != Type::kKey || column.nullable) return;
  throw Error(SAGLEME_BAD_ARGUMENT, "Column " + ToUtf8(column.name) + " of " + ToUtf8(table) +
                                        " must be nullable: its type is key. Or make it a ulong, "
                                        "which holds the same numbers.");
}

// Removes the annotations of what is no longer there.
SAGLEME_HOST_API void DropStaleAnnotations(Transaction& transaction);

// Runs one change and forgets the previous schema, even if the change fails.
template <typename Change>
void ChangeSchema(Transaction& transaction, Change&& change) {
  auto const status = change(transaction.context());
  transaction.Forget();
  CheckLayer(transaction.context(), status);
}

// A set specifier grows with each level of derivation, and must fit into a key.
inline bool IsTooDeepToDerive(Table const& base) {
  constexpr std::size_t kLongestOwnPart = 16;
  alignas(8) unsigned char area[db_util::db_iter_with_keys::kKeySize];
  try {
    metalayer::Key(db_util::KeyBuf(area))
        .Text((base.setspec + std::u16string(kLongestOwnPart, u'a')).c_str());
    return false;
  } catch (db_util::db_exception const&) {
    return true;
  }
}

// Gives a table that is too deep its own status and text.
inline void RequireDepth(Transaction& transaction, std::u16string const& name,
                         std::u16string const& base) {
  TablePtr table = transaction.Find(base);
  if (table == nullptr || !IsTooDeepToDerive(*table)) return;
  std::size_t levels = 0;
  for (; table != nullptr; table = transaction.Find(table->base)) ++levels;
  throw Error(SAGLEME_TOO_DEEP, "Table " + ToUtf8(name) + " cannot derive from " + ToUtf8(base) +
                                    ": it would have " + std::to_string(levels) +
                                    " tables above it, one over another, which is too many. "
                                    "Derive it from a table nearer to the root.");
}

}  // namespace detail

// An empty base is the root of all tables. A table that already exists with exactly this definition
// is left unchanged. Targets of references may be created later in the same transaction, followed
// by FinishReferences. SAGLEME_TOO_DEEP: see the limits in docs/reliability.md.
// SAGLEME_BAD_ARGUMENT: a column of type key that takes no null, also from AddColumns.
inline TablePtr CreateTable(Transaction& transaction, Text const& name, Text const& base,
                            std::span<ColumnSpec const> columns) {
  for (ColumnSpec const& column : columns) detail::RequireNullableKey(name, column);
  detail::ColumnArray const array(columns);
  try {
    detail::ChangeSchema(transaction, [&](std::uint64_t context) {
      std::uint16_t layout = 0;
      return lorv_create_table_by_names(
          context, name.c_str(), base.empty() ? nullptr : base.c_str(), array.data(), &layout);
    });
  } catch (Error const& error) {
    if (error.status() == SAGLEME_NAME_TOO_LONG) {
      detail::RequireDepth(transaction, name.c_str(), base.c_str());
    }
    throw;
  }
  return transaction.table(name);
}
inline TablePtr CreateTable(Transaction& transaction, Text const& name, Text const& base,
                            std::initializer_list<ColumnSpec> columns) {
  return CreateTable(transaction, name, base, std::span(columns.begin(), columns.size()));
}

// Resolves reference columns whose targets were created later. SAGLEME_TARGET_NOT_FOUND if a target
// is still missing.
inline void FinishReferences(Transaction& transaction) {
  detail::ChangeSchema(transaction, lorv_update_reference_columns_types);
}

inline void AddColumns(Transaction& transaction, Text const& table,
                       std::span<ColumnSpec const> columns) {
  for (ColumnSpec const& column : columns) detail::RequireNullableKey(table, column);
  detail::ColumnArray const array(columns);
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_alter_table_add_columns(context, table.c_str(), array.data(), nullptr);
  });
}
inline void AddColumns(Transaction& transaction, Text const& table,
                       std::initializer_list<ColumnSpec> columns) {
  AddColumns(transaction, table, std::span(columns.begin(), columns.size()));
}

inline void DropColumn(Transaction& transaction, Text const& table, Text const& column) {
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_alter_table_drop_column_by_names(context, table.c_str(), column.c_str(), nullptr);
  });
  detail::DropStaleAnnotations(transaction);
}

inline void RenameColumn(Transaction& transaction, Text const& table, Text const& column,
                         Text const& new_name) {
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_alter_table_rename_column(context, table.c_str(), column.c_str(), new_name.c_str());
  });
}

inline void RenameTable(Transaction& transaction, Text const& table, Text const& new_name) {
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_rename_table(context, table.c_str(), new_name.c_str());
  });
}

struct DropOptions {
  bool children = false;  // all descendants go too
  bool force = false;     // references to the tables do not hold them
};

// Drops several tables, which may refer to each other. `names` is a container of texts.
template <typename Names = std::initializer_list<Text>>
void DropTables(Transaction& transaction, Names const& names, DropOptions options = {}) {
  std::vector<Text> const texts(std::begin(names), std::end(names));
  std::vector<char16_t const*> array;
  for (Text const& name : texts) array.push_back(name.c_str());
  array.push_back(nullptr);
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_drop_tables_by_names(context, array.data(), options.children, options.force);
  });
  detail::DropStaleAnnotations(transaction);
}

inline void DropTable(Transaction& transaction, Text const& name, DropOptions options = {}) {
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_drop_table_by_name(context, name.c_str(), options.children, options.force);
  });
  detail::DropStaleAnnotations(transaction);
}

namespace detail {

inline bool IsDefinedSo(Index const& index, Text const& table,
                        std::span<IndexColumnSpec const> columns, Uniqueness uniqueness) {
  return index.table == table && index.unique == (uniqueness == Uniqueness::kUnique) &&
         std::equal(columns.begin(), columns.end(), index.columns.begin(), index.columns.end(),
                    [](IndexColumnSpec const& spec, IndexedColumn const& column) {
                      return spec.name == column.name && spec.ascending == column.ascending;
                    });
}

}  // namespace detail

// An index that already exists with exactly this definition is left unchanged. SAGLEME_INDEX_EXISTS
// if another index has the name.
inline void CreateIndex(Transaction& transaction, Text const& name, Text const& table,
                        std::span<IndexColumnSpec const> columns,
                        Uniqueness uniqueness = Uniqueness::kAny) {
  std::optional<Index> const existing = transaction.FindIndex(name);
  if (existing && detail::IsDefinedSo(*existing, table, columns, uniqueness)) return;
  std::vector<LORV_INDEXED_COLUMN> array;
  for (IndexColumnSpec const& column : columns) {
    array.push_back({column.name.c_str(), static_cast<std::uint8_t>(column.ascending ? 1 : 0)});
  }
  array.push_back({});
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_create_index_by_names(context, name.c_str(), table.c_str(), array.data(),
                                      uniqueness == Uniqueness::kUnique);
  });
}
inline void CreateIndex(Transaction& transaction, Text const& name, Text const& table,
                        std::initializer_list<IndexColumnSpec> columns,
                        Uniqueness uniqueness = Uniqueness::kAny) {
  CreateIndex(transaction, name, table, std::span(columns.begin(), columns.size()), uniqueness);
}

inline void DropIndex(Transaction& transaction, Text const& name) {
  detail::ChangeSchema(transaction, [&](std::uint64_t context) {
    return lorv_drop_index_by_name(context, name.c_str());
  });
  detail::DropStaleAnnotations(transaction);
}

}  // namespace sagleme

#endif

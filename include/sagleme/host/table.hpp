#ifndef SAGLEME_HOST_TABLE_HPP
#define SAGLEME_HOST_TABLE_HPP

// Tables, columns and indexes as a transaction sees them: plain values, read once from the
// catalogue. Schema changes do not update them; call Transaction::Forget. Use them only in the
// database that they were read from, while it is open; elsewhere they are refused with
// LORV_STATUS_FOREIGN_DATABASE.

#include <algorithm>
#include <memory>
#include <optional>
#include <sagleme/host/database.hpp>
#include <sagleme/host/value.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

struct Column {
  std::u16string name;
  Type type = Type::kString;
  bool nullable = false;
  bool inherited = false;
  std::uint16_t ordinal = 0;
  std::u16string target;  // full name of the table that a reference points at
  ObjectId target_id;     // the catalogue's row of that table; 0 as long as there is none
  ObjectId id;            // the catalogue's row, which keeps its identity through renames
  bool system() const { return name.starts_with(u"__"); }
};

struct IndexedColumn {
  std::u16string name;
  Type type = Type::kString;
  bool ascending = true;
};

// An index. It covers the table that declares it and all descendants.
struct Index {
  std::u16string name;
  std::u16string table;  // full name of the table that declares it
  bool unique = false;
  std::uint64_t handle = 0;    // what the kernel knows it by
  std::uint64_t database = 0;  // the number of its database; 0: any
  ObjectId id;
  std::vector<IndexedColumn> columns;
};

struct Table {
  std::u16string name;  // full
  std::u16string base;  // full name; empty at the root of all tables
  std::u16string setspec;
  std::uint64_t type_id = 0;
  std::uint64_t database = 0;  // the number of its database; 0: any
  std::uint16_t layout = 0;
  bool system = false;
  LS_OBJ_REF row{};             // the catalogue's row
  std::vector<Column> columns;  // by ordinal, inherited and hidden ones included
  std::vector<Index> indexes;   // those it declares itself

  ObjectId id() const { return {row.oid}; }
  std::u16string_view short_name() const {
    auto const dot = name.rfind(u'.');
    return std::u16string_view(name).substr(dot == std::u16string::npos ? 0 : dot + 1);
  }
  // Returns null if there is none.
  Column const* FindColumn(TextView const& column) const {
    auto const at = std::find_if(columns.begin(), columns.end(),
                                 [&](Column const& each) { return each.name == column.view(); });
    return at == columns.end() ? nullptr : &*at;
  }
  // Throws Error with SAGLEME_NO_SUCH_COLUMN.
  Column const& GetColumn(TextView const& column) const {
    if (Column const* const found = FindColumn(column)) return *found;
    throw Error(SAGLEME_NO_SUCH_COLUMN,
                "Table " + ToUtf8(name) + " has no column " + ToUtf8(column) + ".");
  }
  // Whether it is `other` or one of its descendants.
  bool IsA(Table const& other) const { return setspec.starts_with(other.setspec); }
};

using TablePtr = std::shared_ptr<Table const>;

namespace detail {

// The number of the database that the thread's context belongs to.
inline std::uint64_t CurrentDatabase() {
  std::uint64_t number = 0;
  CheckKernel(lscoredb_database_number(*metalayer::TlsMetalayerContext::Current(), &number));
  return number;
}

[[noreturn]] inline void ThrowForeign(std::string const& what) {
  throw Error(LORV_STATUS_FOREIGN_DATABASE,
              what + " belongs to another database than the transaction. Read it there anew.");
}

// Table or Index.
template <typename Definition>
void RequireOwn(RawTransaction const& transaction, Definition const& definition) {
  if (definition.database == transaction.database() || definition.database == 0) [[likely]]
    return;
  ThrowForeign((std::is_same_v<Definition, Index> ? "Index " : "Table ") + ToUtf8(definition.name));
}

// Reads a whole text column, including U+0000.
inline std::u16string CatalogueText(LS_OBJ_REF const& row, unsigned column) {
  return metalayer::GetText(row, column);
}

inline LS_OBJ_REF CatalogueRef(LS_OBJ_REF const& row, unsigned column) {
  return metalayer::db_record(row).get_ref(column);
}

// The name space of the tables that the host library keeps for itself.
inline constexpr std::u16string_view kHostSpace = u"Sagleme.Internal.";

// The catalogue's own tables: two name spaces and a fixed list; and those of the host library.
inline bool IsSystemTable(std::u16string_view full_name) {
  if (full_name.starts_with(kHostSpace)) return true;
  constexpr std::u16string_view kPublic = u"Lorvenstack.Metadata.";
  constexpr std::u16string_view kInternal = u"Lorvenstack.Internal.Metadata.";
  for (auto const& record : metalayer::metaschema_init_generated_from_json) {
    auto const space = record.is_public ? kPublic : kInternal;
    if (full_name.starts_with(space) && full_name.substr(space.size()) == record.name) return true;
  }
  return false;
}

inline Column LoadColumn(metalayer::RawColumn const& row) {
  Column column;
  column.id = {row.oid};
  column.name = CatalogueText(row, metalayer::RawColumn::kName);
  column.nullable = metalayer::GetBool(row, metalayer::RawColumn::kNullable);
  column.inherited = metalayer::GetBool(row, metalayer::RawColumn::kInherited);
  column.ordinal =
      static_cast<std::uint16_t>(metalayer::GetLong(row, metalayer::RawColumn::kColumnIndex));
  LS_OBJ_REF const type = CatalogueRef(row, metalayer::RawColumn::kDataType);
  // A reference whose target does not exist yet has no type; it holds the target's name.
  column.type =
      type.oid == 0 ? Type::kReference : static_cast<Type>(metalayer::PrimTypeByTypeRef(type));
  if (column.type != Type::kReference) return column;
  if (type.oid == 0) {
    column.target = CatalogueText(row, metalayer::ReferenceRawColumn::kDataTypeName);
  } else if (metalayer::LayoutOf(type) == metalayer::RawView::metaclass_layout_handle()) {
    column.target = CatalogueText(type, metalayer::RawView::kFullName);
    column.target_id = {type.oid};
  }
  return column;
}

inline std::vector<Column> LoadColumns(metalayer::RawView const& view) {
  std::vector<Column> columns;
  metalayer::ddl::EnumColumns(
      view, 0, -1, [&](metalayer::RawColumn const& row) { columns.push_back(LoadColumn(row)); });
  return columns;
}

inline std::vector<IndexedColumn> LoadIndexedColumns(metalayer::Index const& index) {
  std::vector<std::pair<unsigned long, IndexedColumn>> found;
  db_util::db_iter_with_keys rows;
  metalayer::Key(rows.first_key).Ref(index);
  metalayer::Key(rows.last_key).Ref(index);
  rows.open(metalayer::IndexedColumn::index_id_IndexedColumnPK(), metalayer::kForward);
  while (rows.next()) {
    Column const column = LoadColumn(
        metalayer::RawColumn(CatalogueRef(rows.current, metalayer::IndexedColumn::kColumn)));
    found.emplace_back(
        metalayer::GetULong(rows.current, metalayer::IndexedColumn::kPosition),
        IndexedColumn{column.name, column.type,
                      metalayer::GetBool(rows.current, metalayer::IndexedColumn::kAscending)});
  }
  std::sort(found.begin(), found.end(), [](auto& a, auto& b) { return a.first < b.first; });
  std::vector<IndexedColumn> columns;
  for (auto& [position, column] : found) columns.push_back(std::move(column));
  return columns;
}

inline Index LoadIndex(metalayer::Index const& row) {
  Index index;
  index.database = CurrentDatabase();
  index.id = {row.oid};
  index.name = CatalogueText(row, metalayer::Index::kName);
  index.unique = metalayer::GetULong(row, metalayer::Index::kUnique) != 0;
  index.handle = metalayer::GetULong(row, metalayer::Index::kIndexHandle);
  index.table =
      CatalogueText(CatalogueRef(row, metalayer::Index::kTable), metalayer::RawView::kFullName);
  index.columns = LoadIndexedColumns(row);
  return index;
}

inline std::vector<Index> LoadIndexes(metalayer::RawView const& view) {
  std::vector<Index> indexes;
  db_util::db_iter_with_keys rows;
  metalayer::Key(rows.first_key).Ref(view);
  metalayer::Key(rows.last_key).Ref(view);
  rows.open(metalayer::Index::index_id_IndexByTable(), metalayer::kForward);
  while (rows.next()) indexes.push_back(LoadIndex(metalayer::Index(rows.current)));
  std::sort(indexes.begin(), indexes.end(), [](auto& a, auto& b) { return a.name < b.name; });
  return indexes;
}

inline TablePtr LoadTable(metalayer::RawView const& view) {
  auto table = std::make_shared<Table>();
  table->row = view;
  table->database = CurrentDatabase();
  table->name = CatalogueText(view, metalayer::RawView::kFullName);
  table->system = IsSystemTable(table->name);
  table->layout =
      static_cast<std::uint16_t>(metalayer::GetULong(view, metalayer::RawView::kLayoutHandle));
  LS_OBJ_REF const base = CatalogueRef(view, metalayer::RawView::kInherits);
  if (base.oid != 0) table->base = CatalogueText(base, metalayer::RawView::kFullName);
  auto const setspec = metalayer::SetSpecifier::ByType(view);
  if (!setspec.is_null()) {
    table->setspec = CatalogueText(setspec, metalayer::SetSpecifier::kTypeId);
  }
  auto const type = metalayer::TypeIdsMeta::ByTypeIdsMeta_Type(view);
  if (!type.is_null()) {
    table->type_id = metalayer::GetULong(type, metalayer::TypeIdsMeta::kTypeIdsMeta_Id);
  }
  table->columns = LoadColumns(view);
  table->indexes = LoadIndexes(view);
  return table;
}

}  // namespace detail
}  // namespace sagleme

#endif

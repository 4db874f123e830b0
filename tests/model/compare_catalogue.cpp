// The catalogue's rows and the kernel's layouts against the model.

#include <algorithm>
#include <sagleme/metalayer.hpp>

#include "model/session.h"

namespace sagleme_model {

namespace {

using metalayer::GetBool;
using metalayer::GetLong;
using metalayer::GetText;
using metalayer::GetULong;
using metalayer::RawColumn;
using metalayer::RawView;
using metalayer::ReferenceRawColumn;
using sagleme_test::Utf8;
using Rows = std::vector<LS_OBJ_REF>;

// A key without columns bounds a whole index.
Rows AllRows(unsigned long index_id) {
  Rows rows;
  db_util::db_iter_with_keys scan;
  metalayer::Key(scan.first_key).UpdateHeader();
  metalayer::Key(scan.last_key).UpdateHeader();
  scan.open(index_id, metalayer::kForward);
  while (scan.next()) rows.push_back(scan.current);
  return rows;
}

Rows RowsOf(unsigned long index_id, LS_OBJ_REF const& owner) {
  Rows rows;
  db_util::db_iter_with_keys scan;
  metalayer::Key(scan.first_key).Ref(owner);
  metalayer::Key(scan.last_key).Ref(owner);
  scan.open(index_id, metalayer::kForward);
  while (scan.next()) rows.push_back(scan.current);
  return rows;
}

LS_OBJ_REF RefOf(LS_OBJ_REF const& row, unsigned column) {
  return metalayer::db_record(row).get_ref(column);
}

uint64_t TokenOf(Text const& text) {
  metalayer::Token const row = metalayer::Token::ByInvariantName(text.c_str());
  return row.is_null() ? 0 : GetULong(row, metalayer::Token::kNameToken);
}

Text DigitsOf(uint64_t number) { return sagleme_test::Utf16(std::to_string(number)); }

unsigned short LayoutOfView(LS_OBJ_REF const& view) {
  return static_cast<unsigned short>(GetULong(view, RawView::kLayoutHandle));
}

uint8_t KernelType(uint8_t logical) { return logical == kBool ? uint8_t{kULong} : logical; }

class CatalogueComparison {
 public:
  CatalogueComparison(Model const& model, Session& session, Differences& differences)
      : model_(model), identities_(session.identities()), out_(differences) {}

  void Run() {
    LoadTables();
    for (auto const& [row, table] : model_.tables) CompareTable(table);
    for (auto const& [row, table] : model_.tables) CompareColumns(table);
    CompareSetspecs();
    CompareTypeIds();
    CompareRequests();
    CompareIndexes();
    CompareClasses();
    out_.Same(
        "schema generation", model_.generation,
        GetULong(metalayer::SchemaGeneration(), metalayer::UserSchemaGeneration::kGeneration));
  }

 private:
  void LoadTables() {
    auto const& system = SystemTableNames();
    std::size_t user = 0;
    for (LS_OBJ_REF const& row : AllRows(RawView::index_id_RawViewPK2fullname())) {
      Text const name = GetText(row, RawView::kFullName);
      bool const is_system = std::find(system.begin(), system.end(), name) != system.end();
      if (is_system) system_tables_.insert(row.oid);
      if (!is_system) ++user;
      views_[name] = row;
    }
    out_.Same("number of system tables", system.size(), system_tables_.size());
    out_.Same("number of tables", model_.tables.size() - 1, user);
  }

  LS_OBJ_REF ViewOf(Uid table) const {
    auto const found = views_.find(model_.table(table).name);
    return found == views_.end() ? LS_OBJ_REF{0, 0} : found->second;
  }

  void Learn(std::string const& what, Uid row, uint64_t oid) {
    if (!identities_.Learn(row, oid)) out_.Add(what + " is another row than before");
  }

  // ---- tables

  void CompareTable(Table const& table) {
    std::string const what = "table " + Utf8(table.name);
    LS_OBJ_REF const view = ViewOf(table.row);
    if (view.oid == 0) return out_.Add(what + " is missing");
    Learn(what, table.row, view.oid);
    if (table.row == Model::kRoot) return;
    CompareNames(what, table, view);
    out_.Same(what + ", base", ViewOf(table.base).oid, RefOf(view, RawView::kInherits).oid);
    out_.Same(what + ", updatable", true, GetBool(view, RawView::kUpdatable));
    CompareLayout(what, table, view);
    metalayer::TypeIdsMeta const type_id = metalayer::TypeIdsMeta::ByTypeIdsMeta_Type(view);
    out_.Same(what + ", type id", table.type_id,
              GetULong(type_id, metalayer::TypeIdsMeta::kTypeIdsMeta_Id));
    metalayer::SetSpecifier const setspec = metalayer::SetSpecifier::ByType(view);
    out_.Same(what + ", set specifier", table.setspec,
              GetText(setspec, metalayer::SetSpecifier::kTypeId));
  }

  void CompareNames(std::string const& what, Table const& table, LS_OBJ_REF const& view) {
    Text const reversed = ReversedUid(table.name);
    auto const segments = SplitName(table.name);
    Text uid = u"Lorvenstack.Raw";
    for (Text const& segment : segments) uid += u"." + segment;
    out_.Same(what + ", short name", segments.back(), GetText(view, RawView::kName));
    out_.Same(what + ", identifier", uid, GetText(view, RawView::kUniqueIdentifier));
    out_.Same(what + ", reversed identifier", reversed,
              GetText(view, RawView::kUniqueIdentifierReversed));
  }

  void CompareLayout(std::string const& what, Table const& table, LS_OBJ_REF const& view) {
    unsigned short const layout = LayoutOfView(view);
    LORVI_LAYOUT_INFO info{};
    uint32_t const status =
        lorvi_context_get_layout_info(metalayer::TlsContextHandle::context(), layout, &info);
    out_.Same(what + ", status of its layout", 0u, status);
    if (status != 0) return;
    out_.Same(what + ", layout number", layout, info.layout_handle);
    out_.Same(what + ", token of its layout", TokenOf(table.layout_name), info.token);
    out_.Same(what + ", columns of its layout", table.columns.size(),
              std::size_t{info.column_count});
    out_.Same(what + ", base of its layout", LayoutOfView(ViewOf(table.base)),
              info.base_layout_handle);
  }

  // ---- columns

  void CompareColumns(Table const& table) {
    LS_OBJ_REF const view = ViewOf(table.row);
    if (view.oid == 0) return;
    Rows const rows = RowsOf(RawColumn::index_id_RawColumnPK(), view);
    out_.Same("columns of " + Utf8(table.name), table.columns.size(), rows.size());
    for (std::size_t i = 0; i < std::min(rows.size(), table.columns.size()); ++i) {
      std::string const what = "column " + Utf8(table.name) + "/" + std::to_string(i);
      CompareColumn(what, table, i, rows[i]);
      CompareKernelColumn(what, table, i, LayoutOfView(view));
    }
  }

  void CompareColumn(std::string const& what, Table const& table, std::size_t ordinal,
                     LS_OBJ_REF const& row) {
    Column const& column = table.columns[ordinal];
    Learn(what, column.row, row.oid);
    out_.Same(what + ", name", column.name, GetText(row, RawColumn::kName));
    out_.Same(what + ", ordinal", static_cast<long>(ordinal),
              GetLong(row, RawColumn::kColumnIndex));
    out_.Same(what + ", inherited", column.inherited(), GetBool(row, RawColumn::kInherited));
    out_.Same(what + ", always unique", false, GetBool(row, RawColumn::kAlwaysUnique));
    if (!IsOfRoot(column)) {
      out_.Same(what + ", nullable", column.nullable, GetBool(row, RawColumn::kNullable));
    }
    CompareType(what, column, row);
  }

  void CompareType(std::string const& what, Column const& column, LS_OBJ_REF const& row) {
    bool const is_reference = column.type == kReference;
    auto const expected = is_reference ? ReferenceRawColumn::metaclass_layout_handle()
                                       : RawColumn::metaclass_layout_handle();
    out_.Same(what + ", kind of row", expected, metalayer::LayoutOf(row));
    LS_OBJ_REF const type = RefOf(row, RawColumn::kDataType);
    if (is_reference) {
      out_.Same(what + ", target", identities_.Of(column.target), type.oid);
      out_.Same(what + ", name of the target", column.target_name,
                GetText(row, ReferenceRawColumn::kDataTypeName));
    } else {
      out_.Same(what + ", type", uint64_t{column.type},
                GetULong(type, metalayer::DbPrimitiveType::kPrimitiveType));
    }
  }

  static bool IsOfRoot(Column const& column) { return column.declared <= Model::kRoot + 3; }

  // The kernel knows a column by its declaring row, in every table that has it.
  void CompareKernelColumn(std::string const& what, Table const& table, std::size_t ordinal,
                           unsigned short layout) {
    Column const& column = table.columns[ordinal];
    LORVI_COLUMN_INFO info{};
    uint32_t const status = lorvi_context_get_column_info(
        metalayer::TlsContextHandle::context(), layout, static_cast<uint16_t>(ordinal), &info);
    out_.Same(what + ", status of the kernel's column", 0u, status);
    if (status != 0) return;
    uint64_t const token = IsOfRoot(column) ? TokenOf(column.name)
                                            : TokenOf(DigitsOf(identities_.Of(column.declared)));
    out_.Same(what + ", token", token, info.token);
    out_.Same(what + ", kernel type", KernelType(column.type), info.type);
    if (!identities_.LearnToken(column.declared, info.token)) {
      out_.Add(what + " has another token than before");
    }
  }

  // ---- what stays behind tables

  void CompareSetspecs() {
    using metalayer::SetSpecifier;
    std::size_t user = 1;  // the root's
    for (LS_OBJ_REF const& row : AllRows(SetSpecifier::index_id_TypeId_postV2_3())) {
      if (!system_tables_.contains(RefOf(row, SetSpecifier::kType).oid)) ++user;
    }
    out_.Same("number of set specifiers", model_.setspecs.size(), user);
    for (auto const& [text, expected] : model_.setspecs) {
      std::string const what = "set specifier " + Utf8(text);
      SetSpecifier const row = SetSpecifier::ByTypeId_postV2_3(text.c_str());
      if (row.is_null()) {
        out_.Add(what + " is missing");
        continue;
      }
      out_.Same(what + ", table", identities_.Of(expected.table),
                row.get_ref(SetSpecifier::kType).oid);
      out_.Same(what + ", next child", expected.next_child,
                GetULong(row, SetSpecifier::kNumberOfChildren));
    }
  }

  void CompareTypeIds() {
    using metalayer::TypeIdsMeta;
    constexpr std::size_t kSystem = 26;  // 0 to 25
    out_.Same("number of type ids", model_.type_ids.size() - 1 + kSystem,
              AllRows(TypeIdsMeta::index_id_TypeIdsMeta_PK()).size());
    for (auto const& [id, table] : model_.type_ids) {
      if (table == 0) continue;
      TypeIdsMeta const row = TypeIdsMeta::ByTypeIdsMeta_PK(id);
      std::string const what = "type id " + std::to_string(id);
      if (row.is_null()) {
        out_.Add(what + " is missing");
        continue;
      }
      out_.Same(what + ", table", identities_.Of(table),
                row.get_ref(TypeIdsMeta::kTypeIdsMeta_Type).oid);
    }
  }

  void CompareRequests() {
    using metalayer::Vacuum;
    std::map<Text, LS_OBJ_REF> found;
    for (LS_OBJ_REF const& row : AllRows(Vacuum::index_id_VacuumTypeId())) {
      found[GetText(row, Vacuum::kTypeId)] = row;
    }
    out_.Same("number of requests", model_.requests.size(), found.size());
    for (auto const& [setspec, request] : model_.requests) {
      if (found.contains(setspec)) CompareRequest(setspec, request, found[setspec]);
    }
  }

  void CompareRequest(Text const& setspec, Request const& request, LS_OBJ_REF const& row) {
    using metalayer::Vacuum;
    std::string const what = "request for " + Utf8(setspec);
    out_.Same(what + ", kind", uint64_t{request.kind}, GetULong(row, Vacuum::kRequestKind));
    auto const layout = static_cast<uint16_t>(GetULong(row, Vacuum::kExpectedLayout));
    LORVI_LAYOUT_INFO info{};
    uint32_t const status =
        lorvi_context_get_layout_info(metalayer::TlsContextHandle::context(), layout, &info);
    out_.Same(what + ", status of the layout", 0u, status);
    out_.Same(what + ", token of the layout", TokenOf(request.layout_name), info.token);
    out_.Same(what + ", columns of the layout", request.columns, std::size_t{info.column_count});
    for (auto const& [table_row, table] : model_.tables) {
      if (table.setspec != setspec) continue;
      out_.Same(what + ", layout", LayoutOfView(ViewOf(table_row)), layout);
    }
  }

  // ---- indexes

  void CompareIndexes() {
    using metalayer::Index;
    std::size_t user = 0;
    for (LS_OBJ_REF const& row : AllRows(Index::index_id_IndexPK())) {
      if (!system_tables_.contains(RefOf(row, Index::kTable).oid)) ++user;
    }
    out_.Same("number of indexes", model_.indexes.size(), user);
    for (auto const& [row, index] : model_.indexes) CompareIndex(index);
  }

  void CompareIndex(Index const& index) {
    std::string const what = "index " + Utf8(index.name);
    metalayer::Index const row = metalayer::Index::ByIndexPK(index.name.c_str());
    if (row.is_null()) return out_.Add(what + " is missing");
    Learn(what, index.row, row.oid);
    out_.Same(what + ", table", identities_.Of(index.table),
              row.get_ref(metalayer::Index::kTable).oid);
    out_.Same(what + ", unique", uint64_t{index.unique}, GetULong(row, metalayer::Index::kUnique));
    char16_t const* setspec = nullptr;
    uint32_t const status =
        lorvi_context_get_index_setspec(metalayer::TlsContextHandle::context(),
                                        GetULong(row, metalayer::Index::kIndexHandle), &setspec);
    out_.Same(what + ", status of the kernel's index", 0u, status);
    if (status == 0) out_.Same(what + ", set", index.setspec, Text(setspec));
    CompareIndexColumns(what, index, row);
  }

  void CompareIndexColumns(std::string const& what, Index const& index, LS_OBJ_REF const& row) {
    using metalayer::IndexedColumn;
    Rows const rows = RowsOf(IndexedColumn::index_id_IndexedColumnPK(), row);
    out_.Same(what + ", columns", index.columns.size(), rows.size());
    for (LS_OBJ_REF const& each : rows) {
      std::size_t const position = GetULong(each, IndexedColumn::kPosition);
      if (position >= index.columns.size()) {
        out_.Add(what + " has a column at a wrong position");
        continue;
      }
      IndexColumn const& column = index.columns[position];
      out_.Same(what + ", column", identities_.Of(column.row),
                RefOf(each, IndexedColumn::kColumn).oid);
      out_.Same(what + ", ascending", column.ascending, GetBool(each, IndexedColumn::kAscending));
    }
  }

  void CompareClasses() {
    out_.Same("number of classes", model_.classes.size(),
              AllRows(metalayer::ClrClass::index_id_ClrClassPK()).size());
    out_.Same("number of mappings", model_.mappings.size(),
              AllRows(metalayer::MappedProperty::index_id_MappedPropertyPK()).size());
  }

  Model const& model_;
  Identities& identities_;
  Differences& out_;
  std::map<Text, LS_OBJ_REF> views_;
  std::set<uint64_t> system_tables_;
};

}  // namespace

void Session::CompareCatalogue(Model const& model, Differences& differences) {
  CatalogueComparison(model, *this, differences).Run();
}

}  // namespace sagleme_model

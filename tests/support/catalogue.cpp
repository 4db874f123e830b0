#include "support/catalogue.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace sagleme_test {

using namespace metalayer;

namespace {

uint64_t Context() { return TlsContextHandle::context(); }

std::string TypeInWords(RawColumn const& column) {
  LS_OBJ_REF const type = column.get_ref(RawColumn::kDataType);
  if (LayoutOf(column) != ReferenceRawColumn::metaclass_layout_handle()) {
    return TextOf(type, DbPrimitiveType::kName);
  }
  std::string const stored = TextOf(column, ReferenceRawColumn::kDataTypeName);
  if (type.oid == 0) return "reference(" + stored + "?)";
  std::string const target = TextOf(type, RawView::kFullName);
  return "reference(" + target + (target == stored ? "" : " as " + stored) + ")";
}

std::string ColumnInWords(RawColumn const& column) {
  std::string line = std::to_string(GetLong(column, RawColumn::kColumnIndex)) + " " +
                     TextOf(column, RawColumn::kName) + " " + TypeInWords(column);
  if (GetBool(column, RawColumn::kNullable)) line += " null";
  if (GetBool(column, RawColumn::kInherited)) line += " inherited";
  return line;
}

std::string IndexInWords(Index const& index) {
  std::map<unsigned long, std::string> columns;
  db_util::db_iter_with_keys rows;
  Key(rows.first_key).Ref(index);
  Key(rows.last_key).Ref(index);
  rows.open(IndexedColumn::index_id_IndexedColumnPK(), kForward);
  while (rows.next()) {
    IndexedColumn const row(rows.current);
    columns[GetULong(row, IndexedColumn::kPosition)] =
        TextOf(row.get_ref(IndexedColumn::kColumn), RawColumn::kName) +
        (GetBool(row, IndexedColumn::kAscending) ? "+" : "-");
  }
  std::string list;
  for (auto const& [position, column] : columns) list += (list.empty() ? "" : ", ") + column;
  bool const unique = GetULong(index, Index::kUnique) != 0;
  return TextOf(index, Index::kName) + "(" + list + ")" + (unique ? " unique" : "");
}

std::string ValueInWords(LS_OBJ_REF const& row, uint16_t column, uint8_t type) {
  uint64_t number = 0;
  LORV_STRING* text = nullptr;
  LORV_BINARY* bytes = nullptr;
  double real = 0;
  float small = 0;
  int64_t integer = 0;
  uint32_t status = 0;
  std::ostringstream out;
  switch (type) {
    case LORV_TYPE_STRING:
      status = lorv_context_get_string(Context(), row.oid, row.addr, column, &text);
      if (status == 0) out << Utf8(std::u16string(text->units, text->length));
      break;
    case LORV_TYPE_BINARY:
      status = lorv_context_get_binary(Context(), row.oid, row.addr, column, &bytes);
      if (status == 0) out << bytes->length << " bytes";
      break;
    case LORV_TYPE_REFERENCE:
      status = lorvi_context_get_refid(Context(), row.oid, row.addr, column, &number);
      if (status == 0) out << "#" << number;
      break;
    case LORV_TYPE_FLOAT:
      status = lorv_context_get_float(Context(), row.oid, row.addr, column, &small);
      if (status == 0) out << small;
      break;
    case LORV_TYPE_DOUBLE:
      status = lorv_context_get_double(Context(), row.oid, row.addr, column, &real);
      if (status == 0) out << real;
      break;
    case LORV_TYPE_DECIMAL:
      status = lorv_context_get_decimal(Context(), row.oid, row.addr, column, &integer);
      if (status == 0) out << integer;
      break;
    case LORV_TYPE_LONG:
      status = lorv_context_get_long(Context(), row.oid, row.addr, column, &integer);
      if (status == 0) out << integer;
      break;
    default:
      status = lorv_context_get_ulong(Context(), row.oid, row.addr, column, &number);
      if (status == 0) out << number;
  }
  if (status == LORV_STATUS_NULL) return "null";
  EXPECT_EQ(0u, status) << "column " << column << " of object " << row.oid;
  return out.str();
}

LORVI_LAYOUT_INFO LayoutInfo(uint16_t layout) {
  LORVI_LAYOUT_INFO info = {};
  EXPECT_EQ(0u, lorvi_context_get_layout_info(Context(), layout, &info));
  return info;
}

LORVI_COLUMN_INFO ColumnInfo(uint16_t layout, uint16_t column) {
  LORVI_COLUMN_INFO info = {};
  EXPECT_EQ(0u, lorvi_context_get_column_info(Context(), layout, column, &info));
  return info;
}

// Columns 0 and 1 are the identity and the set specifier.
std::string ObjectInWords(LS_OBJ_REF const& row) {
  uint16_t const layout = LayoutOf(row);
  LORV_STRING* setspec = nullptr;
  EXPECT_EQ(0u, lorv_context_get_setspec(Context(), row.oid, row.addr, &setspec));
  std::string line = std::to_string(row.oid) + " layout " + std::to_string(layout) + " set " +
                     Utf8(std::u16string(setspec->units, setspec->length));
  for (uint16_t i = 2; i < LayoutInfo(layout).column_count; ++i) {
    line += " | " + ValueInWords(row, i, ColumnInfo(layout, i).type);
  }
  return line + "\n";
}

template <typename Callable>
void EnumObjects(std::u16string const& setspec, Callable&& callable) {
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(setspec.c_str(), &objects);
  for (; objects.current.oid != 0; objects.next()) callable(objects.current);
}

void ExpectColumnsAgree(RawView const& table, uint16_t layout, uint16_t base_layout) {
  std::vector<uint64_t> const inherited = TokensOfLayout(base_layout);
  uint16_t ordinal = 0;
  ddl::EnumColumns(table, 0, -1, [&](RawColumn const& column) {
    SCOPED_TRACE(ColumnInWords(column));
    LORVI_COLUMN_INFO const info = ColumnInfo(layout, ordinal);
    bool const own = !GetBool(column, RawColumn::kInherited);
    EXPECT_EQ(ordinal, GetLong(column, RawColumn::kColumnIndex));
    EXPECT_EQ(own, ordinal >= inherited.size());
    EXPECT_EQ(own ? TokenOf(Utf16(std::to_string(column.oid))) : inherited[ordinal], info.token);
    LS_OBJ_REF const type = column.get_ref(RawColumn::kDataType);
    if (type.oid != 0) {
      EXPECT_EQ(LogicalTypeToKernelType(PrimTypeByTypeRef(type)), info.type);
    }
    ++ordinal;
  });
  EXPECT_EQ(LayoutInfo(layout).column_count, ordinal);
}

void ExpectTableAgrees(RawView const& table) {
  SCOPED_TRACE(TextOf(table, RawView::kFullName));
  uint16_t const layout = static_cast<uint16_t>(GetULong(table, RawView::kLayoutHandle));
  RawView const base(table.get_ref(RawView::kInherits));
  uint16_t const base_layout = static_cast<uint16_t>(GetULong(base, RawView::kLayoutHandle));
  EXPECT_EQ(base_layout, LayoutInfo(layout).base_layout_handle);
  ExpectColumnsAgree(table, layout, base_layout);
  ddl::EnumChildren(table, [](RawView const& child) { ExpectTableAgrees(child); });
}

}  // namespace

RawView View(char16_t const* table) { return RawView::ByRawViewPK2fullname(table); }

RawColumn ColumnRow(LS_OBJ_REF const& view, char16_t const* column) {
  return RawColumn(Member::ByMemberPK(view, column));
}

RawColumn ColumnRow(char16_t const* table, char16_t const* column) {
  return ColumnRow(View(table), column);
}

uint16_t LayoutOfTable(char16_t const* table) {
  return static_cast<uint16_t>(GetULong(View(table), RawView::kLayoutHandle));
}

std::string TextOf(LS_OBJ_REF const& row, unsigned int column) {
  return Utf8(GetText(row, column));
}

std::string SetspecOfTable(LS_OBJ_REF const& view) {
  return TextOf(SetSpecifier::ByType(view), SetSpecifier::kTypeId);
}

std::vector<std::string> ColumnsOf(LS_OBJ_REF const& view) {
  std::vector<std::string> lines;
  ddl::EnumColumns(RawView(view), 0, -1,
                   [&](RawColumn const& column) { lines.push_back(ColumnInWords(column)); });
  return lines;
}

std::vector<std::string> ColumnsOf(char16_t const* table) { return ColumnsOf(View(table)); }

std::vector<std::string> WithRootColumns(std::vector<std::string> const& others) {
  std::vector<std::string> lines = {"0 __id ulong inherited",
                                    "1 __setspecifier string null inherited",
                                    "2 __type_id ulong inherited"};
  lines.insert(lines.end(), others.begin(), others.end());
  return lines;
}

std::vector<std::string> IndexesOf(char16_t const* table) {
  std::vector<std::string> lines;
  db_util::db_iter_with_keys rows;
  Key(rows.first_key).Ref(View(table));
  Key(rows.last_key).Ref(View(table));
  rows.open(Index::index_id_IndexByTable(), kForward);
  while (rows.next()) lines.push_back(IndexInWords(Index(rows.current)));
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::ostream& operator<<(std::ostream& out, Request const& request) {
  return out << "kind " << request.kind << " layout " << request.layout;
}

Request RequestOfSetspec(std::string const& setspec) {
  alignas(8) unsigned char key[1024];
  Key(key).Text(Utf16(setspec).c_str());
  LS_OBJ_REF const row = LookupByKey(Vacuum::index_id_VacuumTypeId(), key);
  if (row.oid == 0) return kNoRequest;
  return {GetULong(row, Vacuum::kRequestKind), GetULong(row, Vacuum::kExpectedLayout)};
}

Request RequestOf(char16_t const* table) { return RequestOfSetspec(SetspecOfTable(View(table))); }

int CountRequests() {
  int count = 0;
  EnumObjects(Vacuum::setspec(), [&](LS_OBJ_REF const&) { ++count; });
  return count;
}

uint64_t Generation() { return lorv_get_metaschema_generation(); }

std::vector<uint64_t> TokensOfLayout(uint16_t layout) {
  std::vector<uint64_t> tokens;
  for (uint16_t i = 0; i < LayoutInfo(layout).column_count; ++i) {
    tokens.push_back(ColumnInfo(layout, i).token);
  }
  return tokens;
}

uint64_t TokenOf(std::u16string const& text) {
  Token const row = Token::ByInvariantName(text.c_str());
  return row.is_null() ? 0 : GetULong(row, Token::kNameToken);
}

std::string DumpDatabase() {
  std::map<uint64_t, std::string> lines;
  EnumObjects(u"", [&](LS_OBJ_REF const& row) { lines[row.oid] = ObjectInWords(row); });
  std::string dump;
  for (auto const& [oid, line] : lines) dump += line;
  return dump;
}

std::vector<uint64_t> ObjectsBelow(char16_t const* table) {
  std::vector<uint64_t> oids;
  EnumObjects(Utf16(SetspecOfTable(View(table))),
              [&](LS_OBJ_REF const& row) { oids.push_back(row.oid); });
  std::sort(oids.begin(), oids.end());
  return oids;
}

ClrClass InsertClass(char16_t const* class_name, LS_OBJ_REF const& mapped_table) {
  std::u16string const uid = std::u16string(u"Lorvenstack.Class.") + class_name;
  return ClrClass(ClrClass::Insert(class_name, db_util::null_obj_ref, true, class_name,
                                   (std::u16string(class_name) + u".Class.Lorvenstack").c_str(),
                                   uid.c_str(), mapped_table, u"Assembly", u"Domain", class_name));
}

MappedProperty InsertMappedProperty(LS_OBJ_REF const& owner, char16_t const* name,
                                    LS_OBJ_REF const& column) {
  LS_OBJ_REF const type = db_record(column).get_ref(RawColumn::kDataType);
  return MappedProperty(MappedProperty::Insert(owner, name, type, false, true, true, column));
}

uint16_t CatalogueTest::Create(char16_t const* name, Columns columns, char16_t const* base) {
  uint16_t layout = 0;
  ExpectOk(lorv_create_table_by_names(context(), name, base, columns, &layout));
  return layout;
}

uint16_t CatalogueTest::AddColumns(char16_t const* table, Columns columns) {
  uint64_t layout = 0;
  ExpectOk(lorv_alter_table_add_columns(context(), table, columns, &layout));
  return static_cast<uint16_t>(layout);
}

uint16_t CatalogueTest::DropColumn(char16_t const* table, char16_t const* column) {
  uint64_t layout = 0;
  ExpectOk(lorv_alter_table_drop_column_by_names(context(), table, column, &layout));
  return static_cast<uint16_t>(layout);
}

void CatalogueTest::CreateIndex(char16_t const* name, char16_t const* table,
                                std::vector<char16_t const*> const& columns, bool unique) {
  std::vector<LORV_INDEXED_COLUMN> list;
  for (char16_t const* column : columns) {
    bool const descending = *column == u'-';
    list.push_back({column + (descending ? 1 : 0), static_cast<uint8_t>(descending ? 0 : 1)});
  }
  list.push_back({nullptr, 0});
  ExpectOk(lorv_create_index_by_names(context(), name, table, list.data(), unique));
}

uint64_t CatalogueTest::CreateObject(char16_t const* table) {
  CreateInfo* handle = nullptr;
  ExpectOk(lorv_crud_GetCreateHandle(context(), table, &handle));
  uint64_t oid = 0;
  uint64_t addr = 0;
  ExpectOk(lorv_crud_CreateObject(context(), handle, &oid, &addr));
  return oid;
}

void CatalogueTest::WriteLong(char16_t const* table, char16_t const* column, uint64_t oid,
                              int64_t value) {
  PropertyAccessInfo* property = nullptr;
  ExpectOk(lorv_crud_GetPropertyHandle(context(), table, column, &property));
  ExpectOk(lorv_crud_WriteLong(context(), property, oid, 0, value));
}

std::string CatalogueTest::ReadLong(char16_t const* table, char16_t const* column, uint64_t oid) {
  PropertyAccessInfo* property = nullptr;
  ExpectOk(lorv_crud_GetPropertyHandle(context(), table, column, &property));
  int64_t value = 0;
  uint32_t const status = lorv_crud_ReadLong(context(), property, oid, 0, &value);
  if (status == LORV_STATUS_NULL) return "null";
  ExpectOk(status);
  return std::to_string(value);
}

void CatalogueTest::ExpectKernelAgrees(char16_t const* table) { ExpectTableAgrees(View(table)); }

}  // namespace sagleme_test

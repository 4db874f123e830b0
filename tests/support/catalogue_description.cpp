// What a database says of its catalogue.

#include <algorithm>
#include <functional>
#include <sagleme/metalayer.hpp>
#include <sstream>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {

namespace {

using namespace metalayer;
using Lines = std::vector<std::string>;

unsigned long Context() { return TlsContextHandle::context(); }

template <typename... Parts>
void Add(Lines& lines, Parts const&... parts) {
  std::ostringstream line;
  ((line << parts << ' '), ...);
  lines.push_back(line.str());
}

std::string Text(LS_OBJ_REF const& row, unsigned int column) { return Utf8(GetText(row, column)); }

LS_OBJ_REF Ref(LS_OBJ_REF const& row, unsigned int column) {
  return db_record(row).get_ref(column);
}

// The rows of exactly this table.
template <typename Metaclass>
void ForEach(std::function<void(LS_OBJ_REF const&)> const& visit) {
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(Metaclass::setspec().c_str(), &objects);
  for (; objects.current.oid != 0; objects.next()) {
    if (LayoutOf(objects.current) == Metaclass::metaclass_layout_handle()) visit(objects.current);
  }
}

std::string TableName(LS_OBJ_REF const& view) {
  return view.oid == 0 ? "-" : Text(view, RawView::kFullName);
}

std::string TokenText(unsigned long token) {
  Token const row = Token::ByNameToken(token);
  return row.is_null() ? "?" : Text(row, Token::kInvariantName);
}

// The layout's name when the row's number is that of the layout made with the table's token.
std::string LayoutOwner(RawView const& view) {
  LORVI_LAYOUT_INFO info{};
  auto const layout = static_cast<uint16_t>(GetULong(view, RawView::kLayoutHandle));
  Check(lorvi_context_get_layout_info(Context(), layout, &info));
  return TokenText(info.token) == Text(view, RawView::kFullName) ? "own" : TokenText(info.token);
}

std::string IndexOwner(LS_OBJ_REF const& index) {
  LORVI_INDEX_INFO info{};
  std::u16string const name = GetText(index, Index::kName);
  unsigned long const token = GetULong(Token::ByInvariantName(name.c_str()), Token::kNameToken);
  if (get_index_info_by_token(token, &info) != 0) return "none";
  return info.index_id == GetULong(index, Index::kIndexHandle) ? "own" : "another";
}

void AddViews(Lines& lines) {
  ForEach<RawView>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "RawView", Text(row, RawView::kFullName), "name", Text(row, RawView::kName),
        "inherits", TableName(Ref(row, RawView::kInherits)), "updatable",
        GetBool(row, RawView::kUpdatable), "identifier", Text(row, RawView::kUniqueIdentifier),
        "reversed", Text(row, RawView::kUniqueIdentifierReversed), "layout",
        LayoutOwner(RawView(row)));
  });
  ForEach<SetSpecifier>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "SetSpecifier", "'" + Text(row, SetSpecifier::kTypeId) + "'", "of",
        TableName(Ref(row, SetSpecifier::kType)), "children",
        GetULong(row, SetSpecifier::kNumberOfChildren));
  });
  ForEach<TypeIdsMeta>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "TypeIdsMeta", GetULong(row, TypeIdsMeta::kTypeIdsMeta_Id), "of",
        TableName(Ref(row, TypeIdsMeta::kTypeIdsMeta_Type)));
  });
}

void AddColumn(Lines& lines, LS_OBJ_REF const& row, bool reference) {
  LS_OBJ_REF const type = Ref(row, RawColumn::kDataType);
  bool const is_table = LayoutOf(type) == RawView::metaclass_layout_handle();
  Add(lines, reference ? "ReferenceRawColumn" : "RawColumn", TableName(Ref(row, RawColumn::kTable)),
      GetLong(row, RawColumn::kColumnIndex), Text(row, RawColumn::kName),
      is_table ? TableName(type) : Text(type, DbPrimitiveType::kName), "inherited",
      GetBool(row, RawColumn::kInherited), "nullable", GetBool(row, RawColumn::kNullable),
      "always_unique", GetBool(row, RawColumn::kAlwaysUnique), "target",
      "'" + (reference ? Text(row, ReferenceRawColumn::kDataTypeName) : std::string()) + "'");
}

void AddColumns(Lines& lines) {
  ForEach<RawColumn>([&lines](LS_OBJ_REF const& row) { AddColumn(lines, row, false); });
  ForEach<ReferenceRawColumn>([&lines](LS_OBJ_REF const& row) { AddColumn(lines, row, true); });
}

void AddIndexes(Lines& lines) {
  ForEach<Index>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "Index", Text(row, Index::kName), "of", TableName(Ref(row, Index::kTable)), "unique",
        GetULong(row, Index::kUnique), "handle", IndexOwner(row));
  });
  ForEach<IndexedColumn>([&lines](LS_OBJ_REF const& row) {
    LS_OBJ_REF const column = Ref(row, IndexedColumn::kColumn);
    Add(lines, "IndexedColumn", Text(Ref(row, IndexedColumn::kIndex), Index::kName),
        GetULong(row, IndexedColumn::kPosition),
        TableName(Ref(column, Column::kTable)) + "." + Text(column, Column::kName), "ascending",
        GetBool(row, IndexedColumn::kAscending));
  });
}

void AddOtherRows(Lines& lines) {
  ForEach<Token>(
      [&lines](LS_OBJ_REF const& row) { Add(lines, "Token", Text(row, Token::kInvariantName)); });
  ForEach<DbPrimitiveType>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "DbPrimitiveType",
        Text(row, DbPrimitiveType::kName) + " " +
            std::to_string(GetULong(row, DbPrimitiveType::kPrimitiveType)));
  });
  ForEach<Configuration>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "Configuration", Text(row, Configuration::kParameterName),
        GetLong(row, Configuration::kValue));
  });
  ForEach<UserSchemaGeneration>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "UserSchemaGeneration", GetULong(row, UserSchemaGeneration::kGeneration));
  });
  ForEach<Vacuum>([&lines](LS_OBJ_REF const& row) {
    Add(lines, "Vacuum", Text(row, Vacuum::kTypeId), GetULong(row, Vacuum::kExpectedLayout),
        GetULong(row, Vacuum::kRequestKind));
  });
}

std::string LayoutName(uint16_t layout) {
  if (layout == 0) return "-";
  LORVI_LAYOUT_INFO info{};
  Check(lorvi_context_get_layout_info(Context(), layout, &info));
  return TokenText(info.token);
}

// The kernel keeps the first two columns of every layout to itself.
void AddLayouts(Lines& lines) {
  ForEach<RawView>([&lines](LS_OBJ_REF const& row) {
    auto const layout = static_cast<uint16_t>(GetULong(row, RawView::kLayoutHandle));
    LORVI_LAYOUT_INFO info{};
    Check(lorvi_context_get_layout_info(Context(), layout, &info));
    std::string columns;
    for (uint32_t i = 2; i < info.column_count; ++i) {
      LORVI_COLUMN_INFO column{};
      Check(lorvi_context_get_column_info(Context(), layout, static_cast<uint16_t>(i), &column));
      columns += TokenText(column.token) + ":" + std::to_string(column.type) + " ";
    }
    Add(lines, "kernel layout", TokenText(info.token), "base", LayoutName(info.base_layout_handle),
        "columns", info.column_count, columns);
  });
}

void AddKernelIndexes(Lines& lines) {
  ForEach<Token>([&lines](LS_OBJ_REF const& row) {
    LORVI_INDEX_INFO infos[4] = {};
    uint32_t count = 4;
    unsigned int const status = lorvi_context_get_index_infos_by_token(
        Context(), GetULong(row, Token::kNameToken), &count, infos);
    if (status == LORV_STATUS_NO_INDEX) return;
    Check(status);
    ASSERT_LE(count, std::size(infos));
    for (uint32_t i = 0; i < count; ++i) {
      char16_t const* setspec = nullptr;
      Check(lorvi_context_get_index_setspec(Context(), infos[i].index_id, &setspec));
      Add(lines, "kernel index", Text(row, Token::kInvariantName), "over",
          "'" + Utf8(setspec) + "'", "columns", infos[i].attribute_count, "flags", infos[i].flags);
    }
  });
}

// ---- objects as they are ------------------------------------------------------------------------

std::string ColumnValue(LS_OBJ_REF const& row, uint32_t column, uint8_t type) {
  switch (type) {
    case LORV_TYPE_STRING: {
      char16_t const* const text = db_record(row).get_string(column);
      return text == nullptr ? "null" : "'" + Utf8(text) + "'";
    }
    case LORV_TYPE_LONG:
      return std::to_string(GetLong(row, column));
    case LORV_TYPE_ULONG:
      return std::to_string(GetULong(row, column));
    case LORV_TYPE_REFERENCE:
      return "->" + std::to_string(Ref(row, column).oid);
    default:
      return "?";
  }
}

std::string DescribeObject(LS_OBJ_REF const& row) {
  LORVI_LAYOUT_INFO info{};
  Check(lorvi_context_get_layout_info(Context(), LayoutOf(row), &info));
  std::string line = std::to_string(row.oid) + " " + TokenText(info.token);
  for (uint32_t i = 2; i < info.column_count; ++i) {
    LORVI_COLUMN_INFO column{};
    Check(
        lorvi_context_get_column_info(Context(), LayoutOf(row), static_cast<uint16_t>(i), &column));
    line += " " + ColumnValue(row, i, column.type);
  }
  return line;
}

}  // namespace

std::vector<std::string> DescribeCatalogue() {
  Lines lines;
  AddViews(lines);
  AddColumns(lines);
  AddIndexes(lines);
  AddOtherRows(lines);
  AddLayouts(lines);
  AddKernelIndexes(lines);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<std::string> DumpObjects() {
  Lines lines;
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(u"", &objects);
  for (; objects.current.oid != 0; objects.next()) lines.push_back(DescribeObject(objects.current));
  return lines;
}

}  // namespace sagleme_test

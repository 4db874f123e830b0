#include "support/catalogue_definition.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <stdexcept>

namespace sagleme_test {

namespace {

// table  name, base, namespace, token, type id, set specifier ("-": none)
// column ordinal, name, logical type, target, token
// index  name, uniqueness, token, columns
constexpr char const* kDefinition = R"(
table MotherOfAllLayouts - internal 11 1 -
column 0 __id 4 - 1
column 1 __setspecifier 1 - 2
column 2 __type_id 4 - 4
index MotherOfAllLayouts_SetspecIndex plain 12 __setspecifier
table Token MotherOfAllLayouts internal 5 2 ~
column 3 NameToken 4 - 6
column 4 InvariantName 1 - 7
index NameToken unique 6 NameToken
index InvariantName unique 7 InvariantName
table SetSpecifier MotherOfAllLayouts internal 0 5 a~
column 3 TypeId 1 - 0
column 4 Type 8 RawView 0
column 5 NumberOfChildren 4 - 0
index TypeId plain 0 TypeId
index TypeId_postV2_3 unique 0 TypeId
index Type unique 0 Type
table MetaData MotherOfAllLayouts internal 0 0 c~
table Configuration MetaData internal 0 6 c~a~
column 3 ParameterName 1 - 0
column 4 Value 3 - 0
index ConfigurationParameter unique 0 ParameterName
table TypeIdsMeta MetaData internal 0 3 c~~
column 3 TypeIdsMeta_Id 4 - 0
column 4 TypeIdsMeta_Type 8 RawView 0
index TypeIdsMeta_PK unique 0 TypeIdsMeta_Id
index TypeIdsMeta_Type unique 0 TypeIdsMeta_Type
table Vacuum MotherOfAllLayouts internal 0 0 d~
column 3 TypeId 1 - 0
column 4 ExpectedLayout 4 - 0
column 5 RequestKind 4 - 0
index VacuumTypeId unique 0 TypeId
table DataType MotherOfAllLayouts public 0 0 b~
column 3 Name 1 - 0
table DbPrimitiveType DataType public 0 0 b~a~
column 4 PrimitiveType 4 - 0
index DbPrimitiveTypePK_postV2_3 unique 0 PrimitiveType
table MapPrimitiveType DataType public 0 0 b~b~
column 4 DbPrimitiveType 8 DbPrimitiveType 0
column 5 WriteLoss 10 - 0
column 6 ReadLoss 10 - 0
table ClrPrimitiveType MapPrimitiveType public 0 0 b~b~~
column 7 DbTypeCode 4 - 0
index ClrPrimitiveTypePK unique 0 Name
table Table DataType public 0 0 b~~
column 4 Inherits 8 Table 0
column 5 Updatable 10 - 0
column 6 FullName 1 - 0
column 7 UniqueIdentifierReversed 1 - 0
column 8 UniqueIdentifier 1 - 0
index TablePK unique 0 UniqueIdentifierReversed
table RawView Table public 8 4 b~~~
column 9 LayoutHandle 4 - 9
index RawViewPK unique 10 LayoutHandle
index RawViewPK2fullname unique 0 FullName
index RawViewIdxInherits plain 0 Inherits
table VMView Table public 0 0 b~~a~
column 9 Mapper 8 RawView 0
table ClrClass VMView public 0 0 b~~a~~
column 10 AssemblyName 1 - 0
column 11 AppDomainName 1 - 0
column 12 FullClassName 1 - 0
index ClrClassPK unique 0 FullClassName
index ClrClassByMapper plain 0 Mapper
table Member MotherOfAllLayouts public 0 0 e~
column 3 Table 8 Table 0
column 4 Name 1 - 0
column 5 DataType 8 DataType 0
column 6 Inherited 10 - 0
index MemberPK unique 0 Table Name
table Column Member public 0 0 e~~
column 7 Nullable 10 - 0
column 8 AlwaysUnique 10 - 0
table RawColumn Column internal 0 0 e~~~
column 9 ColumnIndex 3 - 0
index RawColumnPK unique 0 Table ColumnIndex
table ReferenceRawColumn RawColumn internal 0 0 e~~~~
column 10 DataTypeName 1 - 0
index ReferenceRawColumnByDataType plain 0 DataType
table Property Member public 0 0 e~a~
column 7 Get 10 - 0
column 8 Set 10 - 0
table CodeProperty Property public 0 0 e~a~~
column 9 Polymorphic 4 - 0
index CodePropertyPK unique 0 Table Name
table MappedProperty Property public 0 0 e~a~a~
column 9 Column 8 RawColumn 0
index MappedPropertyPK unique 0 Table Name
index MappedPropertyByColumn plain 0 Column
table Index MotherOfAllLayouts public 0 0 f~
column 3 Name 1 - 0
column 4 Table 8 RawView 0
column 5 Unique 4 - 0
column 6 IndexHandle 4 - 0
index IndexPK unique 0 Name
index IndexByTable plain 0 Table
table IndexedColumn MotherOfAllLayouts public 0 0 g~
column 3 Index 8 Index 0
column 4 Column 8 Column 0
column 5 Position 4 - 0
column 6 Ascending 10 - 0
index IndexedColumnPK unique 0 Index Column
table UserSchemaGeneration MotherOfAllLayouts internal 0 0 h~
column 3 Generation 4 - 0
)";

std::string OrEmpty(std::string const& word) { return word == "-" ? std::string() : word; }

DefinedTable ReadTable(std::istream& line, std::vector<DefinedTable> const& before) {
  DefinedTable table;
  std::string base, space, setspec;
  line >> table.name >> base >> space >> table.token >> table.type_id >> setspec;
  table.full_name =
      (space == "public" ? "Lorvenstack.Metadata." : "Lorvenstack.Internal.Metadata.") + table.name;
  table.base = OrEmpty(base);
  table.setspec = OrEmpty(setspec);
  for (DefinedTable const& other : before) {
    if (other.name == table.base) table.columns = other.columns;
  }
  for (DefinedColumn& column : table.columns) column.inherited = true;
  return table;
}

DefinedColumn ReadColumn(std::istream& line) {
  DefinedColumn column{};
  std::string target;
  line >> column.ordinal >> column.name >> column.type >> target >> column.token;
  column.target = OrEmpty(target);
  return column;
}

DefinedIndex ReadIndex(std::istream& line) {
  DefinedIndex index{};
  std::string uniqueness, column;
  line >> index.name >> uniqueness >> index.token;
  index.unique = uniqueness == "unique";
  while (line >> column) index.columns.push_back(column);
  return index;
}

std::vector<DefinedTable> ReadDefinition() {
  std::vector<DefinedTable> tables;
  std::istringstream text(kDefinition);
  for (std::string line; std::getline(text, line);) {
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    if (kind == "table") tables.push_back(ReadTable(words, tables));
    if (kind == "column") tables.back().columns.push_back(ReadColumn(words));
    if (kind == "index") tables.back().indexes.push_back(ReadIndex(words));
  }
  return tables;
}

// The words of a type in a catalogue line.
std::string TypeName(DefinedColumn const& column) {
  static char const* const kNames[] = {"",      "string", "binary",    "long", "ulong", "decimal",
                                       "float", "double", "reference", "key",  "bool"};
  return column.target.empty() ? kNames[column.type] : Defined(column.target).full_name;
}

bool MustBeNullable(int type) { return type == 1 || type == 2 || type == 8; }

int KernelType(int logical) { return logical == 10 ? 4 : logical; }

std::string Reversed(std::string const& dotted) {
  std::size_t const dot = dotted.find('.');
  if (dot == std::string::npos) return dotted;
  return Reversed(dotted.substr(dot + 1)) + "." + dotted.substr(0, dot);
}

using Lines = std::vector<std::string>;

template <typename... Parts>
void Add(Lines& lines, Parts const&... parts) {
  std::ostringstream line;
  ((line << parts << ' '), ...);
  lines.push_back(line.str());
}

int CountChildren(std::string const& setspec) {
  auto const is_child = [&setspec](DefinedTable const& table) {
    std::string const& spec = table.setspec;
    return spec.size() > setspec.size() && spec.starts_with(setspec) &&
           spec.find('~', setspec.size()) == spec.size() - 1;
  };
  return static_cast<int>(std::count_if(DefinedTables().begin(), DefinedTables().end(), is_child));
}

void AddTable(Lines& lines, DefinedTable const& table) {
  std::string const unique_identifier = "Lorvenstack.Raw." + table.full_name;
  std::string const base = table.base.empty() ? "-" : Defined(table.base).full_name;
  Add(lines, "RawView", table.full_name, "name", table.name, "inherits", base, "updatable", 0,
      "identifier", unique_identifier, "reversed", Reversed(unique_identifier), "layout", "own");
  Add(lines, "SetSpecifier", "'" + table.setspec + "'", "of", table.full_name, "children",
      CountChildren(table.setspec));
  Add(lines, "TypeIdsMeta", NewTypeId(table.name), "of", table.full_name);
}

void AddColumns(Lines& lines, DefinedTable const& table) {
  for (DefinedColumn const& column : table.columns) {
    Add(lines, column.target.empty() ? "RawColumn" : "ReferenceRawColumn", table.full_name,
        column.ordinal, column.name, TypeName(column), "inherited", column.inherited, "nullable",
        MustBeNullable(column.type), "always_unique", 0, "target", "'" + column.target + "'");
  }
}

void AddIndexes(Lines& lines, DefinedTable const& table) {
  for (DefinedIndex const& index : table.indexes) {
    Add(lines, "Index", index.name, "of", table.full_name, "unique", index.unique, "handle", "own");
    for (std::size_t i = 0; i < index.columns.size(); ++i) {
      Add(lines, "IndexedColumn", index.name, i, table.full_name + "." + index.columns[i],
          "ascending", 1);
    }
    Add(lines, "kernel index", index.name, "over", "'" + table.setspec + "'", "columns",
        index.columns.size(), "flags", index.unique);
  }
}

void AddLayout(Lines& lines, DefinedTable const& table) {
  std::string columns;
  for (DefinedColumn const& column : table.columns) {
    if (column.ordinal < 2) continue;
    columns += column.name + ":" + std::to_string(KernelType(column.type)) + " ";
  }
  Add(lines, "kernel layout", table.full_name, "base",
      table.base.empty() ? "-" : Defined(table.base).full_name, "columns", table.columns.size(),
      columns);
}

void AddTokens(Lines& lines) {
  std::set<std::string> texts = {"__auto", "DbPrimitiveTypePK"};
  for (DefinedTable const& table : DefinedTables()) {
    texts.insert(table.full_name);
    for (DefinedColumn const& column : table.columns) texts.insert(column.name);
    for (DefinedIndex const& index : table.indexes) texts.insert(index.name);
  }
  for (std::string const& text : texts) Add(lines, "Token", text);
}

void AddOtherRows(Lines& lines) {
  char const* const types[] = {"key 9",     "string 1", "binary 2", "long 3",      "ulong 4",
                               "decimal 5", "float 6",  "double 7", "reference 8", "bool 10"};
  for (char const* const type : types) Add(lines, "DbPrimitiveType", type);
  Add(lines, "TypeIdsMeta", 0, "of", "-");
  Add(lines, "Configuration", "MetaschemaVersion", 9);
  Add(lines, "UserSchemaGeneration", 0);
}

}  // namespace

std::vector<DefinedColumn> DefinedTable::OwnColumns() const {
  std::vector<DefinedColumn> own;
  std::copy_if(columns.begin(), columns.end(), std::back_inserter(own),
               [](DefinedColumn const& column) { return !column.inherited; });
  return own;
}

std::vector<DefinedTable> const& DefinedTables() {
  static std::vector<DefinedTable> const tables = ReadDefinition();
  return tables;
}

DefinedTable const& Defined(std::string const& name) {
  for (DefinedTable const& table : DefinedTables()) {
    if (table.name == name) return table;
  }
  throw std::out_of_range("no system table " + name);
}

unsigned long NewTypeId(std::string const& name) {
  unsigned long next = 7;
  for (DefinedTable const& table : DefinedTables()) {
    unsigned long const type_id = table.type_id != 0 ? table.type_id : next++;
    if (table.name == name) return type_id;
  }
  throw std::out_of_range("no system table " + name);
}

std::vector<std::string> ExpectedCatalogue() {
  Lines lines;
  for (DefinedTable const& table : DefinedTables()) {
    AddTable(lines, table);
    AddColumns(lines, table);
    AddIndexes(lines, table);
    AddLayout(lines, table);
  }
  AddTokens(lines);
  AddOtherRows(lines);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string Differences(std::vector<std::string> const& expected,
                        std::vector<std::string> const& found) {
  std::multiset<std::string> missing(expected.begin(), expected.end());
  std::string text;
  for (std::string const& line : found) {
    auto const match = missing.find(line);
    if (match == missing.end()) {
      text += "not expected: " + line + "\n";
    } else {
      missing.erase(match);
    }
  }
  for (std::string const& line : missing) text += "missing: " + line + "\n";
  return text;
}

}  // namespace sagleme_test

// Writes the constant table and the classes of the system tables from their one description.
//
//   generate_metaschema metaschema.json header classes.cpp table.cpp
//
// Runs while the library is built. A description that contradicts itself ends it with status 1.

#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

constexpr std::size_t kMaxOwnColumns = 10;
constexpr std::size_t kMaxOwnIndexes = 3;
constexpr std::size_t kMaxIndexColumns = 10;
constexpr std::size_t kHiddenColumns = 3;

// ---- the description ----------------------------------------------------------------------------

struct ColumnType {
  int code;
  std::string parameter;  // what Insert takes
};

std::map<std::string, ColumnType> const kTypes = {
    {"string", {1, "char16_t const*"}},
    {"long", {3, "long"}},
    {"ulong", {4, "unsigned long"}},
    {"reference", {8, "LS_OBJ_REF const&"}},
    {"bool", {10, "bool"}},
};

struct ColumnRecord {
  std::string name;
  std::string type;
  std::string target;
  unsigned token;
  std::string parameter;
};

struct IndexRecord {
  std::string name;
  std::vector<std::string> columns;
  bool unique;
  unsigned token;
  bool lookup;
  bool loaded;
};

struct TableRecord {
  std::string name;
  std::string base;
  bool is_public;
  unsigned token;
  unsigned type_id;
  std::vector<ColumnRecord> own;
  std::vector<ColumnRecord> all;  // inherited ones first
  std::vector<IndexRecord> indexes;

  std::string FullName() const {
    return (is_public ? "Lorvenstack.Metadata." : "Lorvenstack.Internal.Metadata.") + name;
  }
};

using Schema = std::vector<TableRecord>;

void Require(bool condition, std::string const& complaint) {
  if (!condition) throw std::runtime_error(complaint);
}

ColumnRecord ReadColumn(json const& in) {
  ColumnRecord column{in.at("name"), in.at("type"), in.value("target", ""), in.value("token", 0u),
                      ""};
  Require(kTypes.contains(column.type), column.name + ": unknown type " + column.type);
  Require((column.type == "reference") == !column.target.empty(),
          column.name + ": references, and nothing else, have a target");
  column.parameter = in.value("parameter", kTypes.at(column.type).parameter);
  return column;
}

IndexRecord ReadIndex(json const& in) {
  return {in.at("name"),         in.at("columns"),          in.at("unique"),
          in.value("token", 0u), in.value("lookup", false), in.value("loaded", true)};
}

TableRecord const& FindTable(Schema const& schema, std::string const& name) {
  for (TableRecord const& table : schema) {
    if (table.name == name) return table;
  }
  throw std::runtime_error("there is no table " + name + " so far");
}

ColumnRecord const& FindColumn(TableRecord const& table, std::string const& name) {
  for (ColumnRecord const& column : table.all) {
    if (column.name == name) return column;
  }
  throw std::runtime_error(table.name + " has no column " + name);
}

void CheckTable(TableRecord const& table) {
  Require(table.own.size() <= kMaxOwnColumns, table.name + ": too many columns");
  Require(table.indexes.size() <= kMaxOwnIndexes, table.name + ": too many indexes");
  for (IndexRecord const& index : table.indexes) {
    Require(index.columns.size() <= kMaxIndexColumns, index.name + ": too many columns");
    Require(index.loaded || !index.lookup, index.name + ": a lookup needs the index's id");
    for (std::string const& column : index.columns) FindColumn(table, column);
  }
}

TableRecord ReadTable(json const& in, Schema const& before) {
  TableRecord table{in.at("name"),
                    in.at("base").is_null() ? "" : in.at("base").get<std::string>(),
                    in.at("public"),
                    in.value("token", 0u),
                    in.value("type_id", 0u),
                    {},
                    {},
                    {}};
  if (!table.base.empty()) table.all = FindTable(before, table.base).all;
  for (json const& column : in.at("columns")) {
    table.own.push_back(ReadColumn(column));
    table.all.push_back(table.own.back());
  }
  for (json const& index : in.at("indexes")) table.indexes.push_back(ReadIndex(index));
  CheckTable(table);
  return table;
}

Schema ReadSchema(std::string const& path) {
  std::ifstream file(path);
  Require(file.good(), "cannot read " + path);
  Schema schema;
  json const description = json::parse(file);
  for (json const& table : description.at("tables")) {
    schema.push_back(ReadTable(table, schema));
  }
  for (TableRecord const& table : schema) {
    for (ColumnRecord const& column : table.own) {
      if (!column.target.empty()) FindTable(schema, column.target);
    }
  }
  return schema;
}

// ---- names in the output ------------------------------------------------------------------------

// UniqueIdentifier becomes unique_identifier.
std::string ParameterName(std::string const& column) {
  std::string out;
  for (char const c : column) {
    bool const upper = c >= 'A' && c <= 'Z';
    if (upper && !out.empty() && out.back() != '_') out += '_';
    out += upper ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

std::string Literal(std::string const& text) {
  return text.empty() ? "nullptr" : "u\"" + text + "\"";
}

std::string Parameters(std::vector<ColumnRecord> const& columns) {
  std::string out;
  for (ColumnRecord const& column : columns) {
    if (!out.empty()) out += ", ";
    out += column.parameter + " " + ParameterName(column.name);
  }
  return out;
}

std::vector<ColumnRecord> InsertColumns(TableRecord const& table) {
  return {table.all.begin() + kHiddenColumns, table.all.end()};
}

std::vector<ColumnRecord> KeyColumns(TableRecord const& table, IndexRecord const& index) {
  std::vector<ColumnRecord> columns;
  for (std::string const& name : index.columns) columns.push_back(FindColumn(table, name));
  return columns;
}

// ---- metalayer_generated.hpp --------------------------------------------------------------------

void WriteOrdinals(std::ostream& out, TableRecord const& table) {
  if (table.all.size() == kHiddenColumns) return;
  out << "\n  enum Ordinal : unsigned int {\n";
  for (std::size_t i = kHiddenColumns; i < table.all.size(); ++i) {
    out << "    k" << table.all[i].name << " = " << i << ",\n";
  }
  out << "  };\n";
}

void WriteAccessors(std::ostream& out, TableRecord const& table) {
  out << "\n  static std::u16string const& setspec();\n"
      << "  static unsigned short metaclass_layout_handle();\n"
      << "  static unsigned long g_type_id();\n";
  for (IndexRecord const& index : table.indexes) {
    out << "  static unsigned long index_id_" << index.name << "();\n";
  }
  out << "  static MetaclassSlots const& slots();\n";
}

void WriteFunctions(std::ostream& out, TableRecord const& table) {
  out << "\n  static unsigned short Init(std::u16string const& setspec, unsigned long type_id);\n"
      << "  static LS_OBJ_REF Insert(" << Parameters(InsertColumns(table)) << ");\n";
  for (IndexRecord const& index : table.indexes) {
    if (!index.lookup) continue;
    out << "  static " << table.name << " By" << index.name << "("
        << Parameters(KeyColumns(table, index)) << ");\n";
  }
}

void WriteStatics(std::ostream& out, TableRecord const& table) {
  out << "\n  // Of the first database opened.\n"
      << "  static std::u16string g_setspec_;\n"
      << "  static unsigned long g_type_id_;\n"
      << "  static unsigned short g_table_id_;\n";
  for (IndexRecord const& index : table.indexes) {
    out << "  static unsigned long g_index_id_" << index.name << "_;\n";
  }
}

void WriteClass(std::ostream& out, TableRecord const& table) {
  out << "\n// Rows of \"" << table.FullName() << "\".\n"
      << "class SAGLEME_API " << table.name << " : public db_record {\n public:\n"
      << "  using db_record::db_record;\n";
  WriteOrdinals(out, table);
  WriteAccessors(out, table);
  WriteFunctions(out, table);
  WriteStatics(out, table);
  out << "};\n";
}

void WriteHeader(std::ostream& out, Schema const& schema) {
  out << "#ifndef SAGLEME_METALAYER_GENERATED_HPP\n#define SAGLEME_METALAYER_GENERATED_HPP\n\n"
      << "// Generated from the description of the metaschema. Include "
         "<sagleme/metalayer/catalogue.hpp>,\n"
      << "// which says what these classes are.\n\n"
      << "#include <sagleme/metalayer/records.hpp>\n\n#include <string>\n\n"
      << "namespace metalayer {\n";
  for (TableRecord const& table : schema) WriteClass(out, table);
  out << "\n}  // namespace metalayer\n\n#endif\n";
}

// ---- metalayer_generated.cpp --------------------------------------------------------------------

void DefineStatics(std::ostream& out, TableRecord const& table) {
  std::string const scope = table.name + "::";
  out << "std::u16string " << scope << "g_setspec_;\n"
      << "unsigned long " << scope << "g_type_id_ = 0;\n"
      << "unsigned short " << scope << "g_table_id_ = 0;\n";
  for (IndexRecord const& index : table.indexes) {
    out << "unsigned long " << scope << "g_index_id_" << index.name << "_ = 0;\n";
  }
}

void DefineAccessors(std::ostream& out, TableRecord const& table, std::size_t number) {
  std::string const scope = table.name + "::";
  out << "\nMetaclassSlots const& " << scope << "slots() { return SlotsOfMetaclass(" << number
      << "); }\n"
      << "std::u16string const& " << scope << "setspec() { return *slots().setspec; }\n"
      << "unsigned short " << scope << "metaclass_layout_handle() { return *slots().table_id; }\n"
      << "unsigned long " << scope << "g_type_id() { return *slots().type_id; }\n";
  for (std::size_t i = 0; i < table.indexes.size(); ++i) {
    out << "unsigned long " << scope << "index_id_" << table.indexes[i].name
        << "() { return *slots().index_ids[" << i << "]; }\n";
  }
}

// Writes what is known already only when it differs: threads may read it.
void DefineInit(std::ostream& out, TableRecord const& table) {
  out << "\nunsigned short " << table.name
      << "::Init(std::u16string const& setspec, unsigned long type_id) {\n"
      << "  MetaclassSlots const& known = slots();\n"
      << "  if (!setspec.empty() && *known.setspec != setspec) *known.setspec = setspec;\n"
      << "  if (type_id != 0 && *known.type_id != type_id) *known.type_id = type_id;\n"
      << "  if (*known.table_id == 0) *known.table_id = LoadTableId(u\"" << table.FullName()
      << "\");\n";
  for (std::size_t i = 0; i < table.indexes.size(); ++i) {
    if (!table.indexes[i].loaded) continue;
    std::string const id = "*known.index_ids[" + std::to_string(i) + "]";
    out << "  if (" << id << " == 0) " << id << " = LoadIndexId(u\"" << table.indexes[i].name
        << "\");\n";
  }
  out << "  return *known.table_id;\n}\n";
}

std::string PutFunction(std::string const& type) {
  if (type == "string") return "PutText";
  if (type == "reference") return "PutRef";
  if (type == "bool") return "PutBool";
  return type == "long" ? "PutLong" : "PutULong";
}

void DefineInsert(std::ostream& out, TableRecord const& table) {
  std::vector<ColumnRecord> const columns = InsertColumns(table);
  out << "\nLS_OBJ_REF " << table.name << "::Insert(" << Parameters(columns) << ") {\n"
      << "  LS_OBJ_REF const row = InsertSystemRow(*slots().table_id, *slots().setspec);\n";
  for (ColumnRecord const& column : columns) {
    out << "  " << PutFunction(column.type) << "(row, k" << column.name << ", "
        << ParameterName(column.name) << ");\n";
  }
  out << "  return row;\n}\n";
}

std::string KeyField(ColumnRecord const& column) {
  std::string const argument = "(" + ParameterName(column.name) + ")";
  if (column.type == "string") return ".Text" + argument;
  if (column.type == "reference") return ".Ref" + argument;
  return (column.type == "long" ? ".Long" : ".ULong") + argument;
}

void DefineLookup(std::ostream& out, TableRecord const& table, IndexRecord const& index) {
  std::vector<ColumnRecord> const columns = KeyColumns(table, index);
  out << "\n"
      << table.name << " " << table.name << "::By" << index.name << "(" << Parameters(columns)
      << ") {\n  alignas(8) unsigned char key[db_util::db_iter_with_keys::kKeySize];\n  Key(key)";
  for (ColumnRecord const& column : columns) out << KeyField(column);
  out << ";\n  return " << table.name << "(LookupByKey(index_id_" << index.name
      << "(), key));\n}\n";
}

void DefineExportedSlots(std::ostream& out, Schema const& schema) {
  out << "\nMetaclassSlots const g_exported_slots[] = {\n";
  for (TableRecord const& table : schema) {
    std::string const scope = "&" + table.name + "::";
    out << "    {" << scope << "g_setspec_, " << scope << "g_type_id_, " << scope
        << "g_table_id_, {";
    for (IndexRecord const& index : table.indexes)
      out << scope << "g_index_id_" << index.name << "_, ";
    out << "}},\n";
  }
  out << "};\n";
}

void WriteClasses(std::ostream& out, Schema const& schema) {
  out << "// Generated from the description of the metaschema.\n\n"
      << "#include <sagleme/metalayer/catalogue.hpp>\n#include <sagleme/metalayer/schema.hpp>\n\n"
      << "#include \"metaschema/metaclasses.h\"\n#include \"metaschema/system_row.h\"\n\n"
      << "namespace metalayer {\n";
  for (std::size_t number = 0; number < schema.size(); ++number) {
    TableRecord const& table = schema[number];
    out << "\n// ---- " << table.name << "\n\n";
    DefineStatics(out, table);
    DefineAccessors(out, table, number);
    DefineInit(out, table);
    DefineInsert(out, table);
    for (IndexRecord const& index : table.indexes) {
      if (index.lookup) DefineLookup(out, table, index);
    }
  }
  DefineExportedSlots(out, schema);
  out << "\n}  // namespace metalayer\n";
}

// ---- metaschema_generated.cpp -------------------------------------------------------------------

void WriteTableColumns(std::ostream& out, TableRecord const& table) {
  out << "     {";
  for (ColumnRecord const& column : table.own) {
    out << "\n      {" << Literal(column.name) << ", " << column.token << ", "
        << kTypes.at(column.type).code << ", " << Literal(column.target) << ", false},";
  }
  out << "},\n";
}

void WriteTableIndexes(std::ostream& out, TableRecord const& table) {
  out << "     {";
  for (IndexRecord const& index : table.indexes) {
    out << "\n      {" << Literal(index.name) << ", " << index.token << ", "
        << (index.unique ? 1 : 0) << ", {";
    for (std::string const& column : index.columns) out << Literal(column) << ", ";
    out << "}},";
  }
  out << "},\n";
}

void WriteTable(std::ostream& out, Schema const& schema) {
  out << "// Generated from the description of the metaschema.\n\n"
      << "#include <sagleme/metalayer/catalogue.hpp>\n"
      << "#include <sagleme/metalayer/metaschema.hpp>\n\n"
      << "#include \"metaschema/system_tables_init.h\"\n\nnamespace metalayer {\n\n"
      << "TABLE_INFO_STATIC const metaschema_init_generated_from_json[] = {\n";
  for (TableRecord const& table : schema) {
    out << "    {" << Literal(table.name) << ", " << table.token << ", " << table.type_id << ",\n";
    WriteTableColumns(out, table);
    WriteTableIndexes(out, table);
    out << "     " << Literal(table.base) << ", " << (table.is_public ? "true" : "false") << "},\n";
  }
  out << "};\n\nMetaclassInit const g_inits[] = {\n";
  for (TableRecord const& table : schema) out << "    " << table.name << "::Init,\n";
  out << "};\n\n"
      << "static_assert(" << schema.size() << " == nr_meta_table_inits_generated_from_json);\n\n"
      << "}  // namespace metalayer\n";
}

// ---- the program --------------------------------------------------------------------------------

using Writer = void (*)(std::ostream&, Schema const&);

void WriteFile(std::string const& path, Schema const& schema, Writer writer) {
  std::ofstream file(path, std::ios::trunc);
  writer(file, schema);
  file.close();
  Require(file.good(), "cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: generate_metaschema description header classes table\n";
    return 1;
  }
  try {
    Schema const schema = ReadSchema(argv[1]);
    WriteFile(argv[2], schema, WriteHeader);
    WriteFile(argv[3], schema, WriteClasses);
    WriteFile(argv[4], schema, WriteTable);
  } catch (std::exception const& failure) {
    std::cerr << argv[1] << ": " << failure.what() << '\n';
    return 1;
  }
  return 0;
}

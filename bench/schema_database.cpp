#include "schema_database.h"

#include <algorithm>
#include <array>

#include "sections.h"

namespace bench {
namespace {

constexpr unsigned kColumns = 5;
constexpr char16_t const* kNewTable = u"Bench.New";
constexpr char16_t const* kNewColumn = u"Added";
constexpr char16_t const* kNewIndex = u"BenchNew";
constexpr char16_t const* kRenamed = u"Renamed";
constexpr std::array<sagleme::Type, kColumns> kTypes{sagleme::Type::kLong, sagleme::Type::kLong,
                                                     sagleme::Type::kDouble, sagleme::Type::kString,
                                                     sagleme::Type::kString};

void Check(std::uint32_t status) {
  if (status != 0) throw std::runtime_error("schema: status " + std::to_string(status));
}

std::u16string Numbered(std::u16string name, unsigned number) {
  for (char const digit : std::to_string(number)) name += static_cast<char16_t>(digit);
  return name;
}

std::u16string ColumnName(unsigned number) { return Numbered(u"Column", number); }

LORV_COLUMN_DEFINITION_NAMES Definition(char16_t const* name, sagleme::Type type) {
  LORV_COLUMN_DEFINITION_NAMES definition{};
  definition.logical_type = static_cast<std::uint8_t>(type);
  definition.is_nullable = 1;
  definition.name = name;
  return definition;
}

void AddColumn(std::uint64_t context, std::u16string const& table) {
  LORV_COLUMN_DEFINITION_NAMES const added[] = {Definition(kNewColumn, sagleme::Type::kLong), {}};
  Check(lorv_alter_table_add_columns(context, table.c_str(), added, nullptr));
}
void DropColumn(std::uint64_t context, std::u16string const& table) {
  Check(lorv_alter_table_drop_column_by_names(context, table.c_str(), kNewColumn, nullptr));
}
void Rename(std::uint64_t context, std::u16string const& table, char16_t const* from,
            char16_t const* to) {
  Check(lorv_alter_table_rename_column(context, table.c_str(), from, to));
}
void CreateIndex(std::uint64_t context, std::u16string const& table) {
  std::u16string const column = ColumnName(0);
  LORV_INDEXED_COLUMN const columns[] = {{column.c_str(), 1}, {}};
  Check(lorv_create_index_by_names(context, kNewIndex, table.c_str(), columns, false));
}

sagleme::Database Make(std::string const& directory, bool durable) {
  sagleme::Options const options = SchemaDatabase::OptionsOf(durable);
  return directory.empty() ? sagleme::Database::InMemory({}, options)
                           : sagleme::Database::Create(directory, {}, options);
}

}  // namespace

char const* NameOf(Change change) {
  switch (change) {
    case Change::kCreateTable:
      return "create a table with 5 columns";
    case Change::kAddColumn:
      return "add a column";
    case Change::kCreateIndex:
      return "create an index on an empty table";
    case Change::kRenameColumn:
      return "rename a column";
    case Change::kDropColumn:
      return "drop a column";
  }
  throw std::logic_error("no such change");
}

sagleme::Options SchemaDatabase::OptionsOf(bool durable) {
  sagleme::Options options;
  options.no_sync = !durable;
  return options;
}

std::u16string SchemaDatabase::TableName(unsigned number) {
  return Numbered(u"Bench.Table", number);
}

SchemaDatabase::SchemaDatabase(std::string const& directory, bool durable)
    : database_(Make(directory, durable)),
      context_(std::make_unique<sagleme::Context>(database_)) {}

template <typename Work>
void SchemaDatabase::InTransaction(Work&& work) {
  Check(lscoredb_begin(context_->id(), LSCOREDB_READ_WRITE));
  work(context_->id());
  Check(lscoredb_commit(context_->id()));
}

void SchemaDatabase::CreateTable(std::u16string const& name, unsigned columns) {
  std::vector<std::u16string> names;
  for (unsigned i = 0; i < columns; ++i) names.push_back(ColumnName(i));
  std::vector<LORV_COLUMN_DEFINITION_NAMES> definitions;
  for (unsigned i = 0; i < columns; ++i) {
    definitions.push_back(Definition(names[i].c_str(), kTypes[i % kTypes.size()]));
  }
  definitions.push_back({});
  std::uint16_t layout = 0;
  Check(lorv_create_table_by_names(context_->id(), name.c_str(), nullptr, definitions.data(),
                                   &layout));
}

void SchemaDatabase::MakeTables(unsigned first, unsigned count, unsigned columns) {
  constexpr unsigned kAtOnce = 50;
  for (unsigned i = first; i < first + count; i += kAtOnce) {
    InTransaction([&](std::uint64_t) {
      unsigned const end = std::min(i + kAtOnce, first + count);
      for (unsigned table = i; table < end; ++table) CreateTable(TableName(table), columns);
    });
  }
}

void SchemaDatabase::MakeTable(std::u16string const& name) {
  InTransaction([&](std::uint64_t) { CreateTable(name, kColumns); });
}

void SchemaDatabase::Fill(unsigned table, Number objects) {
  constexpr Number kAtOnce = 10000;
  for (Number i = 0; i < objects; i += kAtOnce) {
    InTransaction([&](std::uint64_t context) {
      CreateInfo* create = nullptr;
      PropertyAccessInfo* number = nullptr;
      Check(lorv_crud_GetCreateHandle(context, TableName(table).c_str(), &create));
      Check(lorv_crud_GetPropertyHandle(context, TableName(table).c_str(), ColumnName(1).c_str(),
                                        &number));
      for (Number made = 0; made < std::min(kAtOnce, objects - i); ++made) {
        std::uint64_t oid = 0;
        std::uint64_t addr = 0;
        Check(lorv_crud_CreateObject(context, create, &oid, &addr));
        Check(lorv_crud_WriteLong(context, number, oid, addr, i + made));
      }
    });
  }
}

double SchemaDatabase::Time(Change change, unsigned table, int times) {
  std::u16string const name = TableName(table);
  std::vector<double> all;
  for (int i = 0; i < times; ++i) all.push_back(TimeOnce(change, name));
  return Median(all);
}

double SchemaDatabase::TimeOnce(Change change, std::u16string const& table) {
  using Work = std::function<void(std::uint64_t)>;
  std::u16string const column = ColumnName(2);
  Work const add = [&](std::uint64_t context) { AddColumn(context, table); };
  Work const drop = [&](std::uint64_t context) { DropColumn(context, table); };
  Work before;
  Work timed;
  Work undo;
  switch (change) {
    case Change::kCreateTable:
      timed = [&](std::uint64_t) { CreateTable(kNewTable, kColumns); };
      undo = [&](std::uint64_t context) {
        Check(lorv_drop_table_by_name(context, kNewTable, false, false));
      };
      break;
    case Change::kAddColumn:
      timed = add;
      undo = drop;
      break;
    case Change::kCreateIndex:
      timed = [&](std::uint64_t context) { CreateIndex(context, table); };
      undo = [&](std::uint64_t context) { Check(lorv_drop_index_by_name(context, kNewIndex)); };
      break;
    case Change::kRenameColumn:
      timed = [&](std::uint64_t context) { Rename(context, table, column.c_str(), kRenamed); };
      undo = [&](std::uint64_t context) { Rename(context, table, kRenamed, column.c_str()); };
      break;
    case Change::kDropColumn:
      before = add;
      timed = drop;
      break;
  }
  if (before) InTransaction(before);
  double const time = Nanoseconds([&] { InTransaction(timed); });
  if (undo) InTransaction(undo);
  return time;
}

}  // namespace bench

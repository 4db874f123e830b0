#include <fmt/format.h>

#include "commands/commands.h"
#include "output/listing.h"
#include "output/text.h"
#include "query/names.h"

namespace tool {
namespace {

class DescribeCommand : public Command {
 public:
  std::string name() const override { return "describe"; }
  std::string summary() const override { return "Show the columns and indexes of a table"; }
  std::vector<Example> examples() const override {
    return {{"describe shop Customer", "the table whose name ends in Customer"},
            {"describe shop App.Customer --format markdown", "for a document"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name may be omitted")
        ->required()
        ->type_name("");
    app.add_flag("--system", system_, "Show the hidden columns too, and the root of all tables");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string table_;
  bool system_ = false;
};

// The table that declares a column: the first of the line of bases that has it as its own.
std::string Origin(sagleme::Transaction& transaction, sagleme::Table const& table,
                   sagleme::Column const& column) {
  sagleme::TablePtr at = transaction.table(table.name);
  while (!at->base.empty() && at->GetColumn(column.name).inherited)
    at = transaction.table(at->base);
  return sagleme::ToUtf8(at->name);
}

std::string IndexColumns(sagleme::Index const& index) {
  std::string text;
  for (sagleme::IndexedColumn const& column : index.columns) {
    text += (text.empty() ? "" : ", ") + sagleme::ToUtf8(column.name);
    if (!column.ascending) text += " descending";
  }
  return text;
}

Listing ColumnList(sagleme::Transaction& transaction, sagleme::Table const& table, bool system) {
  Listing listing({"column", "type", "nullable", "target", "from"});
  for (sagleme::Column const& column : table.columns) {
    if (column.system() && !system) continue;
    listing.Add({Cell::Text(sagleme::ToUtf8(column.name)),
                 Cell::Text(std::string(sagleme::TypeName(column.type))),
                 Cell::Bool(column.nullable),
                 column.target.empty() ? Cell{} : Cell::Text(sagleme::ToUtf8(column.target)),
                 Cell::Text(Origin(transaction, table, column))});
  }
  return listing;
}

// The indexes that cover a table: its own and those of its bases.
Listing IndexList(sagleme::Transaction& transaction, sagleme::Table const& table, bool system) {
  Listing listing({"index", "unique", "columns", "from"});
  for (sagleme::TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    if (at->system && !system) continue;
    for (sagleme::Index const& index : at->indexes) {
      listing.Add({Cell::Text(sagleme::ToUtf8(index.name)), Cell::Bool(index.unique),
                   Cell::Text(IndexColumns(index)), Cell::Text(sagleme::ToUtf8(at->name))});
    }
  }
  return listing;
}

void PrintAll(sagleme::Table const& table, std::string const& base, Listing const& columns,
              Listing const& indexes, Output const& output) {
  std::string const name = sagleme::ToUtf8(table.name);
  switch (output.format()) {
    case Format::kJson:
      return output.Print(fmt::format(
          "{{\n  \"table\": {},\n  \"base\": {},\n  \"columns\": {},\n  \"indexes\": {}\n}}\n",
          JsonString(name), base.empty() ? "null" : JsonString(base), columns.Json("  "),
          indexes.Json("  ")));
    case Format::kCsv:
      return columns.Print(output);
    case Format::kTable:
    case Format::kRecords:
      output.Print(base.empty()
                       ? Visible(name) + "\n\n"
                       : fmt::format("{}, derived from {}\n\n", Visible(name), Visible(base)));
      break;
    case Format::kMarkdown:
      output.Print("## " + Visible(name) + "\n\n");
      break;
  }
  columns.Print(output);
  if (indexes.size() == 0) return;
  output.Print("\n");
  indexes.Print(output);
}

Exit DescribeCommand::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const table = TableNamed(transaction, table_);
    bool const system = system_ || table->system;
    bool const show_base = system || !sagleme::detail::IsSystemTable(table->base);
    PrintAll(*table, show_base ? sagleme::ToUtf8(table->base) : "",
             ColumnList(transaction, *table, system), IndexList(transaction, *table, system),
             output);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeDescribe() { return std::make_unique<DescribeCommand>(); }

}  // namespace tool

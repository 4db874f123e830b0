#include <fmt/format.h>

#include "commands/commands.h"
#include "commands/names.h"
#include "output/listing.h"
#include "output/text.h"

namespace tool {
namespace {

class DescribeCommand : public Command {
 public:
  std::string name() const override { return "describe"; }
  std::string summary() const override { return "Shows the columns and indexes of a table"; }
  std::vector<Example> examples() const override {
    return {{"describe shop Customer", "the table whose name ends in Customer"},
            {"describe shop App.Customer --format markdown", "for a document"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of the name may be left out")
        ->required()
        ->type_name("");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string table_;
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

Listing ColumnList(sagleme::Transaction& transaction, sagleme::Table const& table) {
  Listing listing({"column", "type", "nullable", "target", "from"});
  for (sagleme::Column const& column : table.columns) {
    listing.Add({Cell::Text(sagleme::ToUtf8(column.name)),
                 Cell::Text(std::string(sagleme::TypeName(column.type))),
                 Cell::Bool(column.nullable),
                 column.target.empty() ? Cell{} : Cell::Text(sagleme::ToUtf8(column.target)),
                 Cell::Text(Origin(transaction, table, column))});
  }
  return listing;
}

// The indexes that cover a table: its own and those of its bases.
Listing IndexList(sagleme::Transaction& transaction, sagleme::Table const& table) {
  Listing listing({"index", "unique", "columns", "from"});
  for (sagleme::TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    for (sagleme::Index const& index : at->indexes) {
      listing.Add({Cell::Text(sagleme::ToUtf8(index.name)), Cell::Bool(index.unique),
                   Cell::Text(IndexColumns(index)), Cell::Text(sagleme::ToUtf8(at->name))});
    }
  }
  return listing;
}

void PrintAll(sagleme::Table const& table, Listing const& columns, Listing const& indexes,
              Output const& output) {
  std::string const name = sagleme::ToUtf8(table.name);
  std::string const base = sagleme::ToUtf8(table.base);
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
    PrintAll(*table, ColumnList(transaction, *table), IndexList(transaction, *table), output);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeDescribe() { return std::make_unique<DescribeCommand>(); }

}  // namespace tool

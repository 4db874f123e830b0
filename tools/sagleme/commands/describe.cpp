#include <fmt/format.h>

#include <sagleme/annotations.hpp>
#include <sagleme/value_text.hpp>

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

// What is to be shown of a table. Columns of annotations are shown if there are any.
struct Shown {
  std::vector<sagleme::Column const*> columns;
  std::vector<sagleme::Index> indexes;
  bool defaults = false;
  bool rules = false;
  bool column_comments = false;
  bool index_comments = false;
};

// The indexes that cover a table are its own and those of its bases.
Shown WhatToShow(sagleme::Transaction& transaction, sagleme::Table const& table, bool system) {
  Shown shown;
  for (sagleme::Column const& column : table.columns) {
    if (column.system() && !system) continue;
    shown.columns.push_back(&column);
    shown.defaults |= !sagleme::IsNull(sagleme::DefaultOf(transaction, table, column));
    shown.rules |= sagleme::OnDeleteOf(transaction, table, column) != sagleme::OnDelete::kKeep;
    shown.column_comments |= !sagleme::CommentOf(transaction, table, column).empty();
  }
  for (sagleme::TablePtr at = transaction.table(table.name); at != nullptr;
       at = at->base.empty() ? nullptr : transaction.table(at->base)) {
    if (at->system && !system) continue;
    for (sagleme::Index const& index : at->indexes) {
      shown.indexes.push_back(index);
      shown.index_comments |= !sagleme::CommentOf(transaction, index).empty();
    }
  }
  return shown;
}

Cell TextOrNothing(std::string const& text) { return text.empty() ? Cell{} : Cell::Text(text); }

Cell RuleCell(sagleme::OnDelete rule) {
  return rule == sagleme::OnDelete::kKeep ? Cell{}
                                          : Cell::Text(std::string(sagleme::OnDeleteName(rule)));
}

Cell DefaultCell(sagleme::Value const& value) {
  return sagleme::IsNull(value) ? Cell{} : Cell::Text(sagleme::ValueText(value));
}

Listing ColumnList(sagleme::Transaction& transaction, sagleme::Table const& table,
                   Shown const& shown) {
  std::vector<std::string> heading{"column", "type", "nullable", "target", "from"};
  if (shown.defaults) heading.emplace_back("default");
  if (shown.rules) heading.emplace_back("on delete");
  if (shown.column_comments) heading.emplace_back("comment");
  Listing listing(heading);
  for (sagleme::Column const* const each : shown.columns) {
    sagleme::Column const& column = *each;
    std::vector<Cell> row{Cell::Text(sagleme::ToUtf8(column.name)),
                          Cell::Text(std::string(sagleme::TypeName(column.type))),
                          Cell::Bool(column.nullable),
                          TextOrNothing(sagleme::ToUtf8(column.target)),
                          Cell::Text(Origin(transaction, table, column))};
    if (shown.defaults) row.push_back(DefaultCell(DefaultOf(transaction, table, column)));
    if (shown.rules) row.push_back(RuleCell(OnDeleteOf(transaction, table, column)));
    if (shown.column_comments) row.push_back(TextOrNothing(CommentOf(transaction, table, column)));
    listing.Add(std::move(row));
  }
  return listing;
}

Listing IndexList(sagleme::Transaction& transaction, Shown const& shown) {
  std::vector<std::string> heading{"index", "unique", "columns", "from"};
  if (shown.index_comments) heading.emplace_back("comment");
  Listing listing(heading);
  for (sagleme::Index const& index : shown.indexes) {
    std::vector<Cell> row{Cell::Text(sagleme::ToUtf8(index.name)), Cell::Bool(index.unique),
                          Cell::Text(IndexColumns(index)),
                          Cell::Text(sagleme::ToUtf8(index.table))};
    if (shown.index_comments) row.push_back(TextOrNothing(CommentOf(transaction, index)));
    listing.Add(std::move(row));
  }
  return listing;
}

// What is said of a table as a whole.
struct Headline {
  std::string name;
  std::string base;
  bool abstract = false;
  std::string comment;

  std::string Json() const {
    std::string json = "  \"table\": " + JsonString(name);
    json += ",\n  \"base\": " + (base.empty() ? "null" : JsonString(base));
    if (abstract) json += ",\n  \"abstract\": true";
    if (!comment.empty()) json += ",\n  \"comment\": " + JsonString(comment);
    return json + ",\n";
  }
  std::string Text() const {
    std::string text = Visible(name);
    if (!base.empty()) text += ", derived from " + Visible(base);
    if (abstract) text += ", abstract";
    return text + "\n" + Paragraph();
  }
  std::string Markdown() const {
    return "## " + Visible(name) + "\n" + (abstract ? "\nabstract\n" : "") + Paragraph();
  }

 private:
  std::string Paragraph() const {
    return comment.empty() ? "\n" : "\n" + Visible(comment) + "\n\n";
  }
};

void PrintAll(Headline const& headline, Listing const& columns, Listing const& indexes,
              Output const& output) {
  switch (output.format()) {
    case Format::kJson:
      return output.Print(fmt::format("{{\n{}  \"columns\": {},\n  \"indexes\": {}\n}}\n",
                                      headline.Json(), columns.Json("  "), indexes.Json("  ")));
    case Format::kCsv:
      return columns.Print(output);
    case Format::kTable:
    case Format::kRecords:
      output.Print(headline.Text());
      break;
    case Format::kMarkdown:
      output.Print(headline.Markdown());
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
    Shown const shown = WhatToShow(transaction, *table, system);
    Headline const headline{sagleme::ToUtf8(table->name),
                            show_base ? sagleme::ToUtf8(table->base) : "",
                            IsAbstract(transaction, *table), CommentOf(transaction, *table)};
    PrintAll(headline, ColumnList(transaction, *table, shown), IndexList(transaction, shown),
             output);
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeDescribe() { return std::make_unique<DescribeCommand>(); }

}  // namespace tool

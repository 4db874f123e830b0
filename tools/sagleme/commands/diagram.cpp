#include <fmt/format.h>

#include <sagleme/diagram.hpp>

#include "commands/commands.h"
#include "commands/excerpt.h"
#include "output/text.h"
#include "query/names.h"

namespace tool {
namespace {

class Diagram : public Command {
 public:
  std::string name() const override { return "diagram"; }
  std::string summary() const override {
    return "Draw the tables with their inheritance and references";
  }
  std::vector<Example> examples() const override {
    return {
        {"diagram shop --as html --output shop.html",
         "a page with a tree that can be searched; shop.html#App.Customer leads to a table"},
        {"diagram shop Customer --as svg > customer.svg",
         "a picture of one table and those derived from it, through Graphviz"},
        {"diagram shop --depth 1 --as mermaid", "the tables without a base and their children"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "Draw this table and the tables derived from it only")
        ->type_name("");
    AddChoice(app, "--as", form_, {"dot", "mermaid", "svg", "html"},
              "The form of the diagram: dot (the default), mermaid, svg or html");
    AddCount(app, "--depth", limits_.depth,
             "Draw at most LEVELS levels of tables below the highest", "LEVELS");
    AddCount(app, "--limit", limit_,
             "Draw at most COUNT tables, the highest first; 0 for all. 100 by default, and all in "
             "html");
    app.add_option("--output", file_, "Write to FILE instead of standard output")
        ->type_name("FILE");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  static constexpr std::uint64_t kTablesOnAPicture = 100;
  static constexpr std::uint64_t kUnset = UINT64_MAX;

  std::uint64_t MostTables() const;
  std::string Draw(sagleme::SchemaDoc const& schema) const;
  sagleme::SchemaDoc Part(sagleme::Transaction& transaction, Output const& output);

  std::string table_;
  std::string form_ = "dot";
  std::string file_;
  std::uint64_t limit_ = kUnset;
  ExcerptLimits limits_;
};

std::uint64_t Diagram::MostTables() const {
  if (limit_ == kUnset) return form_ == "html" ? UINT64_MAX : kTablesOnAPicture;
  return limit_ == 0 ? UINT64_MAX : limit_;
}

std::string Diagram::Draw(sagleme::SchemaDoc const& schema) const {
  if (form_ == "mermaid") return sagleme::MermaidDiagram(schema);
  if (form_ == "svg") return sagleme::SvgDiagram(schema);
  if (form_ == "html") return sagleme::HtmlDiagram(schema);
  return sagleme::DotDiagram(schema);
}

sagleme::SchemaDoc Diagram::Part(sagleme::Transaction& transaction, Output const& output) {
  sagleme::SchemaDoc const schema = sagleme::ReadSchema(transaction, false);
  if (!table_.empty()) limits_.top = sagleme::ToUtf8(UserTableNamed(transaction, table_)->name);
  sagleme::SchemaDoc const wanted = Excerpt(schema, {.top = limits_.top});
  limits_.tables = MostTables();
  sagleme::SchemaDoc part = Excerpt(schema, limits_);
  std::size_t const missing = wanted.tables.size() - part.tables.size();
  if (missing != 0) {
    output.Note(fmt::format("{} left out; --depth and --limit say how many are drawn\n",
                            Counted(missing, "tables")));
  }
  return part;
}

Exit Diagram::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    std::string const text = Draw(Part(transaction, output));
    if (file_.empty()) return output.Print(text);
    NewFileWriter file(file_);
    file.Write(text);
    file.Flush();
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeDiagram() { return std::make_unique<Diagram>(); }

}  // namespace tool

#include <fmt/format.h>

#include <sagleme/counts.hpp>

#include "commands/commands.h"
#include "output/listing.h"

namespace tool {
namespace {

class Tables : public Command {
 public:
  std::string name() const override { return "tables"; }
  std::string summary() const override { return "List the tables with their object counts"; }
  std::vector<Example> examples() const override {
    return {
        {"tables shop", "all tables by name"},
        {"tables shop --tree", "the inheritance tree, children below their base"},
        {"tables shop --system --format json", "the catalogue's own tables too, for a program"}};
  }
  void Declare(CLI::App& app) override {
    app.add_flag("--tree", tree_, "Show a tree: tables indented below their base");
    app.add_flag("--system", system_, "Show the tables of the catalogue itself too");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  void Add(sagleme::Table const& table, int depth);
  void AddSubtree(sagleme::Transaction& transaction, sagleme::Table const& table, int depth);

  bool tree_ = false;
  bool system_ = false;
  sagleme::ObjectCounts const* counts_ = nullptr;
  Listing* listing_ = nullptr;
};

void Tables::Add(sagleme::Table const& table, int depth) {
  bool const hide_base =
      table.base.empty() || (!system_ && sagleme::detail::IsSystemTable(table.base));
  std::string const indent(static_cast<std::size_t>(2 * depth), ' ');
  listing_->Add({Cell::Text(indent + sagleme::ToUtf8(table.name)),
                 hide_base ? Cell{} : Cell::Text(sagleme::ToUtf8(table.base)),
                 Cell::Number(counts_->Own(table)), Cell::Number(counts_->Subtree(table)),
                 Cell::Number(table.columns.size()), Cell::Number(table.indexes.size())});
}

void Tables::AddSubtree(sagleme::Transaction& transaction, sagleme::Table const& table, int depth) {
  Add(table, depth);
  for (auto const& child : transaction.Children(table, system_)) {
    AddSubtree(transaction, *child, depth + 1);
  }
}

Exit Tables::Run(Session& session, Output& output) {
  Listing listing({"table", "base", "objects", "with descendants", "columns", "indexes"});
  session.Read([&](sagleme::Transaction& transaction) {
    sagleme::ObjectCounts const counts(transaction);
    counts_ = &counts;
    listing_ = &listing;
    sagleme::TablePtr const root = sagleme::RootTable(transaction);
    if (!tree_) {
      for (auto const& table : transaction.Tables(system_)) Add(*table, 0);
    } else if (system_) {
      AddSubtree(transaction, *root, 0);
    } else {
      for (auto const& table : transaction.Children(*root)) AddSubtree(transaction, *table, 0);
    }
  });
  listing.Print(output);
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeTables() { return std::make_unique<Tables>(); }

}  // namespace tool

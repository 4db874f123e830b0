#include <fmt/format.h>

#include <sagleme/schema_plan.hpp>

#include "schema/refused_build.h"

namespace sagleme {
namespace {

struct Labels {
  Label operator()(change::DropIndex const&) const { return Label::kInstant; }
  Label operator()(change::DropColumn const&) const { return Label::kDestructive; }
  Label operator()(change::DropTable const&) const { return Label::kDestructive; }
  Label operator()(change::RenameTable const&) const { return Label::kInstant; }
  Label operator()(change::RenameColumn const&) const { return Label::kInstant; }
  Label operator()(change::CreateTable const&) const { return Label::kInstant; }
  Label operator()(change::AddColumns const&) const { return Label::kBackground; }
  Label operator()(change::CreateIndex const&) const { return Label::kBackground; }
};

std::string ColumnNames(std::vector<ColumnDoc> const& columns) {
  std::string names;
  for (ColumnDoc const& column : columns) names += (names.empty() ? "" : ", ") + column.name;
  return names;
}

struct Sentences {
  std::string operator()(change::DropIndex const& it) const {
    return fmt::format("drop index {}", it.index);
  }
  std::string operator()(change::DropColumn const& it) const {
    return fmt::format("drop column {} of {} with its values", it.column, it.table);
  }
  std::string operator()(change::DropTable const& it) const {
    return fmt::format("drop table {} with its objects", it.table);
  }
  std::string operator()(change::RenameTable const& it) const {
    return fmt::format("rename table {} to {}", it.table, it.new_name);
  }
  std::string operator()(change::RenameColumn const& it) const {
    return fmt::format("rename column {} of {} to {}", it.column, it.table, it.new_name);
  }
  std::string operator()(change::CreateTable const& it) const {
    std::string text = fmt::format("create table {}", it.table.name);
    if (!it.table.base.empty()) text += fmt::format(" derived from {}", it.table.base);
    return text;
  }
  std::string operator()(change::AddColumns const& it) const {
    return fmt::format("add {} to {}", ColumnNames(it.columns), it.table);
  }
  std::string operator()(change::CreateIndex const& it) const {
    return fmt::format("create {}index {} on {}", it.index.unique ? "unique " : "", it.index.name,
                       it.table);
  }
};

class Applier {
 public:
  explicit Applier(Transaction& transaction) : transaction_(transaction) {}

  void operator()(change::DropIndex const& it) const { DropIndex(transaction_, ToUtf16(it.index)); }
  void operator()(change::DropColumn const& it) const {
    DropColumn(transaction_, ToUtf16(it.table), ToUtf16(it.column));
  }
  void operator()(change::DropTable const& it) const {
    DropOptions const forced{.children = false, .force = true};  // references go in the plan
    DropTable(transaction_, ToUtf16(it.table), forced);
  }
  void operator()(change::RenameTable const& it) const {
    RenameTable(transaction_, ToUtf16(it.table), ToUtf16(it.new_name));
  }
  void operator()(change::RenameColumn const& it) const {
    RenameColumn(transaction_, ToUtf16(it.table), ToUtf16(it.column), ToUtf16(it.new_name));
  }
  void operator()(change::CreateTable const& it) {
    references_open_ = true;
    CreateTable(transaction_, ToUtf16(it.table.name), ToUtf16(it.table.base),
                Specs(it.table.columns));
  }
  void operator()(change::AddColumns const& it) {
    FinishReferences();
    AddColumns(transaction_, ToUtf16(it.table), Specs(it.columns));
  }
  void operator()(change::CreateIndex const& it) {
    FinishReferences();
    std::vector<IndexColumnSpec> columns;
    for (IndexColumnDoc const& column : it.index.columns) {
      columns.push_back({ToUtf16(column.name), !column.descending});
    }
    try {
      CreateIndex(transaction_, ToUtf16(it.index.name), ToUtf16(it.table), columns,
                  it.index.unique ? Uniqueness::kUnique : Uniqueness::kAny);
    } catch (Error const& error) {
      if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
      std::string const description = DescribeRefused(it);
      if (description.empty()) throw;
      throw Error(error.status(), description);
    }
  }

  // Columns whose targets come later have no type until then, and the layer neither indexes nor
  // moves a column without one. All tables are created before either.
  void FinishReferences() {
    if (references_open_) sagleme::FinishReferences(transaction_);
    references_open_ = false;
  }

 private:
  // Nothing when it was refused for another reason than a key that two objects have.
  std::string DescribeRefused(change::CreateIndex const& it) const {
    auto const refused = FindRefusedBuild(transaction_, it);
    if (!refused) return "";
    return fmt::format("duplicate key {} in unique index {} (objects {} and {})", refused->key,
                       it.index.name, refused->first.value, refused->second.value);
  }
  static std::vector<ColumnSpec> Specs(std::vector<ColumnDoc> const& columns) {
    std::vector<ColumnSpec> specs;
    for (ColumnDoc const& column : columns) {
      specs.push_back({ToUtf16(column.name), column.type, column.nullable, ToUtf16(column.target)});
    }
    return specs;
  }

  Transaction& transaction_;
  bool references_open_ = false;
};

}  // namespace

Label LabelOf(Change const& change) { return std::visit(Labels{}, change); }

std::string_view LabelName(Label label) {
  switch (label) {
    case Label::kInstant:
      return "instant";
    case Label::kBackground:
      return "background";
    case Label::kDestructive:
      break;
  }
  return "destructive";
}

std::string DescribeChange(Change const& change) { return std::visit(Sentences{}, change); }

void ApplyPlan(Transaction& transaction, Plan const& plan) {
  Applier applier(transaction);
  for (Change const& change : plan) std::visit(applier, change);
  applier.FinishReferences();
}

}  // namespace sagleme

#include <fmt/format.h>

#include <sagleme/hierarchy.hpp>
#include <sagleme/schema_plan.hpp>

#include "schema/annotation_changes.h"
#include "schema/refused_build.h"
#include "schema/refused_move.h"

namespace sagleme {
namespace {

// Whether there could be a value that the new definition does not hold.
bool MayLose(change::ChangeColumn const& it) {
  bool const all = ConversionOf(it.before.type, it.after.type) == Conversion::kAll;
  return !all || (it.before.nullable && !it.after.nullable);
}

struct Labels {
  Label operator()(change::DropIndex const&) const { return Label::kInstant; }
  Label operator()(change::DropColumn const&) const { return Label::kDestructive; }
  Label operator()(change::DropTable const&) const { return Label::kDestructive; }
  Label operator()(change::RenameTable const&) const { return Label::kInstant; }
  Label operator()(change::RenameColumn const&) const { return Label::kInstant; }
  Label operator()(change::CreateTable const&) const { return Label::kInstant; }
  Label operator()(change::AddColumns const&) const { return Label::kBackground; }
  Label operator()(change::CreateIndex const&) const { return Label::kBackground; }
  Label operator()(change::PullUpColumn const&) const { return Label::kBackground; }
  Label operator()(change::PushDownColumn const& it) const {
    return it.loss == Loss::kAllow ? Label::kDestructive : Label::kBackground;
  }
  Label operator()(change::ChangeColumn const& it) const {
    if (it.loss == Loss::kAllow && MayLose(it)) return Label::kDestructive;
    return it.before.type == it.after.type && it.before.nullable == it.after.nullable
               ? Label::kInstant
               : Label::kBackground;
  }
  Label operator()(change::Annotate const& it) const {
    return ReadsObjects(it) ? Label::kBackground : Label::kInstant;
  }
  Label operator()(change::SetBase const&) const { return Label::kBackground; }
};

std::string ColumnNames(std::vector<ColumnDoc> const& columns) {
  std::string names;
  for (ColumnDoc const& column : columns) names += (names.empty() ? "" : ", ") + column.name;
  return names;
}

std::string Listed(std::vector<std::string> const& names) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
  }
  return text;
}

std::string Described(ColumnDoc const& column) {
  if (column.type == Type::kReference) return "reference to " + column.target;
  return std::string(TypeName(column.type)) + (column.nullable ? "" : " without null");
}

struct Sentences {
  std::string operator()(change::DropIndex const& it) const {
    return fmt::format("drop index {}", it.index);
  }
  std::string operator()(change::DropColumn const& it) const {
    return fmt::format("drop column {} of {} with its values{}", it.column, it.table,
                       it.on_delete == OnDelete::kLast
                           ? "; what they refer to stays, though they may be the last references"
                           : "");
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
  std::string operator()(change::PullUpColumn const& it) const {
    return fmt::format("pull column {} of {} up to {}", it.column, Listed(it.tables), it.base);
  }
  std::string operator()(change::PushDownColumn const& it) const {
    return fmt::format("push column {} of {} down to {}{}", it.column, it.table, Listed(it.tables),
                       it.loss == Loss::kAllow ? ", losing the values of other objects" : "");
  }
  std::string operator()(change::ChangeColumn const& it) const {
    bool const losing = it.loss == Loss::kAllow && MayLose(it);
    return fmt::format("change column {} of {} from {} to {}{}", it.after.name, it.table,
                       Described(it.before), Described(it.after),
                       losing ? ", losing values that do not convert" : "");
  }
  std::string operator()(change::CreateIndex const& it) const {
    return fmt::format("create {}index {} on {}", it.index.unique ? "unique " : "", it.index.name,
                       it.table);
  }
  std::string operator()(change::Annotate const& it) const { return DescribeAnnotation(it); }
  std::string operator()(change::SetBase const& it) const {
    if (it.base.empty()) return fmt::format("move table {} to the root", it.table);
    return fmt::format("move table {} under {}", it.table, it.base);
  }
};

ColumnSpec SpecOf(ColumnDoc const& column) {
  return {ToUtf16(column.name), column.type, column.nullable, ToUtf16(column.target)};
}

// The change as it would be made for real, in a transaction that only reads.
struct Refusal {
  Transaction& transaction;

  void operator()(change::PushDownColumn const& it) const {
    std::vector<Text> const tables(it.tables.begin(), it.tables.end());
    if (it.loss == Loss::kRefuse) RequireNoneLost(transaction, it.table, it.column, tables);
  }
  void operator()(change::ChangeColumn const& it) const {
    if (it.loss == Loss::kRefuse) RequireConvertible(transaction, it.table, SpecOf(it.after));
  }
  template <typename Other>
  void operator()(Other const&) const {}
};

struct LossAllowed {
  void operator()(change::PushDownColumn& it) const { it.loss = Loss::kAllow; }
  void operator()(change::ChangeColumn& it) const { it.loss = Loss::kAllow; }
  template <typename Other>
  void operator()(Other&) const {}
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
  void operator()(change::PullUpColumn const& it) {
    FinishReferences();
    sagleme::PullUpColumn(transaction_, it.tables.at(0), it.column, it.base);
  }
  void operator()(change::PushDownColumn const& it) {
    FinishReferences();
    std::vector<Text> const tables(it.tables.begin(), it.tables.end());
    sagleme::PushDownColumn(transaction_, it.table, it.column, tables, it.loss);
  }
  void operator()(change::ChangeColumn const& it) {
    FinishReferences();
    ChangeColumnType(transaction_, it.table, SpecOf(it.after), it.loss);
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

  void operator()(change::Annotate const& it) {
    FinishReferences();
    ApplyAnnotation(transaction_, it);
  }
  void operator()(change::SetBase const& it) const {
    SetBase(transaction_, ToUtf16(it.table), ToUtf16(it.base),
            {.referring = Referring::kRefuse, .merge = true});
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
    for (ColumnDoc const& column : columns) specs.push_back(SpecOf(column));
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

void AllowLosses(Plan& plan) {
  for (Change& change : plan) std::visit(LossAllowed{}, change);
}

std::string RefusalOf(Transaction& transaction, Change const& change) {
  if (auto const* const move = std::get_if<change::SetBase>(&change)) {
    return RefusalOfMove(transaction, *move);
  }
  try {
    std::visit(Refusal{transaction}, change);
  } catch (Error const& error) {
    if (error.status() == LSCOREDB_WRONG_TYPE) return error.what();
  }
  return "";
}

std::string DescribeChange(Change const& change) { return std::visit(Sentences{}, change); }

void ApplyPlan(Transaction& transaction, Plan const& plan) {
  Applier applier(transaction);
  for (Change const& change : plan) std::visit(applier, change);
  applier.FinishReferences();
}

}  // namespace sagleme

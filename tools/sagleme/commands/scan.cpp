#include <fmt/format.h>

#include "cli/interrupt.h"
#include "commands/commands.h"
#include "commands/names.h"
#include "commands/objects.h"
#include "output/value_text.h"

namespace tool {
namespace {

// COLUMN=VALUE, or COLUMN= for null and the empty text.
struct Condition {
  sagleme::Column const* column;
  std::string text;
  sagleme::Value value;

  bool Holds(sagleme::Table const& table, sagleme::Object const& object) const {
    sagleme::Value const found = object.Get(table, *column);
    if (text.empty() && sagleme::IsNull(found)) return true;
    return found == value;
  }
};

class Scan : public Command {
 public:
  std::string name() const override { return "scan"; }
  std::string summary() const override {
    return "Lists the objects of a table and its descendants";
  }
  std::vector<Example> examples() const override {
    return {{"scan shop Customer", "all customers"},
            {"scan shop Customer --only", "without those of derived tables"},
            {"scan shop Customer --where City=Lyon --where Active=true", "those that meet both"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of the name may be left out")
        ->required()
        ->type_name("");
    app.add_flag("--only", only_, "Without the objects of derived tables");
    app.add_option("--where", where_, "A value that a column must have; an empty one is null too")
        ->allow_extra_args(false)
        ->type_name("COLUMN=VALUE");
    app.add_option("--limit", limit_, "At most so many objects")->type_name("COUNT");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::vector<Condition> Conditions(sagleme::Table const& table) const;

  std::string table_;
  bool only_ = false;
  std::vector<std::string> where_;
  std::uint64_t limit_ = UINT64_MAX;
};

Condition ParseCondition(sagleme::Table const& table, std::string const& text) {
  auto const equals = text.find('=');
  if (equals == std::string::npos) {
    throw Failure(Exit::kUsage, fmt::format("--where wants COLUMN=VALUE, not {}", text));
  }
  sagleme::Column const& column = ColumnNamed(table, text.substr(0, equals));
  std::string const value = text.substr(equals + 1);
  if (value.empty() && column.type != sagleme::Type::kString)
    return {&column, value, sagleme::Null{}};
  try {
    return {&column, value, ParseValue(column.type, value)};
  } catch (BadValue const& error) {
    throw Failure(Exit::kUsage, fmt::format("--where {}: {}", text, error.what()));
  }
}

std::vector<Condition> Scan::Conditions(sagleme::Table const& table) const {
  std::vector<Condition> conditions;
  for (std::string const& text : where_) conditions.push_back(ParseCondition(table, text));
  return conditions;
}

Exit Scan::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const table = TableNamed(transaction, table_);
    std::vector<Condition> const conditions = Conditions(*table);
    ObjectList list(output, table);
    sagleme::Range range = only_ ? sagleme::Range::Only(transaction, *table)
                                 : sagleme::Range::Subtree(transaction, *table);
    for (std::uint64_t shown = 0; shown < limit_;) {
      auto const object = range.Next();
      if (!object) break;
      CheckInterrupt();
      sagleme::ReadScope const scope(transaction.context());
      bool const wanted = std::all_of(conditions.begin(), conditions.end(), [&](auto const& each) {
        return each.Holds(*table, *object);
      });
      if (!wanted) continue;
      list.Add(*object);
      ++shown;
    }
    list.Finish();
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeScan() { return std::make_unique<Scan>(); }

}  // namespace tool

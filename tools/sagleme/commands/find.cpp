#include <fmt/format.h>

#include "commands/commands.h"
#include "commands/objects.h"
#include "output/text.h"
#include "output/value_text.h"
#include "query/names.h"

namespace tool {
namespace {

class Find : public Command {
 public:
  std::string name() const override { return "find"; }
  std::string summary() const override { return "Find objects by the key of an index"; }
  std::vector<Example> examples() const override {
    return {{"find shop CustomerByName Adams", "the customers of that name"},
            {"find shop OrderByDate", "all orders, by date"},
            {"find shop CustomerByName Ad --starting", "the customers whose names begin with Ad"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("INDEX", index_, "An index")->required()->type_name("");
    app.add_option("KEY", key_,
                   "Values for the first columns of the index. Without any, all objects are shown")
        ->type_name("");
    app.add_flag("--starting", starting_, "Take the last value as the beginning of a text");
    app.add_flag("--reverse", reverse_, "Show the objects in reverse order");
    AddCount(app, "--limit", limit_, "Show at most COUNT objects");
    app.add_flag("--all-columns", all_columns_, "Show the columns of derived tables too");
  }
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;

 private:
  std::vector<sagleme::Value> Key(sagleme::Index const& index) const;
  sagleme::Range Open(sagleme::Transaction& transaction, sagleme::Index const& index) const;

  std::string index_;
  std::vector<std::string> key_;
  bool starting_ = false;
  bool reverse_ = false;
  bool all_columns_ = false;
  std::uint64_t limit_ = UINT64_MAX;
};

std::vector<sagleme::Value> Find::Key(sagleme::Index const& index) const {
  if (key_.size() > index.columns.size()) {
    throw Failure(Exit::kUsage, fmt::format("index {} has {}, but {} were given", index_,
                                            Counted(index.columns.size(), "columns"),
                                            Counted(key_.size(), "values")));
  }
  std::vector<sagleme::Value> key;
  for (std::size_t i = 0; i < key_.size(); ++i) {
    try {
      key.push_back(ParseValue(index.columns[i].type, key_[i]));
    } catch (BadValue const& error) {
      throw Failure(Exit::kUsage,
                    fmt::format("column {} of index {}: {}", sagleme::ToUtf8(index.columns[i].name),
                                index_, error.what()));
    }
  }
  return key;
}

sagleme::Range Find::Open(sagleme::Transaction& transaction, sagleme::Index const& index) const {
  auto const key = Key(index);
  auto const direction = reverse_ ? sagleme::Direction::kReverse : sagleme::Direction::kForward;
  if (!starting_) return sagleme::Range::Matching(transaction, index, key, direction);
  if (key.empty() || !std::holds_alternative<std::u16string>(key.back()) ||
      !index.columns[key.size() - 1].ascending) {
    throw Failure(Exit::kUsage, "--starting needs a value for an ascending column of texts");
  }
  return sagleme::Range::Between(transaction, index, sagleme::IndexKey(index, key),
                                 sagleme::IndexKey(index, key, true), direction);
}

Exit Find::Run(Session& session, Output& output) {
  session.Read([&](sagleme::Transaction& transaction) {
    sagleme::Index const index = IndexNamed(transaction, index_);
    ObjectList list(output, transaction, transaction.table(index.table),
                    all_columns_ ? Columns::kAll : Columns::kOfTable);
    std::uint64_t shown = 0;
    sagleme::Range range = Open(transaction, index);
    while (shown < limit_) {
      auto const object = range.Next();
      if (!object) break;
      sagleme::ReadScope const scope(transaction.context());
      list.Add(*object);
      ++shown;
    }
    list.Finish();
  });
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeFind() { return std::make_unique<Find>(); }

}  // namespace tool

// The indexes of a plan that are built before it is applied.

#include <algorithm>
#include <optional>
#include <sagleme/counts.hpp>
#include <sagleme/index_build.hpp>
#include <variant>

namespace sagleme {
namespace {

// Whether what the index needs is there already, and its name is free.
bool StandsNow(Transaction& transaction, change::CreateIndex const& it) {
  TablePtr const table = transaction.Find(it.table);
  if (table == nullptr || transaction.FindIndex(it.index.name)) return false;
  return std::all_of(
      it.index.columns.begin(), it.index.columns.end(),
      [&](IndexColumnDoc const& column) { return table->FindColumn(column.name) != nullptr; });
}

IndexSpec SpecOf(change::CreateIndex const& it) {
  IndexSpec spec{it.index.name, it.table, {}, Uniqueness::kAny};
  if (it.index.unique) spec.uniqueness = Uniqueness::kUnique;
  for (IndexColumnDoc const& column : it.index.columns) {
    spec.columns.push_back({ToUtf16(column.name), !column.descending});
  }
  return spec;
}

// Whether an annotation can be set whatever the objects are. What objects may refuse would leave a
// finished build behind.
bool HoldsForAnyObjects(change::Annotate const& it) {
  bool const told = it.kind == Annotation::Kind::kComment || it.kind == Annotation::Kind::kDefault;
  return told || !it.text.has_value();
}

bool IsInPlace(Change const& change) {
  if (auto const* const annotation = std::get_if<change::Annotate>(&change)) {
    return HoldsForAnyObjects(*annotation);
  }
  return std::holds_alternative<change::CreateIndex>(change) ||
         std::holds_alternative<change::DropIndex>(change) ||
         std::holds_alternative<change::CreateTable>(change) ||
         std::holds_alternative<change::AddColumns>(change);
}

// An index that is being built, under the names that its table and columns have as the plan is
// followed.
class FollowedBuild {
 public:
  FollowedBuild(Transaction& transaction, IndexSpec const& now) : now_(now), then_(now) {
    for (TablePtr table = transaction.Find(now.table); table != nullptr;
         table = transaction.Find(table->base)) {
      line_.push_back(ToUtf8(table->name));
      if (table->base.empty()) break;
    }
  }

  // In the terms of today.
  IndexSpec const& now() const { return now_; }
  // Whether the plan so far leaves what is built as it is.
  bool stands() const { return stands_; }

  bool Is(IndexSpec const& index) const {
    auto const same_column = [](IndexColumnSpec const& a, IndexColumnSpec const& b) {
      return a.name == b.name && a.ascending == b.ascending;
    };
    return stands_ && then_.name == index.name && then_.table == index.table &&
           then_.uniqueness == index.uniqueness &&
           std::equal(then_.columns.begin(), then_.columns.end(), index.columns.begin(),
                      index.columns.end(), same_column);
  }

  void operator()(change::RenameTable const& it) {
    if (then_.table == Text(it.table)) then_.table = it.new_name;
    std::replace(line_.begin(), line_.end(), it.table, it.new_name);
  }
  void operator()(change::RenameColumn const& it) {
    if (!IsOfLine(it.table)) return;
    for (IndexColumnSpec& column : then_.columns) {
      if (column.name == ToUtf16(it.column)) column.name = ToUtf16(it.new_name);
    }
  }
  void operator()(change::DropTable const& it) { FailIf(IsOfLine(it.table)); }
  void operator()(change::DropColumn const& it) { FailIf(IsOfLine(it.table) && Has(it.column)); }
  void operator()(change::SetBase const& it) { FailIf(IsOfLine(it.table)); }
  void operator()(change::PullUpColumn const& it) { FailIf(Has(it.column)); }
  void operator()(change::PushDownColumn const& it) { FailIf(Has(it.column)); }
  void operator()(change::ChangeColumn const& it) { FailIf(Has(it.after.name)); }
  template <typename Other>
  void operator()(Other const&) {}

 private:
  bool IsOfLine(std::string const& table) const {
    return std::find(line_.begin(), line_.end(), table) != line_.end();
  }
  bool Has(std::string const& column) const {
    return std::any_of(then_.columns.begin(), then_.columns.end(),
                       [name = ToUtf16(column)](auto const& each) { return each.name == name; });
  }
  void FailIf(bool changed) { stands_ = stands_ && !changed; }

  IndexSpec now_;
  IndexSpec then_;
  std::vector<std::string> line_;  // the table and those that it derives from
  bool stands_ = true;
};

}  // namespace

std::vector<IndexSpec> IndexesToPrepare(Transaction& transaction, Plan const& plan,
                                        std::uint64_t objects) {
  std::vector<IndexSpec> specs;
  if (!std::all_of(plan.begin(), plan.end(), IsInPlace)) return specs;
  std::optional<ObjectCounts> counts;
  for (Change const& change : plan) {
    auto const* const index = std::get_if<change::CreateIndex>(&change);
    if (index == nullptr || !StandsNow(transaction, *index)) continue;
    if (!counts.has_value()) counts.emplace(transaction);
    TablePtr const table = transaction.table(index->table);
    if (counts->Subtree(*table) >= objects) specs.push_back(SpecOf(*index));
  }
  return specs;
}

std::vector<IndexSpec> IndexesUnderWay(Transaction& transaction, Plan const& plan,
                                       std::vector<IndexBuild> const& builds) {
  std::vector<FollowedBuild> followed;
  for (IndexBuild const& build : builds) {
    bool const named = !build.index.columns.empty() && !transaction.FindIndex(build.index.name);
    if (!named || build.progress.state == IndexBuildState::kAbandoned) continue;
    followed.emplace_back(transaction, build.index);
  }
  std::vector<IndexSpec> specs;
  for (Change const& change : plan) {
    for (FollowedBuild& build : followed) std::visit(build, change);
    auto const* const index = std::get_if<change::CreateIndex>(&change);
    if (index == nullptr) continue;
    auto const found =
        std::find_if(followed.begin(), followed.end(),
                     [&](FollowedBuild const& build) { return build.Is(SpecOf(*index)); });
    if (found != followed.end()) specs.push_back(found->now());
  }
  return specs;
}

}  // namespace sagleme

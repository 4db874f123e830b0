// Long seeded sequences of changes of place, against a simple model in memory, with rollbacks and
// reopened databases between.

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

struct ModelColumn {
  std::string name;
  std::string target;  // of a reference; empty: a number
};
struct ModelTable {
  std::string base;
  std::vector<int> own;                        // numbers of columns
  std::map<std::string, std::string> indexes;  // name -> column
};
struct ModelObject {
  std::string table;
  std::map<int, std::uint64_t> values;  // by column; null has no entry
};

// What the database should hold. Columns go by number, as they go by identity there.
struct Model {
  std::map<int, ModelColumn> columns;
  std::map<std::string, ModelTable> tables;
  std::map<std::uint64_t, ModelObject> objects;
  int next = 0;

  bool IsA(std::string table, std::string const& other) const {
    for (; !table.empty(); table = tables.at(table).base) {
      if (table == other) return true;
    }
    return other.empty();
  }
  std::vector<int> ColumnsOf(std::string const& table) const {
    if (table.empty()) return {};
    std::vector<int> all = ColumnsOf(tables.at(table).base);
    all.insert(all.end(), tables.at(table).own.begin(), tables.at(table).own.end());
    return all;
  }
  std::optional<int> ColumnNamed(std::string const& table, std::string const& name) const {
    for (int const column : ColumnsOf(table)) {
      if (columns.at(column).name == name) return column;
    }
    return std::nullopt;
  }
  bool SameKind(int a, int b) const { return columns.at(a).target == columns.at(b).target; }
  std::vector<std::string> Subtree(std::string const& top) const {
    std::vector<std::string> names;
    for (auto const& [name, table] : tables) {
      if (IsA(name, top)) names.push_back(name);
    }
    return names;
  }
  std::set<std::uint64_t> ObjectsOf(std::string const& top) const {
    std::set<std::uint64_t> ids;
    for (auto const& [id, object] : objects) {
      if (IsA(object.table, top)) ids.insert(id);
    }
    return ids;
  }
  // References that would lead astray if the objects got these tables.
  std::vector<std::pair<std::uint64_t, int>> Astray(
      std::map<std::uint64_t, std::string> const& targets_now,
      std::function<bool(std::uint64_t, std::string const&)> const& stays) const {
    std::vector<std::pair<std::uint64_t, int>> found;
    for (auto const& [id, object] : objects) {
      for (auto const& [column, value] : object.values) {
        std::string const& target = columns.at(column).target;
        if (!target.empty() && targets_now.contains(value) && !stays(value, target)) {
          found.emplace_back(id, column);
        }
      }
    }
    return found;
  }
};

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : random_(seed) {
    char pattern[] = "/tmp/hierarchyXXXXXX";
    directory_ = mkdtemp(pattern);
    sagleme::Options options;
    options.no_sync = true;
    database_.emplace(sagleme::Database::Create(directory_, {}, options));
    context_.emplace(*database_);
  }
  ~RandomRun() {
    transaction_.reset();
    context_.reset();
    database_.reset();
    std::filesystem::remove_all(directory_);
  }

  void Go(int steps) {
    for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
      if (!transaction_) transaction_.emplace(*context_);
      Step();
      if (Below(4) == 0) Compare();
      if (Below(8) == 0) End();
    }
    if (transaction_) End();
    Transaction transaction(*context_);
    Check(transaction);
  }
  // Changes of place that were made and that were refused.
  int made() const { return made_; }
  int refused() const { return refused_; }

 private:
  std::size_t Below(std::size_t bound) { return random_() % bound; }
  Transaction& transaction() { return *transaction_; }
  static std::u16string Wide(std::string const& text) { return sagleme::ToUtf16(text); }

  std::string AnyTable() {
    if (model_.tables.empty()) return "";
    return std::next(model_.tables.begin(),
                     static_cast<std::ptrdiff_t>(Below(model_.tables.size())))
        ->first;
  }
  std::uint64_t AnyObject() {
    if (model_.objects.empty()) return 0;
    return std::next(model_.objects.begin(),
                     static_cast<std::ptrdiff_t>(Below(model_.objects.size())))
        ->first;
  }

  void Step() {
    std::size_t const what = Below(20);
    if (what < 2 || model_.tables.empty()) return CreateTable();
    if (what < 7) return CreateObject();
    if (what < 10) return SetValue();
    if (what < 15) return Retype();
    if (what < 19) return SetBase();
    CreateIndex();
  }

  void CreateTable() {
    if (model_.tables.size() == 8) return;
    std::string const name = "T" + std::to_string(model_.tables.size());
    ModelTable table;
    table.base = Below(2) == 0 ? "" : AnyTable();
    std::vector<sagleme::ColumnSpec> specs;
    for (std::size_t i = 0; i < 3; ++i) {
      ModelColumn column{"c" + std::to_string(Below(8)), ""};
      if (Below(3) == 0) {
        column.target = AnyTable();
        column.name += column.target;
      }
      bool const taken = model_.ColumnNamed(table.base, column.name) ||
                         std::any_of(table.own.begin(), table.own.end(), [&](int own) {
                           return model_.columns[own].name == column.name;
                         });
      if (taken) continue;
      specs.push_back({column.name, column.target.empty() ? Type::kLong : Type::kReference, true,
                       column.target});
      model_.columns[model_.next] = column;
      table.own.push_back(model_.next++);
    }
    sagleme::CreateTable(transaction(), name, table.base, specs);
    model_.tables[name] = table;
  }

  void CreateIndex() {
    std::string const table = AnyTable();
    std::vector<int> const columns = model_.ColumnsOf(table);
    if (columns.empty()) return;
    std::string const column = model_.columns[columns[Below(columns.size())]].name;
    std::string const name = "I" + std::to_string(indexes_++);
    sagleme::CreateIndex(transaction(), name, table, {{column}});
    model_.tables[table].indexes[name] = column;
  }

  void CreateObject() {
    std::string const table = AnyTable();
    auto const object = Object::Create(transaction(), *transaction().table(table));
    model_.objects[object.id().value].table = table;
    for (int i = 0; i < 3; ++i) SetValueOf(object.id().value);
  }
  void SetValue() {
    if (!model_.objects.empty()) SetValueOf(AnyObject());
  }
  void SetValueOf(std::uint64_t id) {
    ModelObject& object = model_.objects[id];
    std::vector<int> const columns = model_.ColumnsOf(object.table);
    if (columns.empty()) return;
    int const column = columns[Below(columns.size())];
    auto const& [name, target] = model_.columns[column];
    Value value = static_cast<std::int64_t>(random_() % 5);
    if (!target.empty()) {
      auto const ids = model_.ObjectsOf(target);
      if (ids.empty()) return;
      value = ObjectId{*std::next(ids.begin(), static_cast<std::ptrdiff_t>(Below(ids.size())))};
    }
    Object::Find(transaction(), {id})->Set(Wide(name), value);
    object.values[column] = target.empty()
                                ? static_cast<std::uint64_t>(std::get<std::int64_t>(value))
                                : std::get<ObjectId>(value).value;
  }

  // Makes the change, or sees that it is refused. Returns whether it was made.
  template <typename Change>
  bool Attempt(bool possible, Change&& change) {
    std::string refusal;
    try {
      std::forward<Change>(change)();
    } catch (sagleme::Failure const& failure) {
      refusal = failure.what();
    }
    EXPECT_EQ(possible, refusal.empty()) << refusal;
    ++(refusal.empty() ? made_ : refused_);
    return refusal.empty();
  }

  void Retype() {
    if (model_.objects.empty()) return;
    std::uint64_t const id = AnyObject();
    std::string const to = AnyTable();
    Model after = model_;
    ModelObject& object = after.objects[id];
    bool const by_name = Below(2) == 0;
    object.table = to;
    object.values.clear();
    for (auto const& [column, value] : model_.objects[id].values) {
      auto const columns = after.ColumnsOf(to);
      auto const same = after.ColumnNamed(to, after.columns[column].name);
      if (std::find(columns.begin(), columns.end(), column) != columns.end()) {
        object.values[column] = value;
      } else if (by_name && same && after.SameKind(*same, column)) {
        object.values[*same] = value;
      }
    }
    auto const astray = after.Astray({{id, to}}, [&](std::uint64_t, std::string const& target) {
      return after.IsA(to, target);
    });
    bool const null = Below(2) == 0;
    sagleme::RetypeOptions const options{
        .by_name = by_name, .referring = null ? Referring::kSetNull : Referring::kRefuse};
    if (model_.objects[id].table == to) return;
    Ids const ids{{id}};
    if (!Attempt(null || astray.empty(),
                 [&] { sagleme::Retype(transaction(), ids, *transaction().table(to), options); })) {
      return;
    }
    for (auto const& [referrer, column] : astray) after.objects[referrer].values.erase(column);
    model_ = after;
  }

  // The columns of a table of the subtree under its new base. False if two have one name.
  static bool Rebase(Model const& before, Model& after, std::string const& table, bool merge,
                     std::map<int, int> became) {
    std::vector<int> const inherited = after.ColumnsOf(after.tables[table].base);
    std::vector<int> const old_all = before.ColumnsOf(table);
    bool const top = before.tables.at(table).base != after.tables[table].base;
    std::vector<int> own;
    for (int const column : old_all) {
      if (std::find(inherited.begin(), inherited.end(), column) != inherited.end()) continue;
      if (became.contains(column)) continue;
      std::string const& name = before.columns.at(column).name;
      auto const same = std::find_if(inherited.begin(), inherited.end(),
                                     [&](int each) { return after.columns.at(each).name == name; });
      if (same != inherited.end()) {
        if (!merge || !after.SameKind(*same, column)) return false;
        became[column] = *same;
        continue;
      }
      auto const& declared = before.tables.at(table).own;
      bool const was_own = std::find(declared.begin(), declared.end(), column) != declared.end();
      if (!was_own && top) {
        became[column] = after.next;
        after.columns[after.next] = before.columns.at(column);
        own.push_back(after.next++);
      } else {
        own.push_back(column);
      }
    }
    after.tables[table].own = own;
    for (auto& [id, object] : after.objects) {
      if (object.table != table) continue;
      for (auto const& [from, to] : became) {
        auto node = object.values.extract(from);
        if (node.empty()) continue;
        node.key() = to;
        object.values.insert(std::move(node));
      }
    }
    for (auto const& [name, child] : before.tables) {
      if (child.base == table && !Rebase(before, after, name, merge, became)) return false;
    }
    return true;
  }

  void SetBase() {
    std::string const table = AnyTable();
    std::string const base = Below(4) == 0 ? "" : AnyTable();
    bool const cycle = !base.empty() && model_.IsA(base, table);
    bool const merge = Below(2) == 0;
    bool const null = Below(2) == 0;
    if (model_.tables[table].base == base) return;
    Model after = model_;
    bool possible = !cycle;
    if (possible) {
      after.tables[table].base = base;
      possible = Rebase(model_, after, table, merge, {});
    }
    std::map<std::uint64_t, std::string> moved;
    for (std::uint64_t const id : model_.ObjectsOf(table)) moved[id] = table;
    std::vector<std::pair<std::uint64_t, int>> astray;
    if (possible) {
      astray = after.Astray(moved, [&](std::uint64_t id, std::string const& target) {
        return after.IsA(after.objects[id].table, target);
      });
      possible = null || astray.empty();
    }
    sagleme::SetBaseOptions const options{
        .referring = null ? Referring::kSetNull : Referring::kRefuse, .merge = merge};
    if (!Attempt(possible, [&] { sagleme::SetBase(transaction(), table, base, options); })) return;
    for (auto const& [referrer, column] : astray) after.objects[referrer].values.erase(column);
    model_ = after;
  }

  void End() {
    transaction_->Forget();
    if (Below(3) == 0) {
      transaction_.reset();
      model_ = committed_;
    } else {
      transaction_->Commit();
      transaction_.reset();
      committed_ = model_;
    }
    if (Below(4) == 0) Reopen();
    if (Below(4) == 0) sagleme::RunVacuum(*context_);
  }
  void Reopen() {
    context_.reset();
    database_.reset();
    database_.emplace(sagleme::Database::Open(directory_));
    context_.emplace(*database_);
    Transaction transaction(*context_);
    Check(transaction);
  }
  static void Check(Transaction& transaction) {
    sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
      ADD_FAILURE() << finding.rule << " " << finding.table << ": " << finding.what;
    });
  }

  void Compare() {
    for (auto const& [name, table] : model_.tables) {
      CompareTable(name, table);
      if (testing::Test::HasFailure()) return;
    }
    for (auto const& [id, object] : model_.objects) CompareObject(id, object);
  }
  void CompareTable(std::string const& name, ModelTable const& table) {
    SCOPED_TRACE(name);
    sagleme::TablePtr const actual = transaction().table(name);
    std::vector<std::string> columns;
    for (sagleme::Column const& column : actual->columns) {
      if (!column.system()) columns.push_back(sagleme::ToUtf8(column.name));
    }
    std::vector<std::string> expected;
    for (int const column : model_.ColumnsOf(name)) expected.push_back(model_.columns[column].name);
    EXPECT_EQ(expected, columns);
    EXPECT_EQ(table.base,
              transaction().table(actual->base)->system ? "" : sagleme::ToUtf8(actual->base));
    std::set<std::uint64_t> found;
    for (Object const& each : sagleme::Range::Subtree(transaction(), *actual)) {
      found.insert(each.id().value);
    }
    EXPECT_EQ(model_.ObjectsOf(name), found);
    for (auto const& [index, column] : table.indexes) CompareIndex(name, index, column);
  }
  void CompareIndex(std::string const& table, std::string const& index, std::string const& column) {
    SCOPED_TRACE(index);
    std::set<std::uint64_t> found;
    auto const actual = transaction().FindIndex(index);
    for (Object const& each : sagleme::Range::Matching(transaction(), *actual, {})) {
      found.insert(each.id().value);
    }
    EXPECT_EQ(model_.ObjectsOf(table), found);
    int const number = *model_.ColumnNamed(table, column);
    if (!model_.columns[number].target.empty()) return;
    std::set<std::uint64_t> threes;
    std::set<std::uint64_t> expected;
    for (Object const& each : sagleme::Range::Matching(transaction(), *actual, {std::int64_t{3}})) {
      threes.insert(each.id().value);
    }
    for (std::uint64_t const id : model_.ObjectsOf(table)) {
      auto const value = model_.objects[id].values.find(number);
      if (value != model_.objects[id].values.end() && value->second == 3) expected.insert(id);
    }
    EXPECT_EQ(expected, threes);
  }
  void CompareObject(std::uint64_t id, ModelObject const& object) {
    SCOPED_TRACE(id);
    auto const actual = Object::Find(transaction(), {id});
    ASSERT_TRUE(actual);
    EXPECT_EQ(object.table, sagleme::ToUtf8(actual->table()->name));
    for (int const column : model_.ColumnsOf(object.table)) {
      auto const& [name, target] = model_.columns[column];
      auto const value = object.values.find(column);
      Value expected = sagleme::Null{};
      if (value != object.values.end()) {
        expected = target.empty() ? Value(static_cast<std::int64_t>(value->second))
                                  : Value(ObjectId{value->second});
      }
      EXPECT_EQ(expected, actual->Get(Wide(name))) << name;
    }
  }

  std::mt19937 random_;
  std::string directory_;
  std::optional<sagleme::Database> database_;
  std::optional<sagleme::Context> context_;
  std::optional<Transaction> transaction_;
  Model model_;
  Model committed_;
  int indexes_ = 0;
  int made_ = 0;
  int refused_ = 0;
};

TEST(HierarchyModelTest, RandomChangesOfPlace_AgreeWithTheModel) {
  int made = 0;
  int refused = 0;
  for (unsigned seed = 1; seed <= 40 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun run(seed);
    run.Go(150);
    made += run.made();
    refused += run.refused();
  }
  EXPECT_LT(500, made);
  EXPECT_LT(100, refused);
}

}  // namespace
}  // namespace hierarchy_test

// Long seeded sequences of changes of place, against a simple model in memory, with savepoints,
// rollbacks and reopened databases between, and writers beside changes in batches.

#include "hierarchy_model.h"

#include <deque>
#include <filesystem>
#include <random>
#include <sagleme/column_changes.hpp>

#include "hierarchy_test.h"

namespace hierarchy_test {
namespace {

class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : random_(seed) {
    char pattern[] = "/tmp/hierarchyXXXXXX";
    directory_ = mkdtemp(pattern);
    sagleme::Options options;
    options.no_sync = true;
    database_.emplace(sagleme::Database::Create(directory_, {}, options));
    context_.emplace(*database_);
    writer_.emplace(*database_);
  }
  ~RandomRun() {
    transaction_.reset();
    context_.reset();
    writer_.reset();
    database_.reset();
    std::filesystem::remove_all(directory_);
  }

  void Go(int steps) {
    for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) Advance();
    Finish();
  }
  void Advance() {
    if (!transaction_) transaction_.emplace(*context_);
    Step();
    if (Below(4) == 0) Compare();
    if (Below(8) == 0) End();
  }
  void Finish() {
    if (transaction_) End();
    Transaction transaction(*context_);
    Check(transaction);
  }
  // Changes of place that were made and that were refused.
  int made() const { return made_; }
  int refused() const { return refused_; }
  // What writers did beside changes in batches.
  int beside() const { return beside_; }

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
    std::size_t const what = Below(25);
    if (what < 2 || model_.tables.empty()) return CreateTable();
    if (what < 7) return CreateObject();
    if (what < 10) return SetValue();
    if (what < 14) return Retype();
    if (what < 18) return SetBase();
    if (what < 22) return ChangeColumn(nullptr);
    if (what < 24) return Scope();
    CreateIndex();
  }
  // Some steps behind a savepoint, which is rolled back or released.
  void Scope() {
    if (depth_ == 2) return;
    ++depth_;
    sagleme::Savepoint savepoint(transaction());
    Model const before = model_;
    for (std::size_t steps = 1 + Below(5); steps > 0; --steps) Step();
    if (Below(2) == 0) {
      savepoint.Release();
    } else {
      model_ = before;
    }
    --depth_;
  }

  static sagleme::ColumnSpec SpecOf(ModelColumn const& column) {
    Type const type = column.text             ? Type::kString
                      : column.target.empty() ? Type::kLong
                                              : Type::kReference;
    return {column.name, type, true, column.target};
  }
  static Value ValueOf(ModelColumn const& column, std::uint64_t value) {
    if (column.text) return std::to_string(value);
    if (column.target.empty()) return static_cast<std::int64_t>(value);
    return ObjectId{value};
  }

  void CreateTable() {
    if (model_.tables.size() == 8) return;
    std::string const name = "T" + std::to_string(model_.tables.size());
    ModelTable table;
    table.base = Below(2) == 0 ? "" : AnyTable();
    std::vector<sagleme::ColumnSpec> specs;
    for (std::size_t i = 0; i < 3; ++i) {
      ModelColumn column{"c" + std::to_string(Below(8)), "", Below(3) == 0};
      if (!column.text && Below(3) == 0) {
        column.target = AnyTable();
        column.name += column.target;
      }
      bool const taken = model_.ColumnNamed(table.base, column.name) ||
                         std::any_of(table.own.begin(), table.own.end(), [&](int own) {
                           return model_.columns[own].name == column.name;
                         });
      if (taken) continue;
      specs.push_back(SpecOf(column));
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
    ModelColumn const& definition = model_.columns[column];
    std::uint64_t value = random_() % 5;
    if (!definition.target.empty()) {
      auto const ids = model_.ObjectsOf(definition.target);
      if (ids.empty()) return;
      value = *std::next(ids.begin(), static_cast<std::ptrdiff_t>(Below(ids.size())));
    }
    Object::Find(transaction(), {id})->Set(Wide(definition.name), ValueOf(definition, value));
    object.values[column] = value;
  }

  // Makes the change, or sees that it is refused. Returns whether it was made.
  template <typename Change>
  bool Attempt(bool possible, Change&& change) {
    std::string refusal;
    try {
      std::forward<Change>(change)();
    } catch (sagleme::Failure const& failure) {
      refusal = failure.what();
    } catch (sagleme::Error const& error) {
      bool const expected =
          error.status() == LSCOREDB_WRONG_TYPE || error.status() == SAGLEME_COLUMN_NAME_TAKEN;
      EXPECT_TRUE(expected) << error.what();
      refusal = error.what();
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

  // ---- columns

  // `options`: in batches, in transactions of its own.
  void ChangeColumn(sagleme::ColumnChangeOptions const* options) {
    std::string const table = AnyTable();
    std::vector<int> const own = model_.tables[table].own;
    if (own.empty()) return;
    std::string const name = model_.columns[own[Below(own.size())]].name;
    std::size_t const what = Below(3);
    if (what == 0) return PullUp(table, name, options);
    if (what == 1) return PushDown(table, name, options);
    ChangeType(table, name, options);
  }

  // The model is changed behind the change, which others worked beside.
  void PullUp(std::string const& table, std::string const& name,
              sagleme::ColumnChangeOptions const* options) {
    std::string base = model_.tables[table].base;
    if (!base.empty() && Below(2) == 0 && !model_.tables[base].base.empty()) {
      base = model_.tables[base].base;
    }
    if (base.empty()) return;
    bool const possible = Model(model_).PullUp(table, name, base);
    bool ended = true;
    bool const made = Attempt(possible, [&] {
      if (options == nullptr) return sagleme::PullUpColumn(transaction(), table, name, base);
      ended = sagleme::RunPullUpColumn(*context_, table, name, base, *options);
    });
    if (made && ended) model_.PullUp(table, name, base);
  }
  void PushDown(std::string const& table, std::string const& name,
                sagleme::ColumnChangeOptions const* options) {
    std::vector<std::string> below;
    for (std::string const& each : model_.Subtree(table)) {
      bool const apart = std::none_of(below.begin(), below.end(), [&](std::string const& other) {
        return model_.IsA(each, other) || model_.IsA(other, each);
      });
      if (each != table && apart && Below(3) != 0) below.push_back(each);
    }
    if (below.empty()) return;
    std::vector<sagleme::Text> const tables(below.begin(), below.end());
    auto const loss = Below(2) == 0 ? sagleme::Loss::kAllow : sagleme::Loss::kRefuse;
    bool ended = true;
    std::string refusal;
    try {
      if (options == nullptr) {
        sagleme::PushDownColumn(transaction(), table, name, tables, loss);
      } else {
        sagleme::ColumnChangeOptions its = *options;
        its.loss = loss;
        ended = sagleme::RunPushDownColumn(*context_, table, name, tables, its);
      }
    } catch (sagleme::Error const& error) {
      EXPECT_EQ(LSCOREDB_WRONG_TYPE, error.status()) << error.what();
      refusal = error.what();
    }
    if (!ended) return;
    Model after = model_;
    bool const possible = after.PushDown(table, name, below) == 0 || loss == sagleme::Loss::kAllow;
    EXPECT_EQ(possible, refusal.empty()) << refusal;
    ++(possible ? made_ : refused_);
    if (possible) model_ = after;
  }
  void ChangeType(std::string const& table, std::string const& name,
                  sagleme::ColumnChangeOptions const* options) {
    int const number = *model_.ColumnNamed(table, name);
    if (!model_.columns[number].target.empty()) return;
    ModelColumn wanted = model_.columns[number];
    wanted.text = !wanted.text;
    bool ended = true;
    bool const made = Attempt(true, [&] {
      if (options == nullptr) return ChangeColumnType(transaction(), table, SpecOf(wanted));
      ended = sagleme::RunChangeColumnType(*context_, table, SpecOf(wanted), *options);
    });
    if (made && ended) model_.columns[number] = wanted;
  }

  // Beside a writer, and abandoned at times.
  void ChangeInBatches() {
    sagleme::ColumnChangeOptions options;
    options.batch = static_cast<std::uint32_t>(1 + Below(2));
    bool const abandons = Below(4) == 0;
    options.report = [&](sagleme::ColumnChangeProgress const&) {
      Write();
      return !abandons || Below(3) != 0;
    };
    ChangeColumn(&options);
    committed_ = model_;
    Transaction transaction(*context_);
    Check(transaction);
  }
  void Write() {
    transaction_.emplace(*writer_);
    if (Below(2) == 0) CreateObject();
    SetValue();
    if (Below(4) == 0) Retype();
    transaction_->Commit();
    transaction_.reset();
    ++beside_;
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
    if (Below(3) != 0 && !model_.tables.empty()) ChangeInBatches();
    if (Below(4) == 0) Reopen();
    if (Below(4) == 0) sagleme::RunVacuum(*context_);
  }
  void Reopen() {
    context_.reset();
    writer_.reset();
    database_.reset();
    database_.emplace(sagleme::Database::Open(directory_));
    context_.emplace(*database_);
    writer_.emplace(*database_);
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
    Value const three = ValueOf(model_.columns[number], 3);
    for (Object const& each : sagleme::Range::Matching(transaction(), *actual, {three})) {
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
      ModelColumn const& definition = model_.columns[column];
      auto const value = object.values.find(column);
      Value expected = sagleme::Null{};
      if (value != object.values.end()) expected = ValueOf(definition, value->second);
      EXPECT_EQ(expected, actual->Get(Wide(definition.name))) << definition.name;
    }
  }

  std::mt19937 random_;
  std::string directory_;
  std::optional<sagleme::Database> database_;
  std::optional<sagleme::Context> context_;
  std::optional<sagleme::Context> writer_;  // beside changes in batches
  std::optional<Transaction> transaction_;
  Model model_;
  Model committed_;
  int indexes_ = 0;
  int made_ = 0;
  int refused_ = 0;
  int beside_ = 0;
  int depth_ = 0;
};

TEST(HierarchyModelTest, RandomChangesOfPlace_AgreeWithTheModel) {
  int made = 0;
  int refused = 0;
  int beside = 0;
  for (unsigned seed = 1; seed <= 40 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun run(seed);
    run.Go(150);
    made += run.made();
    refused += run.refused();
    beside += run.beside();
  }
  EXPECT_LT(500, made);
  EXPECT_LT(100, refused);
  EXPECT_LT(100, beside);
}

TEST(HierarchyModelTest, DatabasesBesideEachOther_AgreeWithTheirModels) {
  std::deque<RandomRun> runs;
  for (unsigned seed = 100; seed < 104; ++seed) runs.emplace_back(seed);
  for (int i = 0; i < 150; ++i) {
    for (RandomRun& run : runs) {
      if (!testing::Test::HasFailure()) run.Advance();
    }
  }
  for (RandomRun& run : runs) run.Finish();
}

}  // namespace
}  // namespace hierarchy_test

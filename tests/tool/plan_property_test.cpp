#include <algorithm>
#include <map>
#include <random>
#include <sagleme/check.hpp>
#include <sagleme/schema_plan.hpp>

#include "run_tool.h"

namespace tool_test {
namespace {

using sagleme::ColumnDoc;
using sagleme::IndexDoc;
using sagleme::ReadSchema;
using sagleme::SchemaDoc;
using sagleme::TableDoc;

// Random schemas over a small stock of names, so that pairs of them have much in common.
class Maker {
 public:
  explicit Maker(unsigned seed) : random_(seed) {}

  SchemaDoc Make() {
    SchemaDoc schema;
    std::size_t const count = 1 + Below(5);
    for (std::size_t i = 0; i < count; ++i) AddTable(schema, i);
    for (TableDoc& table : schema.tables) AddReference(schema, table);
    for (std::size_t i = 0; i < schema.tables.size(); ++i) AddIndex(schema, i);
    return schema;
  }
  std::size_t Below(std::size_t bound) { return random_() % bound; }

 private:
  void AddTable(SchemaDoc& schema, std::size_t) {
    TableDoc table;
    table.name = "T" + std::to_string(Below(6));
    if (schema.Find(table.name) != nullptr) return;
    if (!schema.tables.empty() && Below(2) == 0) {
      table.base = schema.tables[Below(schema.tables.size())].name;
    }
    std::size_t const count = Below(4);
    for (std::size_t i = 0; i < count; ++i) AddColumn(schema, table);
    schema.tables.push_back(table);
  }
  // A name that no line of bases has twice: names begin with their table.
  void AddColumn(SchemaDoc const&, TableDoc& table) {
    ColumnDoc column;
    column.name = table.name + "c" + std::to_string(Below(4));
    if (table.FindColumn(column.name) != nullptr) return;
    constexpr sagleme::Type kTypes[] = {sagleme::Type::kLong, sagleme::Type::kString,
                                        sagleme::Type::kDouble, sagleme::Type::kBool};
    column.type = kTypes[Below(Below(3) == 0 ? 4 : 2)];
    column.nullable = sagleme::MustBeNullable(column.type) || Below(4) != 0;
    table.columns.push_back(column);
  }
  void AddReference(SchemaDoc const& schema, TableDoc& table) {
    if (Below(2) == 0) return;
    ColumnDoc column;
    column.name = table.name + "ref";
    column.type = sagleme::Type::kReference;
    column.target = schema.tables[Below(schema.tables.size())].name;
    table.columns.push_back(column);
  }
  void AddIndex(SchemaDoc& schema, std::size_t i) {
    TableDoc& table = schema.tables[i];
    if (table.columns.empty() || Below(2) == 0) return;
    IndexDoc index;
    index.name = "I" + std::to_string(i);
    index.columns.push_back({table.columns[Below(table.columns.size())].name, Below(2) == 0});
    table.indexes.push_back(index);
  }

  std::mt19937 random_;
};

// A renamed copy: identities tell what is what, names go round.
SchemaDoc WithRenames(SchemaDoc schema, Maker& maker) {
  for (TableDoc& table : schema.tables) {
    std::string const before = table.name;
    if (maker.Below(3) != 0) continue;
    std::string const after = "R" + before;
    table.name = after;
    for (TableDoc& each : schema.tables) {
      if (each.base == before) each.base = after;
      for (ColumnDoc& column : each.columns) {
        if (column.target == before) column.target = after;
      }
    }
  }
  for (TableDoc& table : schema.tables) {
    if (table.columns.size() < 2 || maker.Below(2) == 0) continue;
    std::swap(table.columns[0].name, table.columns[1].name);
    for (TableDoc& each : schema.tables) each.indexes.clear();
  }
  return schema;
}

TableDoc* FindTable(SchemaDoc& schema, std::string const& name) {
  auto const at = std::find_if(schema.tables.begin(), schema.tables.end(),
                               [&](TableDoc const& table) { return table.name == name; });
  return at == schema.tables.end() ? nullptr : &*at;
}

void PullUp(SchemaDoc& schema, TableDoc& table) {
  FindTable(schema, table.base)->columns.push_back(table.columns.back());
  table.columns.pop_back();
}

// To some of the derived tables, the first of which keeps the identity.
void PushDown(SchemaDoc& schema, TableDoc& table, Maker& maker) {
  ColumnDoc column = table.columns.back();
  bool pushed = false;
  for (TableDoc& each : schema.tables) {
    if (each.base != table.name || (pushed && maker.Below(3) == 0)) continue;
    each.columns.push_back(column);
    column.id = 0;
    pushed = true;
  }
  if (pushed) table.columns.pop_back();
}

bool IsValid(SchemaDoc const& schema) {
  try {
    ValidateSchema(schema, "made");
    return true;
  } catch (sagleme::Failure const&) {
    return false;
  }
}

// A copy in which columns are declared by another table of their line.
SchemaDoc WithMoves(SchemaDoc schema, Maker& maker) {
  for (TableDoc& table : schema.tables) table.indexes.clear();
  for (std::size_t i = 0; i < schema.tables.size(); ++i) {
    if (schema.tables[i].columns.empty() || maker.Below(3) == 0) continue;
    SchemaDoc moved = schema;
    bool const up = FindTable(moved, moved.tables[i].base) != nullptr && maker.Below(2) == 0;
    if (up) {
      PullUp(moved, moved.tables[i]);
    } else {
      PushDown(moved, moved.tables[i], maker);
    }
    if (IsValid(moved)) schema = std::move(moved);
  }
  return schema;
}

template <typename Doc>
void Anonymize(Doc& entry) {
  entry.id = 0;
  entry.was.clear();
  entry.is_new = false;
}

// What a schema says, whatever it was before and the order of columns aside.
std::string Essence(SchemaDoc schema) {
  schema.database = 0;
  for (TableDoc& table : schema.tables) {
    Anonymize(table);
    for (ColumnDoc& column : table.columns) Anonymize(column);
    std::sort(table.columns.begin(), table.columns.end(),
              [](auto& a, auto& b) { return a.name < b.name; });
    std::sort(table.indexes.begin(), table.indexes.end(),
              [](auto& a, auto& b) { return a.name < b.name; });
  }
  std::sort(schema.tables.begin(), schema.tables.end(),
            [](auto& a, auto& b) { return a.name < b.name; });
  return SchemaJson(schema);
}

// One object a table, its long and string columns filled, known by the identity of table and
// column.
class Sample {
 public:
  void Fill(sagleme::Transaction& transaction, SchemaDoc const& schema) {
    for (TableDoc const& doc : schema.tables) {
      sagleme::TablePtr const table = transaction.table(doc.name);
      auto object = sagleme::Object::Create(transaction, *table);
      auto& values = objects_[object.id().value];
      for (ColumnDoc const& column : doc.columns) {
        std::int64_t const number = ++next_;
        if (column.type == sagleme::Type::kLong) values[column.id] = number;
        if (column.type == sagleme::Type::kString) {
          values[column.id] = sagleme::ToUtf16(std::to_string(number));
        }
        if (values.contains(column.id)) {
          object.Set(*table, table->GetColumn(sagleme::ToUtf16(column.name)), values[column.id]);
        }
      }
    }
  }
  // Every object whose table is there has the values of the columns that are there still.
  void Expect(sagleme::Transaction& transaction) const {
    for (auto const& [id, values] : objects_) {
      auto const object = sagleme::Object::Find(transaction, {id});
      ASSERT_TRUE(object);
      sagleme::TablePtr const table = object->table();
      if (table == nullptr) continue;
      for (sagleme::Column const& column : table->columns) {
        auto const value = values.find(column.id.value);
        if (value != values.end()) {
          EXPECT_EQ(value->second, object->Get(*table, column));
        }
      }
    }
  }

 private:
  std::map<std::uint64_t, std::map<std::uint64_t, sagleme::Value>> objects_;
  std::int64_t next_ = 0;
};

// Takes one reading or the other of whatever may be a rename.
void SettleAll(SchemaDoc const& present, SchemaDoc& wanted, Maker& maker) {
  for (auto doubts = FindDoubts(present, wanted); !doubts.empty();
       doubts = FindDoubts(present, wanted)) {
    EXPECT_THROW(CompareSchemas(present, wanted), sagleme::Failure);
    bool const renamed = maker.Below(2) == 0;
    Settle(wanted, doubts[0], renamed ? sagleme::Reading::kRenamed : sagleme::Reading::kNew);
  }
}

void ExpectWhole(sagleme::Transaction& transaction) {
  sagleme::CheckCatalogue(transaction, {}, [](sagleme::Finding const& finding) {
    ADD_FAILURE() << finding.rule << " " << finding.table << ": " << finding.what;
  });
}

void Reach(sagleme::Transaction& transaction, SchemaDoc wanted, Maker& maker) {
  ValidateSchema(wanted, "made");
  SettleAll(ReadSchema(transaction, true), wanted, maker);
  sagleme::Plan plan = CompareSchemas(ReadSchema(transaction, true), wanted);
  sagleme::AllowLosses(plan);
  sagleme::ApplyPlan(transaction, plan);
  ExpectWhole(transaction);
  EXPECT_EQ(Essence(wanted), Essence(ReadSchema(transaction, true)));
  EXPECT_TRUE(CompareSchemas(ReadSchema(transaction, true), wanted).empty());
}

void RunSeed(sagleme::Context const& context, unsigned seed) {
  SCOPED_TRACE(seed);
  Maker maker(seed);
  sagleme::Transaction transaction(context);
  Reach(transaction, maker.Make(), maker);
  SchemaDoc const first = ReadSchema(transaction, true);
  Sample sample;
  sample.Fill(transaction, first);
  Reach(transaction, maker.Make(), maker);
  sample.Expect(transaction);
  SchemaDoc const present = ReadSchema(transaction, true);
  Reach(transaction, WithRenames(present, maker), maker);
  sample.Expect(transaction);
  Reach(transaction, WithMoves(ReadSchema(transaction, true), maker), maker);
  sample.Expect(transaction);
  transaction.Rollback();
}

TEST(PlanPropertyTest, Apply_AnySchemaToAnyOther_KeepsTheValuesOfKeptColumns) {
  auto const database = sagleme::Database::InMemory();
  sagleme::Context const context(database);
  for (unsigned seed = 1; seed <= 150 && !testing::Test::HasFailure(); ++seed) {
    RunSeed(context, seed);
  }
}

TEST(PlanTest, TwoEntriesWithOneOrigin_AreRefused) {
  SchemaDoc from;
  from.tables.push_back({});
  from.tables[0].name = "A";
  SchemaDoc to;
  to.tables.resize(2);
  to.tables[0].name = "B";
  to.tables[0].was = "A";
  to.tables[1].name = "C";
  to.tables[1].was = "A";
  EXPECT_THROW(CompareSchemas(from, to), sagleme::Failure);
}

}  // namespace
}  // namespace tool_test

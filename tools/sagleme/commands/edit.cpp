#include <fmt/format.h>

#include <sagleme/annotations.hpp>
#include <sagleme/host/duplicates.hpp>

#include "commands/commands.h"
#include "output/text.h"
#include "output/value_text.h"
#include "query/condition.h"
#include "query/names.h"

namespace tool {
namespace {

constexpr char const* kValueHelp =
    "Values: texts as they are, also empty ones; bare numbers; true and false; base64 for "
    "binaries; "
    "a reference as an object's id or as column=value of a unique column, as in Owner=Name=Ada. "
    "Null is given with --null.";

// COLUMN=VALUE ... and --null COLUMN.
class NewValues {
 public:
  void Declare(CLI::App& app) {
    app.add_option("COLUMN=VALUE", values_, "A value for a column. Can be repeated")->type_name("");
    app.add_option("--null", nulls_, "A column that gets no value. Can be repeated")
        ->allow_extra_args(false)
        ->type_name("COLUMN");
  }
  std::vector<sagleme::NewValue> Parse(sagleme::Transaction& transaction,
                                       sagleme::Table const& table) const;

 private:
  std::vector<std::string> values_;
  std::vector<std::string> nulls_;
};

sagleme::Column const& WritableColumn(sagleme::Table const& table, std::string const& name,
                                      std::vector<sagleme::NewValue> const& before) {
  sagleme::Column const& column = ColumnNamed(table, name);
  if (column.system()) {
    throw Failure(Exit::kRefused, fmt::format("column {} cannot be written", name));
  }
  for (sagleme::NewValue const& each : before) {
    if (each.column == &column) {
      throw Failure(Exit::kUsage, fmt::format("column {} is given twice", name));
    }
  }
  return column;
}

std::vector<sagleme::NewValue> NewValues::Parse(sagleme::Transaction& transaction,
                                                sagleme::Table const& table) const {
  std::vector<sagleme::NewValue> values;
  for (std::string const& text : values_) {
    auto const equals = text.find('=');
    if (equals == std::string::npos) {
      throw Failure(Exit::kUsage, fmt::format("\"{}\" is not COLUMN=VALUE", text));
    }
    auto const& column = WritableColumn(table, text.substr(0, equals), values);
    values.push_back({&column, ParseTyped(transaction, column, text.substr(equals + 1))});
  }
  for (std::string const& name : nulls_) {
    auto const& column = WritableColumn(table, name, values);
    if (!column.nullable && !sagleme::MustBeNullable(column.type)) {
      throw Failure(Exit::kRefused, fmt::format("column {} takes no null", name));
    }
    values.push_back({&column, sagleme::Null{}});
  }
  return values;
}

// A new object has values or defaults where its table takes no null.
void RequireValues(sagleme::Transaction& transaction, sagleme::Table const& table,
                   std::vector<sagleme::NewValue> const& values) {
  for (sagleme::Column const& column : table.columns) {
    if (column.system() || column.nullable || sagleme::MustBeNullable(column.type)) continue;
    bool const given =
        std::any_of(values.begin(), values.end(),
                    [&](sagleme::NewValue const& each) { return each.column == &column; });
    if (given || !sagleme::IsNull(sagleme::DefaultOf(transaction, table, column))) continue;
    throw Failure(Exit::kRefused,
                  fmt::format("column {} of {} needs a value", sagleme::ToUtf8(column.name),
                              sagleme::ToUtf8(table.name)));
  }
}

void Assign(sagleme::Transaction& transaction, sagleme::Object& object, sagleme::Table const& table,
            std::vector<sagleme::NewValue> const& values) {
  try {
    for (sagleme::NewValue const& each : values) object.Set(table, *each.column, each.value);
  } catch (sagleme::Error const& error) {
    if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
    std::string const duplicate = sagleme::DescribeDuplicate(transaction, object, table, values);
    if (duplicate.empty()) throw;
    throw Failure(Exit::kRefused, duplicate);
  }
}

class Insert : public Command {
 public:
  std::string name() const override { return "insert"; }
  std::string summary() const override { return "Create an object and print its id"; }
  std::string details() const override { return kValueHelp; }
  std::vector<Example> examples() const override {
    return {{"insert shop Customer Name=Ada City=Lyon", "a customer with two values"},
            {"insert shop Order Customer=Name=Ada Total=12.50", "an order of that customer"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("TABLE", table_, "The table; leading parts of its name may be omitted")
        ->required()
        ->type_name("");
    values_.Declare(app);
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string table_;
  NewValues values_;
};

Exit Insert::Run(Session& session, Output& output) {
  session.OpenToWrite();
  session.Write([&](sagleme::Transaction& transaction) {
    sagleme::TablePtr const table = UserTableNamed(transaction, table_);
    auto const values = values_.Parse(transaction, *table);
    RequireValues(transaction, *table, values);
    auto object = sagleme::Object::Create(transaction, *table);
    Assign(transaction, object, *table, values);
    output.Print(fmt::format("{}\n", object.id().value));
    output.Flush();  // an object whose id got lost is not kept
  });
  return Exit::kDone;
}

// A user's object, not a row of the catalogue.
sagleme::TablePtr UserTableOf(sagleme::Object const& object) {
  sagleme::TablePtr table = object.table();
  if (table == nullptr) {
    throw Failure(Exit::kRefused,
                  fmt::format("the table of object {} was dropped", object.id().value));
  }
  if (!table->system) return table;
  throw Failure(Exit::kRefused,
                fmt::format("object {} belongs to the catalogue itself", object.id().value),
                "The catalogue is changed by changing the schema: see sagleme help apply.");
}

class Set : public Command {
 public:
  std::string name() const override { return "set"; }
  std::string summary() const override { return "Change values of one object"; }
  std::string details() const override { return kValueHelp; }
  std::vector<Example> examples() const override {
    return {{"set shop 131073 City=Paris", "the customer has moved"},
            {"set shop 131073 --null City", "nobody knows where"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("ID", id_, "The object's id")->required()->type_name("");
    values_.Declare(app);
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::string id_;
  NewValues values_;
};

Exit Set::Run(Session& session, Output& output) {
  session.OpenToWrite();
  session.Write([&](sagleme::Transaction& transaction) {
    sagleme::Object object = ObjectNamed(transaction, id_);
    sagleme::TablePtr const table = UserTableOf(object);
    auto const values = values_.Parse(transaction, *table);
    if (values.empty()) {
      throw Failure(Exit::kUsage, "no value was given", "Name one as COLUMN=VALUE.");
    }
    Assign(transaction, object, *table, values);
  });
  output.Note(fmt::format("changed object {}\n", id_));
  return Exit::kDone;
}

class Delete : public Command {
 public:
  std::string name() const override { return "delete"; }
  std::string summary() const override { return "Delete objects"; }
  std::string details() const override {
    return "References to a deleted object follow the rules of their columns: see on_delete in "
           "docs/schema.md. Those without a rule stay as they are; check finds them.";
  }
  std::vector<Example> examples() const override {
    return {{"delete shop 131073", "one object"}, {"delete shop 131073 131074", "both, or none"}};
  }
  void Declare(CLI::App& app) override {
    app.add_option("ID", ids_, "The ids of the objects")->required()->type_name("");
  }
  Exit Run(Session& session, Output& output) override;

 private:
  std::vector<std::string> ids_;
};

Exit Delete::Run(Session& session, Output& output) {
  session.OpenToWrite();
  std::uint64_t count = 0;
  session.Write([&](sagleme::Transaction& transaction) {
    std::vector<sagleme::ObjectId> objects;
    for (std::string const& id : ids_) {
      sagleme::Object const object = ObjectNamed(transaction, id);
      UserTableOf(object);
      objects.push_back(object.id());
    }
    count = sagleme::DeleteObjects(transaction, objects);
  });
  output.Note(fmt::format("deleted {}\n", Counted(count, "objects")));
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeInsert() { return std::make_unique<Insert>(); }
std::unique_ptr<Command> MakeSet() { return std::make_unique<Set>(); }
std::unique_ptr<Command> MakeDelete() { return std::make_unique<Delete>(); }

}  // namespace tool

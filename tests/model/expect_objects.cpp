// Objects as the model sees them, and the door through which all operations go.

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kTypeNotFound = SAGLEME_TABLE_NOT_FOUND;

Table const& CrudTable(Model const& model, Text const& name) {
  Table const* const table = model.FindTable(name);
  if (table == nullptr) throw Failure{kTypeNotFound, u"Type " + name + u" not found."};
  return *table;
}

Column const& CrudColumn(Table const& table, Text const& name) {
  Column const* const column = table.FindColumn(name);
  if (column != nullptr) return *column;
  throw Failure{kBadArgument, u"Property " + name + u" isn't found in class " + table.name + u"."};
}

// Refused when a unique index holds another object under the new key; the object keeps its value
// then.
void Store(Model& model, Uid row, Text const& name, Value const& value) {
  Object& object = model.objects.at(row);
  Column const& column = CrudColumn(model.table(object.table), name);
  object.values[column.declared] = value;
  if (!model.KeysAreFree(object)) throw Failure{kDuplicateKey, u""};
}

// Which calls begin with an empty text. Those of the object path leave the last text alone until
// they have words of their own; plain reads and writes, and rows written by hand, never have any.
enum class Words { kFresh, kOfFailures, kNone };

Words WordsOf(Operation const& operation) {
  return std::visit(
      [](auto const& each) {
        using Kind = std::decay_t<decltype(each)>;
        constexpr bool none = std::is_same_v<Kind, WriteValue> ||
                              std::is_same_v<Kind, WriteDefault> ||
                              std::is_same_v<Kind, DeleteObject> ||
                              std::is_same_v<Kind, MapClass> || std::is_same_v<Kind, MapColumn>;
        constexpr bool of_failures =
            std::is_same_v<Kind, CreateObject> || std::is_same_v<Kind, AskProperty>;
        return none ? Words::kNone : of_failures ? Words::kOfFailures : Words::kFresh;
      },
      operation);
}

struct Applier {
  Model& model;
  Outcome& outcome;

  void operator()(CreateObject const& operation) const { outcome.made = Apply(model, operation); }
  template <typename Other>
  void operator()(Other const& operation) const {
    Apply(model, operation);
  }
};

}  // namespace

Uid Apply(Model& model, CreateObject const& operation) {
  Table const& table = CrudTable(model, operation.table);
  Uid const row = model.NextRow();
  model.objects[row] = {row, table.row, table.setspec, {}};
  return row;
}

void Apply(Model& model, WriteValue const& operation) {
  Store(model, operation.object, operation.column, operation.value);
}

void Apply(Model& model, WriteDefault const& operation) {
  Table const& table = model.table(model.objects.at(operation.object).table);
  Column const& column = CrudColumn(table, operation.column);
  Store(model, operation.object, operation.column, column.nullable ? Value() : ZeroOf(column.type));
}

void Apply(Model& model, DeleteObject const& operation) {
  model.objects.erase(operation.object);
  model.deleted_objects.insert(operation.object);
}

void Apply(Model& model, AskProperty const& operation) {
  CrudColumn(CrudTable(model, operation.table), operation.column);
}

Outcome Expect(Model& model, Operation const& operation, bool* clean) {
  Outcome outcome;
  Model changed = model;
  changed.BeginOperation();
  try {
    std::visit(Applier{changed, outcome}, operation);
    if (WordsOf(operation) == Words::kFresh) outcome.text = Text();
  } catch (Failure const& failure) {
    outcome = {failure.status, std::nullopt, 0};
    if (WordsOf(operation) != Words::kNone) outcome.text = failure.text;
    *clean = !changed.written();
    model.SkipRowsOf(changed);
    return outcome;
  }
  *clean = true;
  model = std::move(changed);
  return outcome;
}

}  // namespace sagleme_model

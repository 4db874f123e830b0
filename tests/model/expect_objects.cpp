// Objects as the model sees them, and the door through which all operations go.

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kTypeNotFound = 15003;

Table const& CrudTable(Model const& model, Text const& name) {
  Table const* const table = model.FindTable(name);
  if (table == nullptr) throw Failure{kTypeNotFound, u"Type " + name + u" not found."};
  return *table;
}

Column const& CrudColumn(Table const& table, Text const& name) {
  Column const* const column = table.FindColumn(name);
  if (column != nullptr) return *column;
  throw Failure{kBadArgument,
                u"Property " + name + u" isn't found in class " + table.name + u"."};
}

// Refused when a unique index holds another object under the new key; the object keeps its value
// then.
void Store(Model& model, Uid row, Text const& name, Value const& value) {
  Object& object = model.objects.at(row);
  Column const& column = CrudColumn(model.table(object.table), name);
  object.values[column.declared] = value;
  if (!model.KeysAreFree(object)) throw Failure{kDuplicateKey, u""};
}

// Words come from calls that write them; plain reads and writes report the kernel's status alone.
bool HasWords(Operation const& operation) {
  return !std::holds_alternative<WriteValue>(operation) &&
         !std::holds_alternative<WriteDefault>(operation) &&
         !std::holds_alternative<DeleteObject>(operation);
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
  Store(model, operation.object, operation.column,
        column.nullable ? Value() : ZeroOf(column.type));
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
    if (HasWords(operation)) outcome.text = Text();
  } catch (Failure const& failure) {
    outcome = {failure.status, std::nullopt, 0};
    if (HasWords(operation)) outcome.text = failure.text;
    *clean = !changed.written();
    model.SkipRowsOf(changed);
    return outcome;
  }
  *clean = true;
  model = std::move(changed);
  return outcome;
}

}  // namespace sagleme_model

#include "update.h"

#include <algorithm>
#include <map>
#include <sagleme/annotations.hpp>
#include <sagleme/hierarchy.hpp>
#include <span>
#include <vector>

#include "attachment.h"
#include "connection.h"
#include "failure.h"
#include "keys.h"
#include "replace.h"
#include "table.h"
#include "text.h"
#include "values.h"

namespace sagleme::sql {
namespace {

struct Assignment {
  ShapeColumn const* column;
  Input input;
};

// Takes back what was written in its life unless that is kept.
class Undo {
 public:
  explicit Undo(std::uint64_t context) : context_(context) {
    detail::CheckKernel(lscoredb_savepoint(context_, &savepoint_));
  }
  ~Undo() {
    if (!kept_) lscoredb_rollback_to(context_, savepoint_);
    lscoredb_release(context_, savepoint_);
  }
  Undo(Undo const&) = delete;
  Undo& operator=(Undo const&) = delete;
  void Keep() { kept_ = true; }

 private:
  std::uint64_t context_;
  std::uint64_t savepoint_ = 0;
  bool kept_ = false;
};

// One row on its way into a table.
class Row {
 public:
  Row(VirtualTable& table, sqlite3_value** columns)
      : table_(table),
        shape_(*table.shape),
        at_(table.Attached()),
        context_(at_.context()),
        rules_(at_.transaction().rules()),
        columns_(columns) {}

  sqlite3_int64 Insert(sqlite3_value* id);
  void Update(std::uint64_t oid);
  void Delete(std::uint64_t oid);

 private:
  bool Given(std::size_t column) const { return sqlite3_value_nochange(columns_[column]) == 0; }
  sqlite3_value* HiddenValue(Hidden which) const;
  void ReadAssignments(bool insert);
  TablePtr Target() const;
  std::uint64_t GivenId(sqlite3_value* id) const;
  void RequireSameId(std::uint64_t oid) const;
  TablePtr NewTable(std::uint64_t oid) const;
  void ChangeTable(std::uint64_t oid, Table const& to) const;
  bool Exists(std::uint64_t oid) const { return at_.AddressOf(oid).has_value(); }
  std::uint64_t Create(Table const& table, std::uint64_t id);
  void Fill(Table const& table, std::uint64_t oid);
  void Assign(std::uint64_t oid);
  void ClearTheWay(Table const& table, std::uint64_t oid);
  void PutAll(Table const& table, std::uint64_t oid);
  void RequireConcrete(Table const& table) const;
  void RequireTarget(Table const& table, Assignment const& assignment) const;
  void Put(Table const& table, std::uint64_t oid, Assignment const& assignment) const;
  void DeleteObject(std::uint64_t oid) const;
  void Check(std::uint32_t status) const;
  std::string UniqueIndexes() const;
  bool replaces() const {
    return sqlite3_vtab_on_conflict(table_.connection->handle()) == SQLITE_REPLACE;
  }
  ValueLocation At(std::uint64_t oid, std::uint16_t layout, ShapeColumn const& column) const {
    return {context_, oid, layout, column.ordinal};
  }

  VirtualTable& table_;
  Shape const& shape_;
  Attachment& at_;
  std::uint64_t context_;
  detail::Rules const* rules_;  // read before savepoints, which would undo what they require
  sqlite3_value** columns_;
  std::vector<Assignment> assignments_;
};

sqlite3_value* Row::HiddenValue(Hidden which) const {
  auto const found = std::find(shape_.hidden.begin(), shape_.hidden.end(), which);
  if (found == shape_.hidden.end()) return nullptr;
  auto const position =
      shape_.columns.size() + static_cast<std::size_t>(found - shape_.hidden.begin());
  bool const null = sqlite3_value_type(columns_[position]) == SQLITE_NULL;
  return null || !Given(position) ? nullptr : columns_[position];
}

void Row::ReadAssignments(bool insert) {
  for (std::size_t i = 0; i < shape_.columns.size(); ++i) {
    if (!insert && !Given(i)) continue;
    bool const null = sqlite3_value_type(columns_[i]) == SQLITE_NULL;
    // SQLite does not tell a column that an INSERT names from one that it does not: null stands for
    // what a new object has by itself, its default or null.
    bool const by_itself = shape_.columns[i].nullable || shape_.columns[i].has_default;
    if (insert && null && by_itself) continue;
    assignments_.push_back({&shape_.columns[i], Input(shape_.columns[i], columns_[i])});
  }
}

// The table that `_table` names, which is this one or derived from it.
TablePtr Row::Target() const {
  sqlite3_value* const given = HiddenValue(Hidden::kTable);
  if (given == nullptr) return shape_.table;
  std::string const name = TextBytes(given);
  Entry const* const entry = at_.schema()->Find(name);
  if (entry == nullptr) throw Failure(SQLITE_ERROR, "no such table: " + name);
  TablePtr const target = entry->shape->table;
  if (target->IsA(*shape_.table)) return target;
  throw Failure(SQLITE_CONSTRAINT,
                "Table " + name + " is not derived from " + ToUtf8(shape_.table->name) + ".");
}

std::uint64_t Row::GivenId(sqlite3_value* id) const {
  if (sqlite3_value_type(id) == SQLITE_NULL) id = HiddenValue(Hidden::kId);
  if (id == nullptr) return 0;
  if (sqlite3_value_numeric_type(id) != SQLITE_INTEGER || sqlite3_value_int64(id) <= 0) {
    throw Failure(SQLITE_MISMATCH,
                  std::string("An object's id is an integer above 0, not ") + TextBytes(id) + ".");
  }
  return static_cast<std::uint64_t>(sqlite3_value_int64(id));
}

void Row::RequireSameId(std::uint64_t oid) const {
  sqlite3_value* const id = HiddenValue(Hidden::kId);
  if (id != nullptr && static_cast<std::uint64_t>(sqlite3_value_int64(id)) != oid) {
    throw Failure(SQLITE_CONSTRAINT, "An object's id cannot be changed.");
  }
}

// Null if the object stays in its table.
TablePtr Row::NewTable(std::uint64_t oid) const {
  if (HiddenValue(Hidden::kTable) == nullptr) return nullptr;
  TablePtr const own = at_.TableOf(oid);
  TablePtr const target = Target();
  return own != nullptr && target->row.oid == own->row.oid ? nullptr : target;
}

void Row::ChangeTable(std::uint64_t oid, Table const& to) const {
  ObjectId const object{oid};
  try {
    Retype(at_.transaction(), std::span(&object, 1), to);
  } catch (sagleme::Failure const& failure) {
    throw Failure(SQLITE_CONSTRAINT,
                  std::string("FOREIGN KEY constraint failed: ") + failure.what());
  } catch (Error const& error) {
    if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
    throw Failure(SQLITE_CONSTRAINT, std::string("UNIQUE constraint failed: ") + error.what(),
                  error.status());
  }
}

std::string Row::UniqueIndexes() const {
  std::string names;
  for (ShapeIndex const& index : shape_.indexes) {
    if (!index.unique) continue;
    names += (names.empty() ? "" : ", ") + index.name + " (";
    for (std::size_t i = 0; i < index.parts.size(); ++i) {
      ShapeColumn const* const column = shape_.ColumnAt(index.parts[i].column);
      names += (i == 0 ? "" : ", ") + (column == nullptr ? "?" : column->name);
    }
    names += ")";
  }
  return names;
}

void Row::Check(std::uint32_t status) const {
  if (status == LSCOREDB_DUPLICATE_KEY) {
    throw Failure(SQLITE_CONSTRAINT,
                  "UNIQUE constraint failed: " + at_.schema()->NameOf(*shape_.table) +
                      ": another object has the same values in the index " + UniqueIndexes(),
                  status);
  }
  if (status == LSCOREDB_ID_IN_USE || status == LSCOREDB_ID_GIVEN_OUT) {
    throw Failure(SQLITE_CONSTRAINT,
                  "UNIQUE constraint failed: " + at_.schema()->NameOf(*shape_.table) +
                      "._oid: ids are given once, and this one was",
                  status);
  }
  detail::CheckKernel(status);
}

std::uint64_t Row::Create(Table const& table, std::uint64_t id) {
  std::uint64_t oid = id;
  RequireConcrete(table);
  if (id == 0) {
    Check(lorv_context_insert(context_, table.layout, &oid));
  } else {
    Check(lorvi_context_insert_with_id(context_, table.layout, id));
  }
  return oid;
}

void Row::RequireConcrete(Table const& table) const {
  if (rules_ == nullptr) return;
  try {
    detail::RequireConcrete(*rules_, table);
  } catch (Error const& error) {
    throw Failure(SQLITE_CONSTRAINT, error.what(), error.status());
  }
}

void Row::RequireTarget(Table const& table, Assignment const& assignment) const {
  auto const* const target = std::get_if<ObjectId>(&assignment.input.value());
  if (target == nullptr) return;
  try {
    sagleme::RequireTarget(at_.transaction(), table, table.columns[assignment.column->ordinal],
                           *target);
  } catch (Error const& error) {
    throw Failure(SQLITE_CONSTRAINT, std::string("FOREIGN KEY constraint failed: ") + error.what(),
                  error.status());
  }
}

void Row::Put(Table const& table, std::uint64_t oid, Assignment const& assignment) const {
  ShapeColumn const& shown = *assignment.column;
  if (rules_ == nullptr || shown.type != Type::kReference) {
    return Check(assignment.input.Put(At(oid, table.layout, shown)));
  }
  auto const* const target = std::get_if<ObjectId>(&assignment.input.value());
  detail::PutReference(*rules_, at_.transaction(), {context_, oid, table.layout, shown.ordinal},
                       table.setspec, table.columns[shown.ordinal],
                       target == nullptr ? ObjectId{} : *target);
}

void Row::PutAll(Table const& table, std::uint64_t oid) {
  for (Assignment const& each : assignments_) {
    RequireTarget(table, each);
    Put(table, oid, each);
  }
}

void Row::DeleteObject(std::uint64_t oid) const {
  if (rules_ == nullptr) return Check(lorv_context_delete(context_, oid, 0));
  if (!Exists(oid)) return;  // it went along with another one
  try {
    detail::DeleteByRules(*rules_, at_.transaction(), ObjectId{oid});
  } catch (Error const& error) {
    if (error.status() != SAGLEME_OBJECT_REFERENCED) throw;
    throw Failure(SQLITE_CONSTRAINT, std::string("FOREIGN KEY constraint failed: ") + error.what(),
                  error.status());
  }
}

// An object enters the indexes once, with its set specifier, when it has its values.
void Row::Fill(Table const& table, std::uint64_t oid) {
  if (rules_ != nullptr) {
    Object const made(at_.transaction(), LS_OBJ_REF{oid, table.layout});
    detail::PutDefaults(*rules_, made, table);
  }
  PutAll(table, oid);
  Check(lorv_context_put_setspec(context_, oid, table.layout, table.setspec.c_str()));
}

sqlite3_int64 Row::Insert(sqlite3_value* id) {
  ReadAssignments(true);
  TablePtr const target = Target();
  std::uint64_t const given = GivenId(id);
  if (given != 0 && replaces() && Exists(given)) {
    if (!table_.Holds(at_, given)) Check(LSCOREDB_ID_IN_USE);
    assignments_.clear();
    for (std::size_t i = 0; i < shape_.columns.size(); ++i) {
      assignments_.push_back({&shape_.columns[i], Input(shape_.columns[i], columns_[i])});
    }
    Assign(given);
    return static_cast<sqlite3_int64>(given);
  }
  at_.NoteWrite();
  Undo undo(context_);
  ClearTheWay(*target, 0);
  std::uint64_t const oid = Create(*target, given);
  Fill(*target, oid);
  undo.Keep();
  return static_cast<sqlite3_int64>(oid);
}

// OR REPLACE deletes what has the values that the object is to have, as it does in SQLite's own
// tables.
void Row::ClearTheWay(Table const& table, std::uint64_t oid) {
  if (!replaces()) return;
  std::map<std::uint16_t, Value> values;
  for (Assignment const& each : assignments_) {
    values.emplace(each.column->ordinal, each.input.value());
  }
  for (ObjectId const id : InTheWay(at_.transaction(), table, values, ObjectId{oid})) {
    DeleteObject(id.value);
  }
}

void Row::Assign(std::uint64_t oid) {
  at_.NoteWrite();
  Undo undo(context_);
  TablePtr const table = replaces() ? at_.TableOf(oid) : nullptr;
  if (table != nullptr) ClearTheWay(*table, oid);
  PutAll(*shape_.table, oid);
  undo.Keep();
}

void Row::Update(std::uint64_t oid) {
  if (replaces() && !Exists(oid)) return;  // OR REPLACE deleted it for another row of the statement
  RequireSameId(oid);
  ReadAssignments(false);
  TablePtr const table = NewTable(oid);
  if (table == nullptr) return Assign(oid);
  at_.NoteWrite();
  Undo undo(context_);
  ChangeTable(oid, *table);
  Assign(oid);
  undo.Keep();
}

void Row::Delete(std::uint64_t oid) {
  at_.NoteWrite();
  DeleteObject(oid);
}

}  // namespace

sqlite3_int64 UpdateRow(VirtualTable& table, int count, sqlite3_value** values) {
  table.Begin();
  if (table.shape->table->system) {
    throw Failure(SQLITE_READONLY,
                  "Table " + ToUtf8(table.shape->table->name) +
                      " is part of the catalogue, which changes by definitions alone.");
  }
  Row row(table, values + 2);
  bool const insert = count > 1 && sqlite3_value_type(values[0]) == SQLITE_NULL;
  if (insert) return row.Insert(values[1]);
  auto const oid = static_cast<std::uint64_t>(sqlite3_value_int64(values[0]));
  if (count == 1) {
    row.Delete(oid);
  } else if (sqlite3_value_int64(values[0]) != sqlite3_value_int64(values[1])) {
    throw Failure(SQLITE_CONSTRAINT, "An object's id cannot be changed.");
  } else {
    row.Update(oid);
  }
  return 0;
}

}  // namespace sagleme::sql

#include "data/importer.h"

#include <fmt/format.h>

#include <algorithm>
#include <sagleme/host/duplicates.hpp>
#include <sagleme/host/references.hpp>

#include "annotations/rules.h"

namespace sagleme {
namespace {

bool IsNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool NeedsValue(Column const& column) {
  return !column.nullable && !column.system() && !MustBeNullable(column.type);
}

}  // namespace

// ---- references ---------------------------------------------------------------------------------

Referent FindReferent(Transaction& transaction, Table const& target, ObjectId id) {
  auto const object = Object::Find(transaction, id);
  if (!object) return Referent::kMissing;
  return object->setspec().starts_with(target.setspec) ? Referent::kThere : Referent::kOfOtherTable;
}

void LaterReferences::Resolve(Transaction& transaction) {
  for (auto at = locations_.begin(); at != locations_.end();) {
    TablePtr const table = transaction.table(at->first.table);
    ReadScope const scope(transaction.context());
    auto const found = FindReferent(transaction, *table, {at->first.id});
    if (found == Referent::kOfOtherTable) {
      throw BadRow(at->second, fmt::format("object {} is neither of {} nor of a table derived "
                                           "from it",
                                           at->first.id, ToUtf8(table->name)));
    }
    at = found == Referent::kThere ? locations_.erase(at) : std::next(at);
  }
}

void LaterReferences::Require() const {
  if (locations_.empty()) return;
  auto const first = std::min_element(locations_.begin(), locations_.end(), [](auto& a, auto& b) {
    return a.second.line < b.second.line;
  });
  throw BadRow(first->second, fmt::format("there is no object {}, neither in the database nor in "
                                          "the file",
                                          first->first.id));
}

// ---- names --------------------------------------------------------------------------------------

Importer::Importer(Transaction& transaction, TablePtr table, RowSource const& rows, bool keep_ids,
                   LaterReferences& later)
    : transaction_(transaction),
      table_(std::move(table)),
      rows_(rows),
      keep_ids_(keep_ids),
      later_(later),
      own_(OwnColumnsOf(transaction, *table_)),
      writer_(transaction) {
  FindOwnNames();
  if (rows_.has_heading()) CheckHeading();
}

// "__oid" is always understood.
void Importer::FindOwnNames() {
  std::vector<std::string> const& names = rows_.names();
  for (; names_known_ < names.size(); ++names_known_) {
    std::string const& name = names[names_known_];
    if (name == own_.id || name == "__oid") id_name_ = names_known_;
    if (name == own_.table || name == "__table") table_name_ = names_known_;
  }
}

void Importer::CheckHeading() {
  std::vector<TablePtr> tables{table_};
  for (TablePtr const& table : transaction_.Tables()) {
    if (table_name_ != kNowhere && table->IsA(*table_)) tables.push_back(table);
  }
  for (std::size_t name = 0; name < rows_.names().size(); ++name) {
    bool const known = std::any_of(tables.begin(), tables.end(), [&](auto const& table) {
      return PlanFor(table).columns[name] != nullptr;
    });
    if (known || IsOwn(name)) continue;
    throw BadRow(
        rows_.LocationOfName(name),
        fmt::format("table {} has no column {}", ToUtf8(table_->name), rows_.names()[name]));
  }
  if (table_name_ == kNowhere) RequireColumns(PlanFor(table_));
}

Importer::Plan& Importer::PlanFor(TablePtr const& table) {
  Plan& plan = plans_[table.get()];
  if (plan.table == nullptr) {
    plan.table = table;
    detail::Rules const* const rules = transaction_.rules();
    for (Column const& column : table->columns) {
      if (!NeedsValue(column)) continue;
      if (rules == nullptr || !rules->HasDefault(*table, column)) plan.required.push_back(&column);
    }
  }
  Extend(plan);
  return plan;
}

// Rows may have names that no earlier row had.
void Importer::Extend(Plan& plan) const {
  for (std::size_t name = plan.columns.size(); name < rows_.names().size(); ++name) {
    Column const* column = nullptr;
    try {
      column = plan.table->FindColumn(ToUtf16(rows_.names()[name]));
    } catch (BadUtf8 const&) {  // the name of nothing
    }
    plan.columns.push_back(column == nullptr || column->system() ? nullptr : column);
  }
}

// ---- rows ---------------------------------------------------------------------------------------

RowValue const* Importer::Find(std::size_t name) const {
  if (name == kNowhere) return nullptr;
  for (RowValue const& value : rows_.values()) {
    if (value.name == name) return &value;
  }
  return nullptr;
}

Importer::Plan& Importer::PlanOfRow() {
  RowValue const* const value = Find(table_name_);
  if (value == nullptr || value->kind == RowValue::Kind::kNull) return PlanFor(table_);
  TablePtr table;
  try {
    table = transaction_.Find(ToUtf16(value->text));
  } catch (BadUtf8 const&) {  // the name of nothing
  }
  if (table != nullptr && table->IsA(*table_)) return PlanFor(table);
  throw BadRow(rows_.LocationOf(*value), fmt::format("{} is neither {} nor derived from it",
                                                     value->text, ToUtf8(table_->name)));
}

ObjectId Importer::IdOfRow() const {
  RowValue const* const value = keep_ids_ ? Find(id_name_) : nullptr;
  if (value == nullptr || value->kind == RowValue::Kind::kNull) return {};
  if (!IsNumber(value->text)) throw BadRow(rows_.LocationOf(*value), "the id is not a number");
  try {
    ObjectId const id{std::get<std::uint64_t>(ParseValue(Type::kULong, value->text))};
    if (id.value != 0) return id;
    throw BadValue("no object has the id 0");
  } catch (BadValue const& error) {
    throw BadRow(rows_.LocationOf(*value), error.what());
  }
}

// A column without a value would silently become zero.
void Importer::RequireColumns(Plan const& plan) const {
  auto const given = [&](Column const& column) {
    if (rows_.has_heading()) return std::count(plan.columns.begin(), plan.columns.end(), &column);
    auto const values = rows_.values();
    return std::count_if(values.begin(), values.end(), [&](RowValue const& value) {
      return plan.columns[value.name] == &column;
    });
  };
  for (Column const* const needed : plan.required) {
    Column const& column = *needed;
    if (given(column) != 0) continue;
    FileLocation const location = rows_.has_heading() ? rows_.LocationOfName(0) : rows_.location();
    throw BadRow(location, fmt::format("column {} of table {} is missing, but takes no null",
                                       ToUtf8(column.name), ToUtf8(plan.table->name)));
  }
}

void Importer::RequireConcrete(detail::Rules const& rules, Table const& table) const {
  try {
    detail::RequireConcrete(rules, table);
  } catch (Error const& error) {
    throw BadRow(rows_.location(), error.what());
  }
}

void Importer::Add() {
  FindOwnNames();
  Plan const& plan = PlanOfRow();
  ObjectId const id = IdOfRow();
  if (!plan.required.empty() && (!rows_.has_heading() || table_name_ != kNowhere)) {
    RequireColumns(plan);
  }
  detail::Rules const* const rules = transaction_.rules();
  if (rules != nullptr) RequireConcrete(*rules, *plan.table);
  try {
    writer_.Begin(*plan.table, id);
    if (rules != nullptr) PutDefaults(*rules, writer_.object(), *plan.table);
  } catch (Error const& error) {
    RowValue const* const value = id.value == 0 ? nullptr : Find(id_name_);
    if (value == nullptr) throw;
    throw BadRow(rows_.LocationOf(*value), fmt::format("id {}: {}", id.value, error.what()));
  }
  try {
    Write(plan);
  } catch (BadRow const&) {
    writer_.GiveUp();
    throw;
  }
}

void Importer::Write(Plan const& plan) {
  for (RowValue const& value : rows_.values()) {
    if (plan.columns[value.name] != nullptr) {
      Put(plan, value);
    } else if (!IsOwn(value.name) && value.kind != RowValue::Kind::kNull) {
      throw BadRow(rows_.LocationOf(value), fmt::format("table {} has no column {}",
                                                        ToUtf8(plan.table->name), NameOf(value)));
    }
  }
  Finish(plan);
}

void Importer::Put(Plan const& plan, RowValue const& value) {
  Column const& column = *plan.columns[value.name];
  try {
    if (value.kind == RowValue::Kind::kNull) {
      if (NeedsValue(column)) throw BadValue("a value is needed; the column takes no null");
      if (transaction_.rules() != nullptr) writer_.Put(column, Value(Null{}));  // not the default
    } else if (column.type == Type::kReference) {
      PutReference(column, value);
    } else {
      writer_.Put(column, value);
    }
  } catch (BadValue const& error) {
    throw BadRow(rows_.LocationOf(value),
                 fmt::format("column {}: {}", NameOf(value), error.what()));
  } catch (Error const& error) {
    throw BadRow(rows_.LocationOf(value),
                 fmt::format("column {}: {}", NameOf(value), error.what()));
  }
}

void Importer::PutReference(Column const& column, RowValue const& value) {
  ObjectId id;
  if (value.kind == RowValue::Kind::kText && !IsNumber(value.text)) {
    id = ReferencedObject(transaction_, column, std::string(value.text));
  } else {
    id = std::get<ObjectId>(ParseRowValue(column.type, value));
    CheckReference(column, value, id);
  }
  writer_.Put(column, Value(id));
}

void Importer::CheckReference(Column const& column, RowValue const& value, ObjectId id) {
  TablePtr const target = transaction_.table(column.target);
  if (id == writer_.id()) return later_.Note({target->name, id.value}, rows_.LocationOf(value));
  ReadScope const scope(transaction_.context());
  switch (FindReferent(transaction_, *target, id)) {
    case Referent::kThere:
      return transaction_.Require(id.value);
    case Referent::kMissing:
      if (!keep_ids_) throw BadValue(fmt::format("there is no object {}", id.value));
      return later_.Note({target->name, id.value}, rows_.LocationOf(value));
    case Referent::kOfOtherTable:
      throw BadValue(fmt::format("object {} is neither of {} nor of a table derived from it",
                                 id.value, ToUtf8(target->name)));
  }
}

void Importer::Finish(Plan const& plan) {
  try {
    writer_.Finish();
  } catch (Error const& error) {
    if (error.status() != LSCOREDB_DUPLICATE_KEY) throw;
    std::string const duplicate =
        DescribeDuplicate(transaction_, writer_.object(), *plan.table, {});
    throw BadRow(rows_.location(), duplicate.empty() ? error.what() : duplicate);
  }
}

}  // namespace sagleme

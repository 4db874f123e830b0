#include "columns/requests.h"

#include <fmt/format.h>

#include <algorithm>

namespace sagleme::columns {
namespace {

TablePtr OwnTable(Transaction& transaction, Text const& name) {
  TablePtr table = transaction.table(name);
  if (!table->system) return table;
  throw Error(SAGLEME_BAD_ARGUMENT,
              "Table " + ToUtf8(name) + " belongs to the catalogue, which does not change.");
}

Column const& Declared(Table const& table, Text const& name) {
  Column const& column = table.GetColumn(name);
  std::string const what = "Column " + ToUtf8(name) + " of " + ToUtf8(table.name);
  if (column.inherited || column.system()) {
    throw Error(SAGLEME_COLUMN_INHERITED,
                what + " is inherited. Change it in the table that declares it.");
  }
  if (column.type == Type::kReference && column.target_id.value == 0) {
    throw Error(SAGLEME_TARGET_NOT_FOUND, what + " refers to " + ToUtf8(column.target) +
                                              ", which does not exist yet. Create that table, "
                                              "and finish the references.");
  }
  return column;
}

bool IsStrictlyBelow(Table const& table, Table const& base) {
  return table.IsA(base) && table.setspec != base.setspec;
}

bool IsEqual(Column const& a, Column const& b) {
  return a.type == b.type && a.nullable == b.nullable && a.target == b.target;
}

// The other tables below `base` that declare the column.
void GatherMerged(Transaction& transaction, Table const& base, PullUp& request) {
  for (TablePtr const& child : transaction.Children(base)) {
    Column const* const own = child->FindColumn(request.column->name);
    if (own == nullptr || own->inherited) {
      GatherMerged(transaction, *child, request);
      continue;
    }
    if (child->setspec == request.table->setspec) continue;
    if (!IsEqual(*own, *request.column)) {
      throw Error(SAGLEME_COLUMN_NAME_TAKEN,
                  fmt::format("Column {} cannot become one of {}: the column {} of {} has another "
                              "definition than that of {}.",
                              ToUtf8(own->name), ToUtf8(base.name), ToUtf8(own->name),
                              ToUtf8(child->name), ToUtf8(request.table->name)));
    }
    request.merged.push_back(child);
  }
}

LS_OBJ_REF DataTypeOf(Transaction& transaction, ColumnSpec const& column) {
  if (column.type == Type::kReference) return transaction.table(column.target)->row;
  return detail::Inside(transaction.context(), [&]() -> LS_OBJ_REF {
    return metalayer::DbPrimitiveType::ByDbPrimitiveTypePK_postV2_3(
        static_cast<unsigned char>(column.type));
  });
}

void RequireDefinition(Transaction& transaction, Text const& table, ColumnSpec const& column) {
  detail::RequireNullableKey(table, column);
  std::string const what = "Column " + ToUtf8(column.name) + " of " + ToUtf8(table);
  if (!column.nullable && MustBeNullable(column.type)) {
    throw Error(SAGLEME_COLUMN_NOT_NULLABLE, what + " must be nullable: the type " +
                                                 std::string(TypeName(column.type)) +
                                                 " always takes null.");
  }
  if (column.type != Type::kReference || transaction.Find(column.target) != nullptr) return;
  throw Error(SAGLEME_TARGET_NOT_FOUND,
              what + " cannot refer to table " + ToUtf8(column.target) + ", which does not exist.");
}

unsigned char KernelType(Type type) {
  return metalayer::LogicalTypeToKernelType(static_cast<unsigned char>(type));
}

}  // namespace

Wanted WantedOf(Column const& column) { return {column.type, column.nullable, column.target_id}; }

std::string Described(ColumnSpec const& column) {
  if (column.type == Type::kReference) return "a reference to " + ToUtf8(column.target);
  return std::string(TypeName(column.type)) + (column.nullable ? "" : " without null");
}

PullUp RequirePullUp(Transaction& transaction, Text const& table, Text const& column,
                     Text const& base) {
  PullUp request;
  request.table = OwnTable(transaction, table);
  request.base = OwnTable(transaction, base);
  request.column = &Declared(*request.table, column);
  if (!IsStrictlyBelow(*request.table, *request.base)) {
    throw Error(SAGLEME_BAD_ARGUMENT, "Table " + ToUtf8(base) + " is not above " + ToUtf8(table) +
                                          ", so its column " + ToUtf8(column) +
                                          " cannot be pulled up there.");
  }
  GatherMerged(transaction, *request.base, request);
  return request;
}

PushDown RequirePushDown(Transaction& transaction, Text const& table, Text const& column,
                         std::span<Text const> tables) {
  PushDown request;
  request.base = OwnTable(transaction, table);
  request.column = &Declared(*request.base, column);
  if (tables.empty()) {
    throw Error(SAGLEME_BAD_ARGUMENT,
                "Name the tables that column " + ToUtf8(column) + " shall go down to.");
  }
  for (Text const& name : tables) {
    TablePtr const derived = OwnTable(transaction, name);
    if (!IsStrictlyBelow(*derived, *request.base)) {
      throw Error(SAGLEME_BAD_ARGUMENT,
                  "Table " + ToUtf8(name) + " does not derive from " + ToUtf8(table) + ".");
    }
    for (TablePtr const& other : request.tables) {
      if (!derived->IsA(*other) && !other->IsA(*derived)) continue;
      throw Error(SAGLEME_BAD_ARGUMENT, "Column " + ToUtf8(column) + " cannot go down to both " +
                                            ToUtf8(other->name) + " and " + ToUtf8(name) +
                                            ", one of which is or derives from the other.");
    }
    request.tables.push_back(derived);
  }
  return request;
}

Retype RequireRetype(Transaction& transaction, Text const& table, ColumnSpec const& column) {
  Retype request;
  request.table = OwnTable(transaction, table);
  request.column = &Declared(*request.table, column.name);
  RequireDefinition(transaction, table, column);
  request.data_type = DataTypeOf(transaction, column);
  bool const refers = column.type == Type::kReference;
  request.wanted = {column.type, column.nullable, {refers ? request.data_type.oid : 0}};
  Wanted const present = WantedOf(*request.column);
  request.same = present.type == column.type && present.nullable == column.nullable &&
                 (!refers || present.target == request.wanted.target);
  request.same_form = KernelType(present.type) == KernelType(column.type);
  return request;
}

}  // namespace sagleme::columns

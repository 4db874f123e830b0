#include "functions.h"

#include "attachment.h"
#include "call.h"
#include "connection.h"
#include "definition.h"
#include "failure.h"
#include "text.h"
#include "values.h"

namespace sagleme::sql {
namespace {

std::string TextOf(sqlite3_value* value, char const* what) {
  if (sqlite3_value_type(value) != SQLITE_TEXT) {
    throw Failure(SQLITE_MISMATCH, std::string(what) + " is not given as a text.");
  }
  return TextBytes(value);
}

void AttachDatabase(sqlite3_context* context, Connection& connection, int count,
                    sqlite3_value** values) {
  std::string const directory = TextOf(values[0], "The directory of the database");
  std::string const schema = count > 1 ? TextOf(values[1], "The name of the schema") : "";
  std::string const name = connection.Attach(directory, schema);
  sqlite3_result_text(context, name.c_str(), -1, SQLITE_TRANSIENT);
}

// Runs statements that define tables and indexes. The result is what was done, or, behind EXPLAIN,
// would be, a line for each change.
void Execute(sqlite3_context* context, Connection& connection, int count, sqlite3_value** values) {
  std::string const text = TextOf(values[0], "The statement");
  Attachment& at = connection.Find(count > 1 ? TextOf(values[1], "The name of the schema") : "");
  Hold const hold(connection, at);
  std::string done;
  std::string_view rest = text;
  do {
    Definition const definition = ParseDefinition(rest, &rest);
    for (std::string const& line : at.Define(definition)) done += line + "\n";
  } while (BeginsDefinition(rest));
  if (!done.empty()) done.pop_back();
  sqlite3_result_text64(context, done.data(), done.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

// The object that a reference names: in the attachment that the value carries, or in the only one.
struct Target {
  Attachment* attachment;
  std::uint64_t oid;
};

bool IsReference(sqlite3_value* value) {
  unsigned const subtype = sqlite3_value_subtype(value);
  return subtype >= kReferenceSubtype && subtype < kReferenceSubtype + kMostAttachments;
}

Attachment& AttachmentOf(Connection& connection, sqlite3_value* value) {
  Attachment* const found = connection.At(sqlite3_value_subtype(value) - kReferenceSubtype);
  if (found != nullptr) return *found;
  throw Failure(SQLITE_ERROR, "The database that a reference belongs to was detached.");
}

std::uint64_t IdIn(sqlite3_value* value) {
  if (sqlite3_value_type(value) == SQLITE_INTEGER && sqlite3_value_int64(value) > 0) {
    return static_cast<std::uint64_t>(sqlite3_value_int64(value));
  }
  throw Failure(SQLITE_MISMATCH,
                std::string("This is not the id of an object: ") + TextBytes(value));
}

// Null when there is no such object any more.
TablePtr TableOf(Target const& target) {
  std::uint64_t addr = 0;
  auto const status = lorv_context_lookup(target.attachment->context(), target.oid, &addr);
  if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) return nullptr;
  detail::CheckKernel(status);
  return target.attachment->TableOf(target.oid);
}

using Reader = void (*)(sqlite3_context*, ValueLocation const&, Type, unsigned);

void ReadColumn(sqlite3_context* context, Connection& connection, Target const& target,
                std::string const& name, Reader read) {
  Attachment& at = *target.attachment;
  Hold const hold(connection, at);
  TablePtr const table = TableOf(target);
  if (table == nullptr) return sqlite3_result_null(context);
  ShapeColumn const* const column = at.schema()->ShapeOf(*table)->FindColumn(name);
  if (column == nullptr) {
    throw Failure(SQLITE_ERROR, "no such column: " + at.schema()->NameOf(*table) + "." + name);
  }
  read(context, {at.context(), target.oid, table->layout, column->ordinal}, column->type,
       connection.NumberOf(&at));
}

void ReadExact(sqlite3_context* context, ValueLocation const& location, Type type, unsigned) {
  ExactResult(context, location, type);
}

// sagleme_deref(schema, id, column) and sagleme_exact(schema, id, column)
template <Reader read>
void Dereference(sqlite3_context* context, Connection& connection, int, sqlite3_value** values) {
  Attachment& at = connection.Find(TextOf(values[0], "The name of the schema"));
  if (sqlite3_value_type(values[1]) == SQLITE_NULL) return sqlite3_result_null(context);
  ReadColumn(context, connection, {&at, IdIn(values[1])},
             TextOf(values[2], "The name of the column"), read);
}

// A number without a mark may be a reference that lost it in a sort or a subquery. As JSON the
// answer would be NULL, which would look like an object's value.
bool MayBeReference(Connection const& connection, sqlite3_value** values) {
  if (connection.attachments().empty() || sqlite3_value_type(values[0]) != SQLITE_INTEGER ||
      sqlite3_value_type(values[1]) != SQLITE_TEXT) {
    return false;
  }
  return *TextBytes(values[1]) != '$';
}

template <bool text>
void Arrow(sqlite3_context* context, Connection& connection, int, sqlite3_value** values) {
  if (IsReference(values[0])) {
    return ReadColumn(context, connection, {&AttachmentOf(connection, values[0]), IdIn(values[0])},
                      TextOf(values[1], "The name of the column"), Result);
  }
  if (MayBeReference(connection, values)) {
    throw Failure(SQLITE_ERROR,
                  "-> cannot tell whether this number is a reference: it does not come straight "
                  "from a column. Use sagleme_deref(schema, id, column).");
  }
  connection.json().Extract(context, values, text);
}

void IsOf(sqlite3_context* context, Connection& connection, int count, sqlite3_value** values) {
  if (sqlite3_value_type(values[0]) == SQLITE_NULL) return sqlite3_result_null(context);
  std::string const schema = count > 2 ? TextOf(values[2], "The name of the schema") : "";
  bool const marked = count < 3 && IsReference(values[0]);
  Attachment& at = marked ? AttachmentOf(connection, values[0]) : connection.Find(schema);
  Hold const hold(connection, at);
  TablePtr const table = TableOf({&at, IdIn(values[0])});
  std::string const name = TextOf(values[1], "The name of the table");
  Entry const* const entry = at.schema()->Find(name);
  if (entry == nullptr) throw Failure(SQLITE_ERROR, "no such table: " + name);
  if (table == nullptr) return sqlite3_result_null(context);
  Table const& wanted = *entry->shape->table;
  bool const holds = entry->shape->only ? table->row.oid == wanted.row.oid : table->IsA(wanted);
  sqlite3_result_int(context, holds ? 1 : 0);
}

// Values reach and leave these with their subtypes; later versions of SQLite want to know that.
constexpr int kTakesSubtypes = SQLITE_SUBTYPE | 0x001000000;

constexpr Function kFunctions[] = {
    {"sagleme_attach", 1, SQLITE_DIRECTONLY, Call<AttachDatabase>},
    {"sagleme_attach", 2, SQLITE_DIRECTONLY, Call<AttachDatabase>},
    {"sagleme_exec", 1, SQLITE_DIRECTONLY, Call<Execute>},
    {"sagleme_exec", 2, SQLITE_DIRECTONLY, Call<Execute>},
    {"sagleme_deref", 3, 0, Call<Dereference<Result>>},
    {"sagleme_exact", 3, 0, Call<Dereference<ReadExact>>},
    {"is_of", 2, kTakesSubtypes, Call<IsOf>},
    {"is_of", 3, kTakesSubtypes, Call<IsOf>},
    {"->", 2, kTakesSubtypes, Call<Arrow<false>>},
    {"->>", 2, kTakesSubtypes, Call<Arrow<true>>},
};

}  // namespace

int RegisterFunctions(sqlite3* database, std::shared_ptr<Connection> const& connection) {
  for (Function const& each : kFunctions) {
    int const code = Define(database, connection, each);
    if (code != SQLITE_OK) return code;
  }
  return SQLITE_OK;
}

}  // namespace sagleme::sql

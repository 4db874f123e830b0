#include <array>
#include <sagleme/annotations.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/value_text.hpp>

#include "annotations/default_text.h"
#include "annotations/referrers.h"
#include "annotations/rules.h"
#include "annotations/store.h"

namespace sagleme {
namespace {

using Kind = Annotation::Kind;
using annotations::Store;

constexpr std::array<std::string_view, 5> kRuleNames = {"keep", "refuse", "set_null", "cascade",
                                                        "last"};

std::string NameOf(Table const& table, Column const& column) {
  return "Column " + ToUtf8(column.name) + " of table " + ToUtf8(table.name);
}

std::optional<std::string> Read(Transaction& transaction, ObjectId subject, Kind kind) {
  auto const store = Store::Find(transaction);
  return store ? store->Read(subject, kind) : std::nullopt;
}

// Of the column of the table that declares it.
std::optional<std::string> Read(Transaction& transaction, Table const& table, Column const& column,
                                Kind kind) {
  TablePtr const declaring = annotations::DeclaringTable(transaction, table, column);
  return Read(transaction, declaring->GetColumn(column.name).id, kind);
}

void Write(Transaction& transaction, ObjectId subject, Kind kind,
           std::optional<std::string> const& text) {
  if (!text && !Store::Find(transaction)) return;
  Savepoint whole(transaction);
  Store::Make(transaction).Write(subject, kind, text);
  whole.Release();
}

void WriteComment(Transaction& transaction, ObjectId subject, std::string const& comment) {
  if (comment.find('\0') != std::string::npos) {
    throw Error(LSCOREDB_INVALID_ARGUMENT, "A comment cannot contain U+0000.");
  }
  Write(transaction, subject, Kind::kComment,
        comment.empty() ? std::nullopt : std::optional(comment));
}

void RequireUserTable(Transaction& transaction, Table const& table) {
  detail::RequireOwn(transaction, table);
  if (!table.system) return;
  throw Error(LSCOREDB_INVALID_ARGUMENT,
              "Table " + ToUtf8(table.name) + " is part of the catalogue and has no annotations.");
}

// A column that the table itself declares, and that users see.
Column const& OwnColumn(Transaction& transaction, Table const& table, TextView const& name) {
  RequireUserTable(transaction, table);
  Column const& column = table.GetColumn(name);
  if (column.system()) {
    throw Error(LSCOREDB_INVALID_ARGUMENT,
                NameOf(table, column) + " belongs to the library and has no annotations.");
  }
  if (!column.inherited) return column;
  TablePtr const declaring = annotations::DeclaringTable(transaction, table, column);
  throw Error(SAGLEME_COLUMN_INHERITED, NameOf(table, column) + " is inherited; annotate it in " +
                                            ToUtf8(declaring->name) + ".");
}

void RequireReference(Table const& table, Column const& column) {
  if (column.type == Type::kReference) return;
  throw Error(LSCOREDB_WRONG_TYPE,
              NameOf(table, column) + " is of type " + std::string(TypeName(column.type)) +
                  "; only references have a rule for the deletion of their target.");
}

// A rule would not hold for references that lead nowhere already.
void RequireTargets(Transaction& transaction, Table const& table, Column const& column) {
  Property<ObjectId> const reference(table, column);
  for (Object const& each : Range::Subtree(transaction, table)) {
    ObjectId const target = reference.GetOr(each, {});
    if (target.value == 0 || Object::Find(transaction, target)) continue;
    throw Error(LORV_STATUS_NO_OBJECT,
                NameOf(table, column) + ": object " + std::to_string(each.id().value) +
                    " refers to object " + std::to_string(target.value) +
                    ", which does not exist. Set the reference to null or delete the object.");
  }
}

void RequireIndex(Transaction& transaction, Table const& table, Column const& column) {
  if (detail::IndexBeginningWith(table, column.name) != nullptr) return;
  std::string const name = detail::ReferrerIndexName(ToUtf8(table.name), ToUtf8(column.name));
  CreateIndex(transaction, ToUtf16(name), table.name, {{column.name}});
}

std::string CountedObjects(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " object" : " objects");
}

}  // namespace

TablePtr annotations::DeclaringTable(Transaction& transaction, Table const& table,
                                     Column const& column) {
  TablePtr at = transaction.ById(table.id());
  while (at != nullptr && at->GetColumn(column.name).inherited) at = transaction.table(at->base);
  if (at != nullptr) return at;
  throw Error(SAGLEME_TABLE_NOT_FOUND, "Table " + ToUtf8(table.name) + " not found.");
}

void annotations::WriteText(Transaction& transaction, ObjectId subject, Annotation::Kind kind,
                            std::optional<std::string> const& text) {
  Write(transaction, subject, kind, text);
}

std::string_view OnDeleteName(OnDelete rule) {
  return kRuleNames.at(static_cast<std::size_t>(rule));
}

std::optional<OnDelete> ParseOnDelete(std::string_view name) {
  for (std::size_t i = 0; i < kRuleNames.size(); ++i) {
    if (kRuleNames.at(i) == name) return static_cast<OnDelete>(i);
  }
  return std::nullopt;
}

std::string CommentOf(Transaction& transaction, Table const& table) {
  return Read(transaction, table.id(), Kind::kComment).value_or("");
}
std::string CommentOf(Transaction& transaction, Table const& table, Column const& column) {
  return Read(transaction, table, column, Kind::kComment).value_or("");
}
std::string CommentOf(Transaction& transaction, Index const& index) {
  return Read(transaction, index.id, Kind::kComment).value_or("");
}

void SetComment(Transaction& transaction, Table const& table, std::string const& comment) {
  RequireUserTable(transaction, table);
  WriteComment(transaction, table.id(), comment);
}
void SetComment(Transaction& transaction, Table const& table, TextView const& column,
                std::string const& comment) {
  WriteComment(transaction, OwnColumn(transaction, table, column).id, comment);
}
void SetComment(Transaction& transaction, Index const& index, std::string const& comment) {
  detail::RequireOwn(transaction, index);
  WriteComment(transaction, index.id, comment);
}

Value DefaultOf(Transaction& transaction, Table const& table, Column const& column) {
  auto const json = Read(transaction, table, column, Kind::kDefault);
  return json ? annotations::StoredDefault(column.type, *json) : Value(Null{});
}

void SetDefault(Transaction& transaction, Table const& table, TextView const& name,
                Value const& value) {
  Column const& column = OwnColumn(transaction, table, name);
  if (IsNull(value)) return Write(transaction, column.id, Kind::kDefault, std::nullopt);
  if (column.type == Type::kReference) {
    throw Error(LSCOREDB_WRONG_TYPE,
                NameOf(table, column) + " is a reference, which has no default.");
  }
  auto const* const text = std::get_if<std::u16string>(&value);
  bool const nul = text != nullptr && text->find(u'\0') != std::u16string::npos;
  if (nul || !detail::Fits(value, column.type)) {
    throw Error(LSCOREDB_WRONG_TYPE, "The default " + ValueJson(value) + " does not fit " +
                                         NameOf(table, column) + ", which is of type " +
                                         std::string(TypeName(column.type)) + ".");
  }
  Write(transaction, column.id, Kind::kDefault, ValueJson(value));
}

bool IsAbstract(Transaction& transaction, Table const& table) {
  return Read(transaction, table.id(), Kind::kAbstract).has_value();
}

void SetAbstract(Transaction& transaction, Table const& table, bool abstract) {
  RequireUserTable(transaction, table);
  std::uint64_t const count = abstract ? ObjectCounts(transaction).Own(table) : 0;
  if (count != 0) {
    throw Error(SAGLEME_TABLE_NOT_EMPTY,
                "Table " + ToUtf8(table.name) + " cannot be abstract: it has " +
                    CountedObjects(count) +
                    " of its own. Delete them, or create them in a table that derives from it.");
  }
  Write(transaction, table.id(), Kind::kAbstract,
        abstract ? std::optional<std::string>("") : std::nullopt);
}

OnDelete OnDeleteOf(Transaction& transaction, Table const& table, Column const& column) {
  auto const name = Read(transaction, table, column, Kind::kOnDelete);
  return name ? ParseOnDelete(*name).value_or(OnDelete::kKeep) : OnDelete::kKeep;
}

void SetOnDelete(Transaction& transaction, Table const& table, TextView const& name,
                 OnDelete rule) {
  TablePtr const own = transaction.table(table.name);  // changes forget what else keeps it
  Column const& column = OwnColumn(transaction, *own, name);
  RequireReference(*own, column);
  if (rule == OnDelete::kKeep) {
    return Write(transaction, column.id, Kind::kOnDelete, std::nullopt);
  }
  Savepoint whole(transaction);
  RequireTargets(transaction, *own, column);
  RequireIndex(transaction, *own, column);
  Write(transaction, column.id, Kind::kOnDelete, std::string(OnDeleteName(rule)));
  whole.Release();
}

std::vector<Annotation> Annotations(Transaction& transaction) {
  auto const store = Store::Find(transaction);
  return store ? store->All() : std::vector<Annotation>();
}

void detail::DropStaleAnnotations(Transaction& transaction) {
  auto store = Store::Find(transaction);
  if (!store) return;
  for (Annotation const& each : store->All()) {
    if (!Object::Find(transaction, each.subject)) store->Write(each.subject, each.kind, {});
  }
}

}  // namespace sagleme

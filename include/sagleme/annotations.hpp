#ifndef SAGLEME_ANNOTATIONS_HPP
#define SAGLEME_ANNOTATIONS_HPP

// What the catalogue does not hold about tables, columns and indexes: comments, default values,
// tables without objects of their own, and what becomes of a reference when its target is deleted.
//
//   sagleme::TablePtr const order = transaction.table(u"Shop.Order");
//   sagleme::SetComment(transaction, *order, "What a customer has bought");
//   sagleme::SetDefault(transaction, *order, u"Open", true);
//   sagleme::SetOnDelete(transaction, *order, u"Customer", sagleme::OnDelete::kRefuse);
//
// Rules
//
//  1. An annotation belongs to the identity of its table, column or index: it stays through
//     renames and ends with what it belongs to. Those of a column belong to the table that declares
//     it and hold for all tables that inherit it; SAGLEME_COLUMN_INHERITED elsewhere. A table's
//     own, its comment and whether it is abstract, are not inherited.
//  2. They are rows of a table of the host library, made with the first annotation of a database;
//     it is listed among the system's tables only. A change of them belongs to its transaction.
//  3. The host library, the tool, SQL and Python keep defaults, abstract tables and rules of
//     references. The exported functions of the metadata layer know nothing of them; the check of
//     <sagleme/check.hpp> finds what went past them.
//  4. A transaction that creates or deletes objects conflicts with one that has changed annotations
//     since its snapshot. What is not seen: the first annotation of a database, by transactions
//     that are open by then; and by a transaction that annotates, objects that another one commits
//     meanwhile. The check finds those too.
//
// The rule of a reference says what happens when its target is deleted:
//
//   keep     nothing, which is the rule of a column without annotation: the reference leads nowhere
//   refuse   SAGLEME_OBJECT_REFERENCED, and nothing is deleted, unless what refers goes as well
//   set null the reference becomes null
//   cascade  the object that refers is deleted too, by the rules of the references to it
//   last     the reference becomes null. And the other way round: a target is deleted when the last
//            reference to it under this rule goes, because its object is deleted or refers to
//            another one. An object to which nothing ever referred stays
//
// A deletion with all that follows from it is done as a whole or not at all, whatever cycles the
// references form. Writing a reference under a rule writes its target too, so that of two
// transactions, one of which deletes what the other comes to refer to, only one commits. So do two
// that let references lead to the same target at the same time: the second gets LSCOREDB_CONFLICT.

#include <sagleme/export.h>

#include <optional>
#include <sagleme/host.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

enum class OnDelete : std::uint8_t { kKeep, kRefuse, kSetNull, kCascade, kLast };

// As documents and commands write it: keep, refuse, set_null, cascade, last.
SAGLEME_HOST_API std::string_view OnDeleteName(OnDelete rule);
// Nothing for a text that names no rule.
SAGLEME_HOST_API std::optional<OnDelete> ParseOnDelete(std::string_view name);

// Comments are UTF-8. An empty one removes the annotation, and is read where there is none.
SAGLEME_HOST_API std::string CommentOf(Transaction& transaction, Table const& table);
SAGLEME_HOST_API std::string CommentOf(Transaction& transaction, Table const& table,
                                       Column const& column);
SAGLEME_HOST_API std::string CommentOf(Transaction& transaction, Index const& index);
SAGLEME_HOST_API void SetComment(Transaction& transaction, Table const& table,
                                 std::string const& comment);
SAGLEME_HOST_API void SetComment(Transaction& transaction, Table const& table,
                                 TextView const& column, std::string const& comment);
SAGLEME_HOST_API void SetComment(Transaction& transaction, Index const& index,
                                 std::string const& comment);

// The value that a column of a new object has if nothing else is written; null for none.
SAGLEME_HOST_API Value DefaultOf(Transaction& transaction, Table const& table,
                                 Column const& column);
// Objects that are there keep their values. LSCOREDB_WRONG_TYPE if the value does not fit the
// column, and for references, which have no default.
SAGLEME_HOST_API void SetDefault(Transaction& transaction, Table const& table,
                                 TextView const& column, Value const& value);

// Whether a table has no objects of its own; descendants have theirs.
SAGLEME_HOST_API bool IsAbstract(Transaction& transaction, Table const& table);
// SAGLEME_TABLE_NOT_EMPTY, with their number, if it has objects.
SAGLEME_HOST_API void SetAbstract(Transaction& transaction, Table const& table, bool abstract);

SAGLEME_HOST_API OnDelete OnDeleteOf(Transaction& transaction, Table const& table,
                                     Column const& column);
// Creates an index on the column if none begins with it, to find references by their target.
// Reads the references of all objects: LORV_STATUS_NO_OBJECT if one leads nowhere, unless the rule
// is to keep them. LSCOREDB_WRONG_TYPE if the column is no reference.
SAGLEME_HOST_API void SetOnDelete(Transaction& transaction, Table const& table,
                                  TextView const& column, OnDelete rule);

// The objects whose column, a reference, leads to the target: through an index that begins with the
// column, or by a scan of the table and its descendants if there is none.
SAGLEME_HOST_API std::vector<Object> Referrers(Transaction& transaction, ObjectId target,
                                               Table const& table, TextView const& column);

// Deletes objects as Object::Delete does, but as one deletion: what refers to one of them and is
// among them itself does not refuse. Returns how many objects went, with those that followed.
// LORV_STATUS_NO_OBJECT or LORV_STATUS_UNREACHABLE if one is not there.
SAGLEME_HOST_API std::uint64_t DeleteObjects(Transaction& transaction,
                                             std::span<ObjectId const> ids);

// One annotation as it is kept.
struct Annotation {
  enum class Kind : std::uint8_t { kComment = 1, kDefault = 2, kAbstract = 3, kOnDelete = 4 };

  ObjectId subject;  // the catalogue's row of the table, column or index
  Kind kind = Kind::kComment;
  std::string text;  // a comment; a default as JSON; the name of a rule
};

// All annotations, by subject, also of what is no longer there.
SAGLEME_HOST_API std::vector<Annotation> Annotations(Transaction& transaction);

}  // namespace sagleme

#endif

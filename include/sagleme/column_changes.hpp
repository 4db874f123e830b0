#ifndef SAGLEME_COLUMN_CHANGES_HPP
#define SAGLEME_COLUMN_CHANGES_HPP

// Columns that move up or down the tree of tables, or take another type, with their values.
//
//   sagleme::PullUpColumn(transaction, u"Library.Book", u"Title", u"Library.Item");
//   sagleme::PushDownColumn(transaction, u"Library.Item", u"Pages", {u"Library.Book"});
//   sagleme::ChangeColumnType(transaction, u"Library.Item", {u"Year", sagleme::Type::kLong});
//
// Each belongs to the given transaction, and leaves nothing behind when it throws. No index,
// reference column or mapped property holds a column: they follow it. Names are full names.
//
// Where the stored form of a value stays, no object is touched: a column that moves to one table, a
// reference with another target. A column that becomes nullable gets the zeros that nobody wrote.
// Elsewhere each object with a value is written once, and the indexes on the column are built anew.
// Objects under superseded layouts wait for vacuum, as after AddColumns.
//
// The commit gives LSCOREDB_CONFLICT if others changed an object meanwhile whose value was looked
// at, or made a new one in its table.
//
// A value converts if the new type holds exactly it. Values that do not are listed before anything
// changes, and the change is refused, unless it may lose: then a number becomes the nearest one
// that the type holds, and anything else null, or zero where the column is not nullable.
//
//   from \ to   string  number  bool  binary  reference
//   string        =       p      p      p        i
//   number        t       n      b      -        i
//   bool          t       n      =      -        -
//   binary        t       -      -      =        -
//   reference     t       n      -      -        r
//
//   =  every value                           t  every value, as the text that ValueText writes
//   n  a number that the type holds          p  a text that ParseValue reads as the type
//   b  0 and 1                               i  the id of an object of the target; no real number
//   r  a reference to an object of the       -  none
//      target, or to none that exists
//
// Numbers are long, ulong, key, decimal, float and double; those of a bool are 0 and 1, and that of
// a reference is the object's id. Null stays null; a column that shall not be nullable refuses it.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <sagleme/host.hpp>
#include <sagleme/jobs.hpp>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace sagleme {

enum class Loss : bool { kRefuse, kAllow };

// What becomes of the values of one type as another.
enum class Conversion {
  kNone,  // no value converts
  kSome,  // those that the new type holds
  kAll,   // every value
};
SAGLEME_HOST_API Conversion ConversionOf(Type from, Type to);

// A value that a change would lose.
struct LostValue {
  ObjectId object;
  std::u16string table;  // the object's
  Value value;
  Value instead;  // what the object would have in its place
};

struct LostValues {
  std::uint64_t count = 0;
  std::vector<LostValue> first;  // as many as were asked for, ordered by table
};

// Makes a column of `table` one of `base`, any of its ancestors. Derived tables of `base` that
// declare an equal column (name, type, nullable and target) lose theirs to it, with the values
// kept.
//
// SAGLEME_NO_SUCH_COLUMN, SAGLEME_COLUMN_INHERITED: `table` does not declare it.
// SAGLEME_BAD_ARGUMENT: `base` is no ancestor, is a table of the catalogue, or a table would have
// too many columns. SAGLEME_COLUMN_NAME_TAKEN: another derived table has a column of this name that
// is not equal.
SAGLEME_HOST_API void PullUpColumn(Transaction& transaction, Text const& table, Text const& column,
                                   Text const& base);

// Makes a column of `table` one of each of `tables`, which derive from it and not from one another.
// An index on the column of a table that loses it becomes one of the first of `tables` below that
// table; the others get equal ones, named INDEX_TABLE. Without any below, the index goes.
//
// LSCOREDB_WRONG_TYPE with a list if objects outside of `tables` have a value and `loss` refuses
// it. SAGLEME_BAD_ARGUMENT: no tables, one that does not derive from `table`, or one that derives
// from another.
SAGLEME_HOST_API void PushDownColumn(Transaction& transaction, Text const& table,
                                     Text const& column, std::span<Text const> tables,
                                     Loss loss = Loss::kRefuse);
inline void PushDownColumn(Transaction& transaction, Text const& table, Text const& column,
                           std::initializer_list<Text> tables, Loss loss = Loss::kRefuse) {
  PushDownColumn(transaction, table, column, std::span(tables.begin(), tables.size()), loss);
}

// Gives the column of that name the given type, nullability and target, by the table above. An
// equal definition changes nothing. A column whose stored form changes gets a new identity in the
// catalogue.
//
// LSCOREDB_WRONG_TYPE: no value of the type converts, or some do not and `loss` refuses it; the
// text lists the first of them. LSCOREDB_DUPLICATE_KEY: two values become equal, and a unique
// index has the column. SAGLEME_COLUMN_NOT_NULLABLE: the type has no form without null.
// SAGLEME_BAD_ARGUMENT: a key that takes no null. SAGLEME_TARGET_NOT_FOUND.
SAGLEME_HOST_API void ChangeColumnType(Transaction& transaction, Text const& table,
                                       ColumnSpec const& column, Loss loss = Loss::kRefuse);

// ---- in batches ---------------------------------------------------------------------------------
//
// The same changes of tables with many objects, in bounded transactions of their own in the given
// context, which must have none open. Batches write the new values into hidden columns beside the
// old ones; readers and writers see nothing of it. One last transaction makes the change: it reads
// all objects and writes only what others changed meanwhile, and indexes on the column are built
// in it. If it conflicts with writers, the values of those are written in a batch, and it is tried
// again.
//
// A change of more than one batch is a job (<sagleme/jobs.hpp>). One that is cut off, even by the
// death of the process, leaves the hidden columns. ResumeJob or the same call again continues, any
// of the functions above uses them, and AbandonJob or AbandonColumnChange removes them.

struct ColumnChangeProgress {
  std::uint64_t done = 0;       // values written
  std::uint64_t total = 0;      // as far as known; grows with what others write
  std::uint64_t conflicts = 0;  // transactions that were tried again
};

struct ColumnChangeOptions {
  Loss loss = Loss::kRefuse;
  std::uint32_t batch = 1000;          // objects in a transaction, at least 1
  std::chrono::milliseconds pause{0};  // between batches
  std::uint32_t attempts = 1000;       // per transaction, before the conflict is reported
  // Called after each committed batch; false abandons the change.
  std::function<bool(ColumnChangeProgress const&)> report;
  // May stop the change, which then can be resumed or abandoned.
  JobControl const* control = nullptr;
};

// Each returns whether the change was made; otherwise `report` abandoned it, and nothing of it is
// left, or `control` stopped it. LSCOREDB_IN_USE: somebody else makes the same change. They throw
// what the function of one transaction throws, where possible before the first batch.
SAGLEME_HOST_API bool RunPullUpColumn(Context const& context, Text const& table, Text const& column,
                                      Text const& base, ColumnChangeOptions const& options = {});
SAGLEME_HOST_API bool RunPushDownColumn(Context const& context, Text const& table,
                                        Text const& column, std::span<Text const> tables,
                                        ColumnChangeOptions const& options = {});
SAGLEME_HOST_API bool RunChangeColumnType(Context const& context, Text const& table,
                                          ColumnSpec const& column,
                                          ColumnChangeOptions const& options = {});

// Removes what a job for a column of that name left in the table and its descendants.
SAGLEME_HOST_API void AbandonColumnChange(Transaction& transaction, Text const& table,
                                          Text const& column);

// ---- what would be lost -------------------------------------------------------------------------

// What PushDownColumn and ChangeColumnType would lose, with the first `limit` values. They throw
// what those throw, except for the refusal of losses.
SAGLEME_HOST_API LostValues FindLost(Transaction& transaction, Text const& table,
                                     Text const& column, std::span<Text const> tables,
                                     std::size_t limit = 100);
SAGLEME_HOST_API LostValues FindUnconvertible(Transaction& transaction, Text const& table,
                                              ColumnSpec const& column, std::size_t limit = 100);

// The default that ChangeColumnType would leave the column; null if it has none, or one that the
// new type does not hold. Throws what that throws of a request that cannot be met.
SAGLEME_HOST_API Value DefaultAfter(Transaction& transaction, Text const& table,
                                    ColumnSpec const& column);

// Throw the LSCOREDB_WRONG_TYPE of those functions if they would lose a value.
SAGLEME_HOST_API void RequireNoneLost(Transaction& transaction, Text const& table,
                                      Text const& column, std::span<Text const> tables);
SAGLEME_HOST_API void RequireConvertible(Transaction& transaction, Text const& table,
                                         ColumnSpec const& column);

}  // namespace sagleme

#endif

#ifndef SAGLEME_TESTS_MODEL_MODEL_H
#define SAGLEME_TESTS_MODEL_MODEL_H

// A database as it should be: tables, columns, indexes, classes and objects in plain containers.
//
// The model knows no database. Rows have numbers of its own that rise in the order in which the
// layer writes the rows of one kind, which is the order in which non-unique indexes give them back.
// Copying a model is how a transaction is remembered. One thread.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace sagleme_model {

using Uid = std::uint64_t;
using Text = std::u16string;

// Logical types.
enum Type : std::uint8_t {
  kString = 1,
  kBinary = 2,
  kLong = 3,
  kULong = 4,
  kDecimal = 5,
  kFloat = 6,
  kDouble = 7,
  kReference = 8,
  kKey = 9,
  kBool = 10,
};

bool MustBeNullable(std::uint8_t type);

struct Reference {
  Uid target;
  auto operator<=>(Reference const&) const = default;
};

// monostate is null. Bool columns hold an unsigned 0 or 1.
using Value = std::variant<std::monostate, std::int64_t, std::uint64_t, float, double, Text,
                           std::string, Reference>;

bool IsNull(Value const& value);
Value ZeroOf(std::uint8_t type);

// The failure that a call must report, and whether it must leave everything as it was.
struct Failure {
  std::uint32_t status;
  Text text;
};

struct Column {
  Uid row = 0;
  Uid declared = 0;  // the row of the table that declares it; its own unless inherited
  Text name;
  std::uint8_t type = 0;
  bool nullable = false;
  Uid target = 0;  // the table that a reference column's type row names; 0: deferred
  Text target_name;

  bool inherited() const { return row != declared; }
  bool deferred() const { return type == kReference && target == 0; }
};

struct Table {
  Uid row = 0;
  Uid base = 0;
  Text name;
  Text layout_name;  // the name that it was created with
  Text setspec;
  std::uint64_t type_id = 0;
  std::vector<Column> columns;  // ordinals are positions

  Column const* FindColumn(Text const& column) const;
  std::size_t OrdinalOf(Uid declared) const;
};

struct SetspecRow {
  Uid table = 0;
  std::uint64_t next_child = 0;
};

// A row of Vacuum. The layout is identified by its columns.
struct Request {
  unsigned kind = 0;  // 1: move, 2: delete
  Text layout_name;
  std::size_t columns = 0;
};

struct IndexColumn {
  Uid row = 0;       // the row in the table of the index
  Uid declared = 0;  // what the kernel knows the column by
  bool ascending = true;
};

struct Index {
  Uid row = 0;
  Text name;
  Uid table = 0;
  Text setspec;
  bool unique = false;
  std::vector<IndexColumn> columns;
};

struct Class {
  Uid row = 0;
  Text name;
  Uid mapper = 0;
};

struct Mapping {
  Uid row = 0;
  Text name;
  Uid class_row = 0;
  Uid column_row = 0;
};

struct Object {
  Uid row = 0;
  Uid table = 0;
  Text setspec;
  std::map<Uid, Value> values;  // by declared column; what is not here was never written

  Value ValueOf(Uid declared) const;
};

class Model {
 public:
  static constexpr Uid kRoot = 1;

  // A database behind its bootstrap.
  Model();

  // ---- what there is
  std::map<Uid, Table> tables;  // the root of all tables among them
  std::map<Text, SetspecRow> setspecs;
  std::map<Text, Request> requests;
  std::map<Uid, Index> indexes;
  std::map<Uid, Class> classes;
  std::map<Uid, Mapping> mappings;
  std::map<Uid, Object> objects;
  std::map<std::uint64_t, Uid> type_ids;
  std::set<Uid> deleted_objects;
  std::uint64_t generation = 0;

  // ---- questions
  Table const* FindTable(Text const& name) const;
  Index const* FindIndex(Text const& name) const;
  std::vector<Uid> ChildrenOf(Uid table) const;
  std::vector<Uid> SubtreeOf(Uid table) const;  // itself first
  bool IsUnder(Uid table, Uid ancestor) const;  // or the same
  // Reference columns of all tables, or those whose type names `target`, in row order.
  std::vector<std::pair<Uid, Column const*>> ReferenceColumns() const;
  std::vector<std::pair<Uid, Column const*>> ReferenceColumnsTo(Uid target) const;
  // The table meant by a name in reading order that may lack leading segments.
  Uid Resolve(Text const& dotted) const;
  // Objects whose set specifier begins with one, in row order.
  std::vector<Object const*> ObjectsUnder(Text const& setspec) const;
  // The values that an index orders an object by.
  std::vector<Value> KeyOf(Index const& index, Object const& object) const;
  // Nothing else is in a unique index under the object's key.
  bool KeysAreFree(Object const& object) const;
  bool KeyIsFree(Index const& index, Object const& object) const;
  // Calls that end the process for a reference column without a type row must not be made.
  bool HasDeferredOwnColumn(Uid table, Uid except_declared = 0) const;

  // ---- changes
  Uid NextRow() { return ++last_row_; }
  // Rows are written from here on: a failure leaves a part of the change behind.
  void Write() { written_ = true; }
  bool written() const { return written_; }
  void BeginOperation() { written_ = false; }
  // Takes the row numbers on, so that no row of a transaction that was rolled back shares its
  // number with a later one.
  void SkipRowsOf(Model const& other) { last_row_ = other.last_row_; }
  void Commit() { dropped_now_.clear(); }

  Table& table(Uid row) { return tables.at(row); }
  Table const& table(Uid row) const { return tables.at(row); }
  void TakeTableOut(Uid table);  // with its columns
  void ForgetColumn(Uid declared);
  void RequestMove(Table const& table);
  void RequestDelete(Table const& table);
  // The failure of a column whose type names a table that is gone; nothing when it is there.
  void CheckType(Column const& column) const;

 private:
  Uid last_row_ = kRoot;
  bool written_ = false;
  std::set<Uid> dropped_now_;  // tables, by the transaction that is open
};

// The forms of a name.
std::vector<Text> SplitName(Text const& name);
Text ReversedUid(Text const& full_name);
// Full names of the tables that every database has.
std::vector<Text> const& SystemTableNames();

// The text of child number `n`, in bijective base 23.
Text ChildLetters(std::uint64_t n);

inline constexpr char16_t kRootName[] = u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts";

}  // namespace sagleme_model

#endif

#ifndef SAGLEME_SQL_SCHEMA_H
#define SAGLEME_SQL_SCHEMA_H

// The tables of a database as SQL sees them, at one generation of its schema.
//
// A schema is immutable and shared by all connections of the process.

#include <map>
#include <memory>
#include <sagleme/host.hpp>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace sagleme::sql {

struct ShapeColumn {
  std::string name;  // unique in its table also where case does not count
  Type type = Type::kString;
  std::uint16_t ordinal = 0;
  bool nullable = true;
  bool has_default = false;
};

// An index that covers the objects of a table, declared by it or by a table above it.
struct ShapeIndex {
  struct Part {
    int column = 0;  // its position in Shape::columns, -1 for one that SQL does not show
    Type type = Type::kString;
    bool ascending = true;
  };
  std::string name;
  std::uint64_t handle = 0;
  bool unique = false;
  bool own = false;  // false: it also holds objects outside of the table's subtree
  std::vector<Part> parts;
};

// Columns that every table has beside those declared, hidden from `*`.
enum class Hidden { kId, kTable, kVersion };

// One table. The columns that SQLite knows are `columns` and then `hidden`.
struct Shape {
  TablePtr table;
  bool only = false;  // without the tables derived from it
  bool leaf = false;  // there are none
  std::vector<ShapeColumn> columns;
  std::vector<Hidden> hidden;
  std::vector<ShapeIndex> indexes;
  std::vector<std::uint64_t> layout_tokens;  // of the tables whose objects it holds
  std::string declaration;                   // for sqlite3_declare_vtab

  ShapeColumn const* FindColumn(std::string_view name) const;
  // Null for a hidden column.
  ShapeColumn const* ColumnAt(int column) const {
    auto const at = static_cast<std::size_t>(column);
    return column >= 0 && at < columns.size() ? &columns[at] : nullptr;
  }
  bool IsHidden(int column, Hidden which) const {
    auto const at = static_cast<std::size_t>(column) - columns.size();
    return column >= 0 && static_cast<std::size_t>(column) >= columns.size() &&
           at < hidden.size() && hidden[at] == which;
  }
  bool IsId(int column) const { return column < 0 || IsHidden(column, Hidden::kId); }
};
using ShapePtr = std::shared_ptr<Shape const>;

// Orders names as SQLite does: letters of ASCII without their case.
struct NameLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const;
};

struct Entry {
  ShapePtr shape;
  bool listed = false;  // shown by clients that list tables
};

class Schema {
 public:
  static std::shared_ptr<Schema const> Read(Transaction& transaction);

  std::uint64_t generation() const { return generation_; }
  // Every name that SQL can call a table by.
  std::map<std::string, Entry, NameLess> const& entries() const { return entries_; }
  // Null if there is none.
  Entry const* Find(std::string_view name) const;
  // The table of objects with that set specifier; null if it was dropped.
  TablePtr BySetspec(std::u16string_view setspec) const;
  ShapePtr const& ShapeOf(Table const& table) const { return shapes_.at(table.row.oid); }
  // Whether layouts with that token are of a table that was not dropped.
  bool HasLayoutToken(std::uint64_t token) const { return layout_tokens_.contains(token); }
  // The shortest name by which SQL knows a table.
  std::string NameOf(Table const& table) const;

 private:
  Schema() = default;
  void AddTable(TablePtr const& table, std::string const& name, ShapePtr const& whole,
                ShapePtr const& only);

  std::uint64_t generation_ = 0;
  std::map<std::string, Entry, NameLess> entries_;
  std::map<std::u16string, TablePtr, std::less<>> by_setspec_;
  std::map<std::uint64_t, ShapePtr> shapes_;    // by the catalogue's row
  std::map<std::uint64_t, std::string> names_;  // likewise
  std::unordered_set<std::uint64_t> layout_tokens_;
};
using SchemaPtr = std::shared_ptr<Schema const>;

// A name between double quotes.
std::string Quoted(std::string_view name);

}  // namespace sagleme::sql

#endif

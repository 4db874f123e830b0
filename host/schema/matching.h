#ifndef SAGLEME_HOST_SCHEMA_MATCHING_H
#define SAGLEME_HOST_SCHEMA_MATCHING_H

// Which tables, columns and indexes of one schema are the same ones in another.

#include <map>
#include <sagleme/schema_plan.hpp>
#include <set>
#include <string>

#include "schema/doubts.h"
#include "schema/moves.h"

namespace sagleme {

// What is kept, by its present and its new name. A table is kept unless its new base takes the name
// of a dropped table; a column if its table or one of its line is, and its values convert; an index
// if it is unchanged, apart from renamed columns. Everything else is dropped and created.
class Matching {
 public:
  // Throws Failure with kUsage if two entries of `to` claim the same table or column.
  Matching(SchemaDoc const& from, SchemaDoc const& to);

  // Null if it is not kept. Names and entries of `from` give entries of `to`, and vice versa.
  TableDoc const* NewTable(std::string const& old_name) const {
    return Find(new_tables_, old_name);
  }
  TableDoc const* OldTable(std::string const& new_name) const {
    return Find(old_tables_, new_name);
  }
  ColumnDoc const* NewColumn(ColumnDoc const& column) const { return Find(new_columns_, &column); }
  ColumnDoc const* OldColumn(ColumnDoc const& column) const { return Find(old_columns_, &column); }
  // Columns that stay, but in other tables. All others that stay do so in their table.
  Moves const& moves() const { return moves_; }
  bool IsMoved(ColumnDoc const& column) const { return moved_.contains(&column); }
  // Whether a column's definition is that of another one by its new names.
  bool ShapeStays(ColumnDoc const& before, ColumnDoc const& after) const;
  bool KeepsIndex(std::string const& index) const { return indexes_.contains(index); }
  // What could be kept, but is dropped and created as the document stands.
  std::vector<Doubt> const& doubts() const { return doubts_; }

 private:
  template <typename Key, typename Value>
  static Value const* Find(std::map<Key, Value const*> const& map, Key const& key) {
    auto const found = map.find(key);
    return found == map.end() ? nullptr : found->second;
  }

  Pairs<TableDoc> ClaimTables();
  void DropUnlessBaseIsThere();
  bool BaseIsThere(TableDoc const& after) const;
  bool BaseStays(TableDoc const& before, TableDoc const& after) const;
  void MatchColumns(TableDoc const& before, TableDoc const& after);
  void MatchMoves();
  void DoubtColumnsOf(TableDoc const& before, TableDoc const& after);
  void Keep(ColumnDoc const& before, ColumnDoc const& after);
  bool Converts(ColumnDoc const& before, ColumnDoc const& after) const;
  bool IndexStays(TableDoc const& table, IndexDoc const& before, IndexDoc const& after) const;
  std::string NewNameOfColumn(TableDoc const& table, std::string const& column) const;
  void MatchIndexes();

  SchemaDoc const& from_;
  SchemaDoc const& to_;
  bool identities_;
  std::map<std::string, TableDoc const*> new_tables_;  // by their name in `from`
  std::map<std::string, TableDoc const*> old_tables_;  // by their name in `to`
  std::map<ColumnDoc const*, ColumnDoc const*> new_columns_;
  std::map<ColumnDoc const*, ColumnDoc const*> old_columns_;
  std::map<TableDoc const*, Pairs<ColumnDoc>> paired_columns_;  // by the table in `to`
  Moves moves_;
  std::set<ColumnDoc const*> moved_;
  std::set<std::string> indexes_;
  std::vector<Doubt> doubts_;
};

}  // namespace sagleme

#endif

#include "schema/moves.h"

#include <algorithm>

namespace sagleme {
namespace {

bool IsBelow(SchemaDoc const& schema, TableDoc const& table, TableDoc const& base) {
  for (TableDoc const* at = schema.Find(table.base); at != nullptr; at = schema.Find(at->base)) {
    if (at == &base) return true;
  }
  return false;
}

class Search {
 public:
  Search(SchemaDoc const& from, SchemaDoc const& to, StayingEntries const& staying)
      : to_(to), staying_(staying) {
    for (TableDoc const& table : from.tables) {
      TableDoc const* const after = staying.new_table(table.name);
      if (after == nullptr) continue;
      kept_.insert(after);
      Gather(table, gone_);
    }
    for (TableDoc const& table : to.tables) Gather(table, come_);
  }

  Moves Run() {
    for (Declaration const& each : gone_) PushDown(each);
    for (Declaration const& each : come_) PullUp(each);
    return std::move(moves_);
  }

 private:
  void Gather(TableDoc const& table, std::vector<Declaration>& unpaired) const {
    for (ColumnDoc const& column : table.columns) {
      if (!staying_.is_paired(column)) unpaired.push_back({&table, &column});
    }
  }

  bool IsSame(ColumnDoc const& before, ColumnDoc const& after) const {
    if (after.is_new || !staying_.fits(before, after)) return false;
    if (HasIdOfGone(after)) return before.id == after.id || before.name == after.name;
    return before.name == (after.was.empty() ? after.name : after.was);
  }
  bool HasIdOfGone(ColumnDoc const& after) const {
    return staying_.identities && after.id != 0 &&
           std::any_of(gone_.begin(), gone_.end(),
                       [&](Declaration const& each) { return each.column->id == after.id; });
  }

  TableDoc const& After(Declaration const& gone) const {
    return *staying_.new_table(gone.table->name);
  }

  // All columns of the name below the table must come from there; another one could not be made
  // before this one has left, and it leaves only to tables that exist.
  void PushDown(Declaration const& gone) {
    std::string const& name = gone.column->name;
    if (staying_.new_names.contains(name)) return;
    PushedDown move{gone, {}};
    for (TableDoc const& table : to_.tables) {
      ColumnDoc const* const column = table.FindColumn(name);
      if (column == nullptr || !IsBelow(to_, table, After(gone))) continue;
      if (staying_.is_paired(*column) || !IsSame(*gone.column, *column)) return;
      if (HasIdOfGone(*column) && column->id != gone.column->id) return;
      move.to.push_back({&table, column});
    }
    if (move.to.empty()) return;
    for (Declaration const& each : move.to) used_.insert(each.column);
    used_.insert(gone.column);
    moves_.down.push_back(std::move(move));
  }

  bool IsNameFree(TableDoc const& base, std::string const& name) const {
    return std::none_of(to_.tables.begin(), to_.tables.end(), [&](TableDoc const& table) {
      bool const in_line =
          &table == &base || IsBelow(to_, table, base) || IsBelow(to_, base, table);
      return in_line && table.FindColumn(name) != nullptr;
    });
  }

  void PullUp(Declaration const& come) {
    if (used_.contains(come.column) || !kept_.contains(come.table)) return;
    PulledUp move{come, {}};
    for (Declaration const& each : gone_) {
      if (used_.contains(each.column) || !IsSame(*each.column, *come.column)) continue;
      if (IsBelow(to_, After(each), *come.table)) move.from.push_back(each);
    }
    KeepEqual(move);
    if (move.from.empty() || !MayMove(move)) return;
    for (Declaration const& each : move.from) used_.insert(each.column);
    moves_.up.push_back(std::move(move));
  }

  // The one with the identity first, and those that are equal to it.
  static void KeepEqual(PulledUp& move) {
    std::stable_partition(move.from.begin(), move.from.end(), [&](Declaration const& each) {
      return each.column->id == move.to.column->id;
    });
    std::erase_if(move.from, [&](Declaration const& each) {
      ColumnDoc const& first = *move.from[0].column;
      return each.column->name != first.name || !each.column->SameShape(first);
    });
  }

  bool MayMove(PulledUp const& move) const {
    std::string const& name = move.from[0].column->name;
    if (staying_.new_names.contains(name)) return false;
    return name == move.to.column->name || IsNameFree(*move.to.table, name);
  }

  SchemaDoc const& to_;
  StayingEntries const& staying_;
  std::set<TableDoc const*> kept_;  // of `to`
  std::vector<Declaration> gone_;
  std::vector<Declaration> come_;
  std::set<ColumnDoc const*> used_;
  Moves moves_;
};

}  // namespace

Moves FindMoves(SchemaDoc const& from, SchemaDoc const& to, StayingEntries const& staying) {
  return Search(from, to, staying).Run();
}

}  // namespace sagleme

#include "schema/table_moves.h"

#include <algorithm>
#include <set>

namespace sagleme {
namespace {

class Mover {
 public:
  Mover(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept) : to_(to), kept_(kept) {
    moves_.schema = from;
  }

  TableMoves Make() {
    for (TableDoc const& table : to_.tables) Place(table);
    Sort();
    return std::move(moves_);
  }

 private:
  // The present name of a table of the new schema; its own for one that is not there.
  std::string Present(std::string const& name) const {
    TableDoc const* const old_table = to_.Find(name) == nullptr ? nullptr : kept_.OldTable(name);
    return old_table == nullptr ? name : old_table->name;
  }
  TableDoc& Table(std::string const& name) {
    return *std::find_if(moves_.schema.tables.begin(), moves_.schema.tables.end(),
                         [&name](TableDoc const& table) { return table.name == name; });
  }

  // A table's base first. Then no table comes under one that derives from it.
  void Place(TableDoc const& table) {
    if (!placed_.insert(table.name).second) return;
    TableDoc const* const base = to_.Find(table.base);
    if (base != nullptr) Place(*base);
    TableDoc const* const old_table = kept_.OldTable(table.name);
    if (old_table == nullptr) return;
    std::string const new_base = Present(table.base);
    if (old_table->base == new_base) return;
    if (base != nullptr) CreateIfNew(*base);
    MakeRoom(table, new_base);
    Fit(old_table->name, Ancestors(new_base));
    moves_.plan.push_back(change::SetBase{old_table->name, new_base});
    Move(Table(old_table->name), new_base);
  }

  void CreateIfNew(TableDoc const& table) {
    if (kept_.OldTable(table.name) != nullptr || moves_.schema.Find(table.name) != nullptr) return;
    if (TableDoc const* const base = to_.Find(table.base)) CreateIfNew(*base);
    TableDoc made = table;
    made.base = Present(table.base);
    made.indexes.clear();
    std::vector<std::string> const bases = Ancestors(made.base);
    std::erase_if(made.columns, [&](ColumnDoc const& column) {
      if (Inherited(bases, column.name) != nullptr) return true;  // it comes down from there
      if (IsBroughtAlong(table, column)) return true;
      return to_.Find(column.target) != nullptr && kept_.OldTable(column.target) == nullptr;
    });
    for (ColumnDoc& column : made.columns) column.target = Present(column.target);
    moves_.plan.push_back(change::CreateTable{made});
    moves_.schema.tables.push_back(std::move(made));
  }

  std::vector<std::string> Ancestors(std::string const& table) const {
    std::vector<std::string> names;
    for (TableDoc const* at = moves_.schema.Find(table); at != nullptr;
         at = moves_.schema.Find(at->base)) {
      names.push_back(at->name);
    }
    return names;
  }

  // Whether a table that comes under the new one has another column of that name from its present
  // bases, which cannot be fitted there: it goes up, and takes its new shape, afterwards.
  bool IsBroughtAlong(TableDoc const& made, ColumnDoc const& column) const {
    return std::any_of(to_.tables.begin(), to_.tables.end(), [&](TableDoc const& table) {
      TableDoc const* const old_table = kept_.OldTable(table.name);
      if (old_table == nullptr || !DerivesFrom(to_, table, made)) return false;
      ColumnDoc const* const other = Inherited(Ancestors(old_table->base), column.name);
      return other != nullptr && !other->SameShape(column);
    });
  }
  static bool DerivesFrom(SchemaDoc const& schema, TableDoc const& table, TableDoc const& base) {
    for (auto* at = schema.Find(table.base); at != nullptr; at = schema.Find(at->base)) {
      if (at->name == base.name) return true;
    }
    return false;
  }

  // The column of that name in one of the bases; null if none has it.
  ColumnDoc const* Inherited(std::vector<std::string> const& bases, std::string const& name) const {
    for (std::string const& base : bases) {
      if (ColumnDoc const* const column = moves_.schema.Find(base)->FindColumn(name)) return column;
    }
    return nullptr;
  }

  static bool Has(TableDoc const& table, ColumnDoc const& column) {
    return std::any_of(table.columns.begin(), table.columns.end(), [&](ColumnDoc const& each) {
      return each.name == column.name || (each.id != 0 && each.id == column.id);
    });
  }
  // A column that the new base shall not have, but the table: once merged, it could not stay. Or
  // the table brings another one of that name along.
  void MakeRoom(TableDoc const& table, std::string const& new_base) {
    std::vector<std::string> const old_bases = Ancestors(Table(Present(table.name)).base);
    for (std::string const& name : Ancestors(new_base)) {
      TableDoc const* const wanted = kept_.NewTable(name);
      if (wanted == nullptr || Contains(old_bases, name)) continue;
      std::erase_if(Table(name).columns, [&](ColumnDoc const& column) {
        if (Has(*wanted, column)) return false;
        ColumnDoc const* const brought = Inherited(old_bases, column.name);
        bool const in_the_way = brought != nullptr && !brought->SameShape(column);
        if (!in_the_way && !KeepsBelow(Present(table.name), column.name)) {
          if (table.FindColumn(column.name) == nullptr) return false;
        }
        moves_.plan.push_back(change::DropColumn{name, column.name, column.on_delete});
        return true;
      });
    }
  }
  // Whether a table below has a column of that name that it shall keep.
  bool KeepsBelow(std::string const& name, std::string const& column) const {
    auto const& tables = moves_.schema.tables;
    return std::any_of(tables.begin(), tables.end(), [&](TableDoc const& child) {
      if (child.base != name) return false;
      TableDoc const* const wanted = kept_.NewTable(child.name);
      bool const keeps = wanted != nullptr && wanted->FindColumn(column) != nullptr &&
                         child.FindColumn(column) != nullptr;
      return keeps || KeepsBelow(child.name, column);
    });
  }
  static bool Contains(std::vector<std::string> const& names, std::string const& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  }

  static bool IsRenamed(TableDoc const* table, ColumnDoc const& column) {
    return table != nullptr &&
           std::any_of(table->columns.begin(), table->columns.end(), [&](ColumnDoc const& each) {
             bool const same = each.id != 0 ? each.id == column.id : each.was == column.name;
             return same && each.name != column.name;
           });
  }

  // Columns of the table and its descendants become of the shape of those that the new bases have
  // under their names, so that they can be merged; they go if no value of theirs converts.
  void Fit(std::string const& name, std::vector<std::string> const& bases) {
    std::erase_if(Table(name).columns, [&](ColumnDoc& column) {
      ColumnDoc const* const same = Inherited(bases, column.name);
      if (same == nullptr || same->SameShape(column)) return false;
      if (IsRenamed(kept_.NewTable(name), column)) return false;
      if (ConversionOf(column.type, same->type) == Conversion::kNone) {
        moves_.plan.push_back(change::DropColumn{name, column.name, column.on_delete});
        return true;
      }
      ColumnDoc after = column;
      after.type = same->type;
      after.nullable = same->nullable;
      after.target = same->target;
      moves_.plan.push_back(change::ChangeColumn{name, column, after});
      column = std::move(after);
      return false;
    });
    for (TableDoc const& child : moves_.schema.tables) {
      if (child.base == name) Fit(child.name, bases);
    }
  }

  // What SetBase does to the columns.
  void Move(TableDoc& table, std::string const& new_base) {
    std::vector<std::string> const before = Ancestors(table.base);
    std::vector<std::string> const after = Ancestors(new_base);
    std::vector<ColumnDoc> columns;
    for (auto name = before.rbegin(); name != before.rend(); ++name) {
      if (Contains(after, *name)) continue;
      auto const& declared = moves_.schema.Find(*name)->columns;
      columns.insert(columns.end(), declared.begin(), declared.end());
    }
    columns.insert(columns.end(), table.columns.begin(), table.columns.end());
    table.columns = std::move(columns);
    table.base = new_base;
    Merge(table, after);
  }
  void Merge(TableDoc& table, std::vector<std::string> const& bases) {
    std::erase_if(table.columns, [&](ColumnDoc const& column) {
      return std::any_of(bases.begin(), bases.end(), [&](std::string const& base) {
        ColumnDoc const* const same = moves_.schema.Find(base)->FindColumn(column.name);
        return same != nullptr && same->SameShape(column);
      });
    });
    for (TableDoc& child : moves_.schema.tables) {
      if (child.base == table.name) Merge(child, bases);
    }
  }

  // Bases come first, as in every schema that is read.
  void Sort() {
    std::vector<TableDoc> sorted;
    std::set<std::string> done;
    std::vector<TableDoc>& tables = moves_.schema.tables;
    while (sorted.size() < tables.size()) {
      for (TableDoc const& table : tables) {
        bool const ready = moves_.schema.Find(table.base) == nullptr || done.contains(table.base);
        if (ready && !done.contains(table.name)) {
          done.insert(table.name);
          sorted.push_back(table);
        }
      }
    }
    tables = std::move(sorted);
  }

  SchemaDoc const& to_;
  Matching const& kept_;
  TableMoves moves_;
  std::set<std::string> placed_;
};

}  // namespace

TableMoves MoveTables(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept) {
  return Mover(from, to, kept).Make();
}

}  // namespace sagleme

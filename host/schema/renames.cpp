#include "schema/renames.h"

#include <algorithm>

namespace sagleme {
namespace {

// Something with a name that may have to change. Names collide inside a scope.
struct Named {
  std::string now;
  std::string wanted;
  std::string table;  // of a column, its new name
};

template <typename Collide, typename Emit>
class Ordering {
 public:
  Ordering(std::vector<Named> entries, Collide collide, Emit emit)
      : entries_(std::move(entries)), collide_(std::move(collide)), emit_(std::move(emit)) {}

  void Run() {
    while (true) {
      bool const moved = MoveFree();
      auto const waiting = std::find_if(entries_.begin(), entries_.end(),
                                        [](Named const& each) { return each.now != each.wanted; });
      if (waiting == entries_.end()) return;
      if (!moved) Move(*waiting, Aside(*waiting));
    }
  }

 private:
  bool Taken(Named const& entry, std::string const& name) const {
    return std::any_of(entries_.begin(), entries_.end(), [&](Named const& other) {
      return &other != &entry && other.now == name && collide_(entry, other);
    });
  }
  // Makes all renames to free names; returns whether there was any.
  bool MoveFree() {
    bool moved = false;
    for (Named& entry : entries_) {
      if (entry.now == entry.wanted || Taken(entry, entry.wanted)) continue;
      Move(entry, entry.wanted);
      moved = true;
    }
    return moved;
  }
  std::string Aside(Named const& entry) const {
    std::string name = entry.now + "~";
    while (Taken(entry, name)) name += "~";
    return name;
  }
  void Move(Named& entry, std::string const& name) {
    emit_(entry, name);
    entry.now = name;
  }

  std::vector<Named> entries_;
  Collide collide_;
  Emit emit_;
};

bool DerivesFrom(SchemaDoc const& schema, std::string const& table, std::string const& base) {
  for (TableDoc const* at = schema.Find(table); at != nullptr; at = schema.Find(at->base)) {
    if (at->name == base) return true;
  }
  return false;
}

void RenameTables(SchemaDoc const& from, Matching const& kept, Plan& plan) {
  std::vector<Named> tables;
  for (TableDoc const& table : from.tables) {
    TableDoc const* const after = kept.NewTable(table.name);
    if (after != nullptr) tables.push_back({table.name, after->name, ""});
  }
  auto const emit = [&plan](Named const& entry, std::string const& name) {
    plan.push_back(change::RenameTable{entry.now, name});
  };
  auto const collide = [](Named const&, Named const&) { return true; };
  Ordering(std::move(tables), collide, emit).Run();
}

void RenameColumns(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept, Plan& plan) {
  std::vector<Named> columns;
  for (TableDoc const& table : from.tables) {
    TableDoc const* const after = kept.NewTable(table.name);
    if (after == nullptr) continue;
    for (ColumnDoc const& column : table.columns) {
      ColumnDoc const* const renamed = kept.NewColumn(column);
      if (kept.IsMoved(column)) continue;
      if (renamed != nullptr) columns.push_back({column.name, renamed->name, after->name});
    }
  }
  auto const emit = [&plan](Named const& entry, std::string const& name) {
    plan.push_back(change::RenameColumn{entry.table, entry.now, name});
  };
  auto const collide = [&to](Named const& a, Named const& b) {
    return DerivesFrom(to, a.table, b.table) || DerivesFrom(to, b.table, a.table);
  };
  Ordering(std::move(columns), collide, emit).Run();
}

}  // namespace

void AddRenames(SchemaDoc const& from, SchemaDoc const& to, Matching const& kept, Plan& plan) {
  RenameTables(from, kept, plan);
  RenameColumns(from, to, kept, plan);
}

}  // namespace sagleme

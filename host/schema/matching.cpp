#include "schema/matching.h"

#include <fmt/format.h>

#include <functional>
#include <sagleme/failure.hpp>

namespace sagleme {
namespace {

// Pairs entries of two lists: by identity first, then by "was" if no old entry still has the new
// name, then by name.
template <typename Doc>
class Claims {
 public:
  Claims(std::vector<Doc> const& before, std::vector<Doc> const& after, bool identities,
         std::string what)
      : before_(before), after_(after), what_(std::move(what)) {
    if (identities) {
      Pass([this](Doc const& entry) { return ById(entry.id); });
    }
    Pass([this](Doc const& entry) {
      return Unclaimed(Named(entry.name)) != nullptr ? nullptr : Named(entry.was);
    });
    Pass([this](Doc const& entry) { return Unclaimed(Named(entry.name)); });
  }

  Pairs<Doc> const& pairs() const { return pairs_; }

 private:
  void Pass(std::function<Doc const*(Doc const&)> const& find) {
    for (Doc const& entry : after_) {
      if (pairs_.contains(&entry)) continue;
      Doc const* const found = find(entry);
      if (found == nullptr) continue;
      if (!claimed_.emplace(found, &entry).second) {
        throw Failure(Failure::Kind::kBadInput,
                      fmt::format("{} {} and {} {} both claim to have been {}", what_,
                                  claimed_.at(found)->name, what_, entry.name, found->name));
      }
      pairs_[&entry] = found;
    }
  }
  Doc const* ById(std::uint64_t id) const {
    for (Doc const& entry : before_) {
      if (id != 0 && entry.id == id) return &entry;
    }
    return nullptr;
  }
  Doc const* Named(std::string const& name) const {
    for (Doc const& entry : before_) {
      if (!name.empty() && entry.name == name) return &entry;
    }
    return nullptr;
  }
  Doc const* Unclaimed(Doc const* entry) const {
    return claimed_.contains(entry) ? nullptr : entry;
  }

  std::vector<Doc> const& before_;
  std::vector<Doc> const& after_;
  std::string what_;
  Pairs<Doc> pairs_;
  std::map<Doc const*, Doc const*> claimed_;  // before -> after
};

}  // namespace

Matching::Matching(SchemaDoc const& from, SchemaDoc const& to)
    : from_(from), to_(to), identities_(to.database != 0 && to.database == from.database) {
  Pairs<TableDoc> const tables = ClaimTables();
  DropUnlessBaseIsThere();
  doubts_ = DoubtTables(from, to, tables, [this](TableDoc const& before, TableDoc const& after) {
    return BaseStays(before, after);
  });
  for (auto const& [name, after] : new_tables_) MatchColumns(*from_.Find(name), *after);
  MatchMoves();
  for (auto const& [name, after] : new_tables_) DoubtColumnsOf(*from_.Find(name), *after);
  MatchIndexes();
}

Pairs<TableDoc> Matching::ClaimTables() {
  Claims<TableDoc> const claims(from_.tables, to_.tables, identities_, "table");
  for (auto const& [after, before] : claims.pairs()) {
    new_tables_[before->name] = after;
    old_tables_[after->name] = before;
  }
  return claims.pairs();
}

bool Matching::BaseStays(TableDoc const& before, TableDoc const& after) const {
  if (from_.Find(before.base) == nullptr) return before.base == after.base;
  TableDoc const* const base = NewTable(before.base);
  return base != nullptr && base->name == after.base;
}

// A base that is new can be made before a table moves under it, if its name is free.
bool Matching::BaseIsThere(TableDoc const& after) const {
  if (to_.Find(after.base) == nullptr || OldTable(after.base) != nullptr) return true;
  return from_.Find(after.base) == nullptr;
}

// A table that cannot stay takes its descendants along.
void Matching::DropUnlessBaseIsThere() {
  for (bool changed = true; changed;) {
    changed = false;
    for (auto at = new_tables_.begin(); at != new_tables_.end(); ++at) {
      if (BaseIsThere(*at->second)) continue;
      old_tables_.erase(at->second->name);
      new_tables_.erase(at);
      changed = true;
      break;
    }
  }
}

bool Matching::ShapeStays(ColumnDoc const& before, ColumnDoc const& after) const {
  if (before.type != after.type || before.nullable != after.nullable) return false;
  if (from_.Find(before.target) == nullptr) return before.target == after.target;
  TableDoc const* const target = NewTable(before.target);
  return target != nullptr && target->name == after.target;
}

// A reference whose target goes has no values to keep.
bool Matching::Converts(ColumnDoc const& before, ColumnDoc const& after) const {
  if (ShapeStays(before, after)) return true;
  if (from_.Find(before.target) != nullptr && NewTable(before.target) == nullptr) return false;
  return ConversionOf(before.type, after.type) != Conversion::kNone;
}

void Matching::Keep(ColumnDoc const& before, ColumnDoc const& after) {
  new_columns_.emplace(&before, &after);
  old_columns_.emplace(&after, &before);
}

void Matching::MatchColumns(TableDoc const& before, TableDoc const& after) {
  Claims<ColumnDoc> const claims(before.columns, after.columns, identities_,
                                 "column of table " + after.name + ":");
  paired_columns_[&after] = claims.pairs();
  for (auto const& [new_column, old_column] : claims.pairs()) {
    if (Converts(*old_column, *new_column)) Keep(*old_column, *new_column);
  }
}

void Matching::MatchMoves() {
  std::set<ColumnDoc const*> paired;
  StayingEntries staying;
  for (auto const& [table, pairs] : paired_columns_) {
    for (auto const& [after, before] : pairs) {
      paired.insert(after);
      paired.insert(before);
      if (after->name != before->name) staying.new_names.insert(after->name);
    }
  }
  staying.identities = identities_;
  staying.new_table = [this](std::string const& name) { return NewTable(name); };
  staying.is_paired = [&paired](ColumnDoc const& column) { return paired.contains(&column); };
  staying.fits = [this](ColumnDoc const& before, ColumnDoc const& after) {
    return Converts(before, after);
  };
  moves_ = FindMoves(from_, to_, staying);
  for (PulledUp const& move : moves_.up) {
    for (Declaration const& from : move.from) Keep(*from.column, *move.to.column);
    for (Declaration const& from : move.from) moved_.insert(from.column);
    moved_.insert(move.to.column);
  }
  for (PushedDown const& move : moves_.down) {
    for (Declaration const& to : move.to) Keep(*move.from.column, *to.column);
    for (Declaration const& to : move.to) moved_.insert(to.column);
    moved_.insert(move.from.column);
  }
}

// Moved columns are beyond doubt.
void Matching::DoubtColumnsOf(TableDoc const& before, TableDoc const& after) {
  Pairs<ColumnDoc> pairs = paired_columns_[&after];
  for (ColumnDoc const& column : after.columns) {
    if (IsMoved(column)) pairs[&column] = OldColumn(column);
  }
  auto const fits = [this](ColumnDoc const& old_column, ColumnDoc const& new_column) {
    return !IsMoved(old_column) && ShapeStays(old_column, new_column);
  };
  auto const found = DoubtColumns(before, after, pairs, fits);
  doubts_.insert(doubts_.end(), found.begin(), found.end());
}

// The new name of a column, inherited or not; empty if it is dropped.
std::string Matching::NewNameOfColumn(TableDoc const& table, std::string const& column) const {
  for (TableDoc const* at = &table; at != nullptr; at = from_.Find(at->base)) {
    ColumnDoc const* const own = at->FindColumn(column);
    if (own == nullptr) continue;
    ColumnDoc const* const kept = NewColumn(*own);
    return kept == nullptr ? "" : kept->name;
  }
  return column;  // of the catalogue, which does not change
}

bool Matching::IndexStays(TableDoc const& table, IndexDoc const& before,
                          IndexDoc const& after) const {
  if (before.unique != after.unique || before.columns.size() != after.columns.size()) return false;
  for (std::size_t i = 0; i < before.columns.size(); ++i) {
    if (before.columns[i].descending != after.columns[i].descending) return false;
    if (NewNameOfColumn(table, before.columns[i].name) != after.columns[i].name) return false;
  }
  return true;
}

void Matching::MatchIndexes() {
  for (auto const& [name, after] : new_tables_) {
    TableDoc const& before = *from_.Find(name);
    for (IndexDoc const& index : before.indexes) {
      for (IndexDoc const& candidate : after->indexes) {
        if (index.name == candidate.name && IndexStays(before, index, candidate)) {
          indexes_.insert(index.name);
        }
      }
    }
  }
}

}  // namespace sagleme

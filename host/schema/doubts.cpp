#include "schema/doubts.h"

#include <fmt/format.h>

#include <algorithm>
#include <sagleme/failure.hpp>

namespace sagleme {
namespace {

template <typename Doc>
std::vector<Doc const*> Gone(std::vector<Doc> const& before, Pairs<Doc> const& pairs) {
  std::vector<Doc const*> gone;
  for (Doc const& entry : before) {
    bool const stays =
        std::any_of(pairs.begin(), pairs.end(), [&](auto& pair) { return pair.second == &entry; });
    if (!stays) gone.push_back(&entry);
  }
  return gone;
}

template <typename Doc>
std::vector<Doc const*> Come(std::vector<Doc> const& after, Pairs<Doc> const& pairs) {
  std::vector<Doc const*> come;
  for (Doc const& entry : after) {
    if (!pairs.contains(&entry) && !entry.is_new) come.push_back(&entry);
  }
  return come;
}

// Picks for each removed entry the best of the new ones, by `score`; 0 is none.
template <typename Doc, typename Score>
std::vector<Doubt> PairUp(std::vector<Doc const*> const& gone, std::vector<Doc const*> come,
                          std::string const& table, Score&& score) {
  std::vector<Doubt> doubts;
  for (Doc const* const each : gone) {
    auto const best = std::max_element(come.begin(), come.end(), [&](Doc const* a, Doc const* b) {
      return score(*each, *a) < score(*each, *b);
    });
    if (best == come.end() || score(*each, **best) == 0) continue;
    doubts.push_back({table, each->name, (*best)->name});
    come.erase(best);
  }
  return doubts;
}

// 0 below half of the columns of `before`.
std::size_t Likeness(TableDoc const& before, TableDoc const& after) {
  if (before.columns.empty()) return after.columns.empty() ? 1 : 0;
  auto const shared = std::count_if(before.columns.begin(), before.columns.end(),
                                    [&after](ColumnDoc const& column) {
                                      ColumnDoc const* const same = after.FindColumn(column.name);
                                      return same != nullptr && same->type == column.type;
                                    });
  auto const count = static_cast<std::size_t>(shared);
  return 2 * count < before.columns.size() ? 0 : count;
}

// The nearest columns that stay, by their entries in the new schema; null at the ends.
struct Neighbours {
  ColumnDoc const* before = nullptr;
  ColumnDoc const* behind = nullptr;

  bool Touches(Neighbours const& other) const {
    return before == other.before || behind == other.behind;
  }
};

// `stays` gives the entry in the new schema, or null.
template <typename Stays>
Neighbours NeighboursOf(ColumnDoc const& column, std::vector<ColumnDoc> const& all, Stays&& stays) {
  Neighbours neighbours;
  bool passed = false;
  for (ColumnDoc const& each : all) {
    passed = passed || &each == &column;
    ColumnDoc const* const kept = stays(each);
    if (kept == nullptr) continue;
    if (passed) {
      neighbours.behind = kept;
      break;
    }
    neighbours.before = kept;
  }
  return neighbours;
}

std::string Sentence(Doubt const& doubt) {
  std::string const what = doubt.table.empty() ? "table" : "column";
  std::string const of = doubt.table.empty() ? "" : " of " + doubt.table;
  return fmt::format(
      "{0} {2}{1} is gone and {0} {3} is new in its place; it may be {2} under a new name, or "
      "another {0}",
      what, of, doubt.gone, doubt.come);
}

std::string Advice(std::vector<Doubt> const& doubts) {
  if (doubts.size() > 1) {
    return "Write \"was\": \"OLD NAME\" in each entry that was renamed, and \"was\": null in "
           "each new one.";
  }
  return fmt::format(
      "If it was renamed, write \"was\": \"{}\" in the entry of {}; if it is new, \"was\": null.",
      doubts[0].gone, doubts[0].come);
}

TableDoc& TableNamed(SchemaDoc& schema, std::string const& name) {
  return *std::find_if(schema.tables.begin(), schema.tables.end(),
                       [&name](TableDoc const& table) { return table.name == name; });
}

template <typename Doc>
void SettleEntry(Doc& entry, std::string const& gone, Reading reading) {
  entry.is_new = reading == Reading::kNew;
  entry.was = reading == Reading::kRenamed ? gone : "";
}

}  // namespace

std::vector<Doubt> DoubtTables(SchemaDoc const& from, SchemaDoc const& to,
                               Pairs<TableDoc> const& pairs, Fits<TableDoc> const& fits) {
  auto const score = [&fits](TableDoc const& before, TableDoc const& after) {
    return fits(before, after) ? Likeness(before, after) : 0;
  };
  return PairUp(Gone(from.tables, pairs), Come(to.tables, pairs), "", score);
}

std::vector<Doubt> DoubtColumns(TableDoc const& before, TableDoc const& after,
                                Pairs<ColumnDoc> const& pairs, Fits<ColumnDoc> const& fits) {
  Pairs<ColumnDoc> kept;
  for (auto const& [now, then] : pairs) kept[then] = now;
  auto const of_old = [&kept](ColumnDoc const& column) {
    auto const found = kept.find(&column);
    return found == kept.end() ? nullptr : found->second;
  };
  auto const of_new = [&pairs](ColumnDoc const& column) {
    return pairs.contains(&column) ? &column : nullptr;
  };
  auto const score = [&](ColumnDoc const& gone, ColumnDoc const& come) {
    bool const same = NeighboursOf(gone, before.columns, of_old)
                          .Touches(NeighboursOf(come, after.columns, of_new));
    return same && fits(gone, come) ? 1 : 0;
  };
  return PairUp(Gone(before.columns, pairs), Come(after.columns, pairs), after.name, score);
}

void RefuseDoubts(std::vector<Doubt> const& doubts, std::string const& source) {
  if (doubts.empty()) return;
  std::string text = source.empty() ? "" : source + ": ";
  for (std::size_t i = 0; i < doubts.size(); ++i) {
    text += (i == 0 ? "" : ";\n  ") + Sentence(doubts[i]);
  }
  throw Failure(Failure::Kind::kRefused, text, Advice(doubts));
}

void Settle(SchemaDoc& to, Doubt const& doubt, Reading reading) {
  if (doubt.table.empty()) return SettleEntry(TableNamed(to, doubt.come), doubt.gone, reading);
  TableDoc& table = TableNamed(to, doubt.table);
  auto const column = std::find_if(table.columns.begin(), table.columns.end(),
                                   [&](ColumnDoc const& each) { return each.name == doubt.come; });
  SettleEntry(*column, doubt.gone, reading);
}

}  // namespace sagleme

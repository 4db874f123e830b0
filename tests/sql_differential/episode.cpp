#include "episode.h"

#include <algorithm>

#include "changes.h"
#include "queries.h"
#include "world.h"

namespace sql_differential {
namespace {

constexpr int kFirstInserts = 25;

std::string Lines(std::vector<Row> const& rows) {
  std::string text;
  for (std::size_t i = 0; i < rows.size() && i < 30; ++i) text += "  " + ToText(rows[i]) + "\n";
  if (rows.size() > 30) text += "  and " + std::to_string(rows.size() - 30) + " more\n";
  return text;
}

std::string Shown(Answer const& answer) {
  if (answer.code != SQLITE_OK) {
    return "  error " + std::to_string(answer.code) + ": " + answer.error + "\n";
  }
  return Lines(answer.rows);
}

int KindOf(int code) {
  // SQLite's own tables refuse a value by a CHECK.
  if ((code & 0xFF) == SQLITE_MISMATCH) return SQLITE_CONSTRAINT;
  return code & 0xFF;
}

bool Less(Row const& a, Row const& b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    int const order = Compare(a[i], b[i]);
    if (order != 0) return order < 0;
  }
  return false;
}

bool SameRows(std::vector<Row> const& a, std::vector<Row> const& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](Row const& x, Row const& y) {
    return x.size() == y.size() && !Less(x, y) && !Less(y, x);
  });
}

std::vector<Row> KeysOf(std::vector<Row> const& rows, std::vector<std::size_t> const& keys) {
  std::vector<Row> all;
  for (Row const& row : rows) {
    all.emplace_back();
    for (std::size_t const key : keys) all.back().push_back(row[key]);
  }
  return all;
}

bool SameAnswers(Answer ours, Answer native, Query const& query) {
  if (ours.code != SQLITE_OK || native.code != SQLITE_OK) {
    return KindOf(ours.code) == KindOf(native.code);
  }
  if (ours.rows.size() != native.rows.size()) return false;
  using Compared = Query::Compared;
  if (query.compared == Compared::kCount) return true;
  if (query.compared == Compared::kKeys || query.compared == Compared::kKeysOnly) {
    if (!SameRows(KeysOf(ours.rows, query.keys), KeysOf(native.rows, query.keys))) return false;
    if (query.compared == Compared::kKeysOnly) return true;
  }
  if (query.compared != Compared::kSequence) {
    std::sort(ours.rows.begin(), ours.rows.end(), Less);
    std::sort(native.rows.begin(), native.rows.end(), Less);
  }
  return SameRows(ours.rows, native.rows);
}

class Runner {
 public:
  explicit Runner(Choices& setup) : world_(setup) {
    RunChange({"BEGIN", "", false});
    for (int i = 0; i < kFirstInserts && outcome_.difference.empty(); ++i) {
      RunChange(Changes(setup, world_).Insert());
    }
    if (!done()) world_.CommitBoth();
    Check();
    if (!done()) outcome_.texts.clear();
  }

  bool done() const { return !outcome_.difference.empty(); }
  Outcome& outcome() { return outcome_; }

  void Statement(Choices& choices) {
    if (choices.Chance(75)) {
      Queries queries(choices);
      RunQuery(queries.Any());
    } else {
      Changes changes(choices, world_);
      RunChange(changes.Any());
      Check();
    }
    outcome_.episode.statements.push_back(choices.Taken());
  }

 private:
  void Differ(Answer const& ours, Answer const& native, std::string const& text) {
    outcome_.difference = "answers:\n" + Shown(ours) + "SQLite's copy, asked\n  " + text +
                          "\nanswers:\n" + Shown(native);
  }

  void RunQuery(Query const& query) {
    outcome_.texts.push_back(query.text.ours);
    ++outcome_.queries;
    Answer const native = world_.native().RunLimited(query.text.native);
    Answer const ours = native.given_up ? Answer() : world_.ours().RunLimited(query.text.ours);
    if (native.given_up || ours.given_up) {
      ++outcome_.given_up;
      return;
    }
    outcome_.rows += static_cast<std::int64_t>(native.rows.size());
    if (native.code != SQLITE_OK) ++outcome_.refused;
    if (!SameAnswers(ours, native, query)) Differ(ours, native, query.text.native);
  }

  // Our side leaves out a row with a reference to nothing, which SQLite's copies take.
  bool IgnoresReferenceToNothing(Change const& change) {
    std::string text = change.text.native;
    if (text.find(" OR IGNORE") == std::string::npos) return false;
    if (!change.placeholder.empty()) {
      text.replace(text.find(change.placeholder), change.placeholder.size(),
                   std::to_string(world_.NextId()));
    }
    return world_.MakesReferenceToNothing(text);
  }

  void RunChange(Change const& change) {
    if (IgnoresReferenceToNothing(change)) return;
    outcome_.texts.push_back(change.text.ours);
    ++outcome_.changes;
    Answer const ours = world_.ours().Run(change.text.ours);
    std::string text = change.text.native;
    if (!change.placeholder.empty()) {
      bool const made = ours.code == SQLITE_OK && ours.changes > 0;
      std::int64_t const id =
          made ? sqlite3_last_insert_rowid(world_.ours().handle()) : world_.NextId();
      text.replace(text.find(change.placeholder), change.placeholder.size(), std::to_string(id));
    }
    bool const to_nothing = ours.error.starts_with("FOREIGN KEY constraint failed");
    Answer const native =
        to_nothing ? world_.RunUnlessReferenceToNothing(text) : world_.native().Run(text);
    if (native.code != SQLITE_OK) ++outcome_.refused;
    bool const same_count =
        !change.counted || ours.code != SQLITE_OK || ours.changes == native.changes;
    if (KindOf(ours.code) != KindOf(native.code)) {
      Differ(ours, native, text);
    } else if (!same_count) {
      outcome_.difference = "changes " + std::to_string(ours.changes) + " objects, and " + text +
                            "\nchanges " + std::to_string(native.changes);
    } else if (world_.ours().in_transaction() != world_.native().in_transaction()) {
      outcome_.difference = "ends one transaction and not the other";
    }
  }

  void Check() {
    if (outcome_.difference.empty()) outcome_.difference = world_.Difference();
  }

  World world_;
  Outcome outcome_;
};

std::vector<std::size_t> Sizes(std::size_t count) {
  std::vector<std::size_t> sizes;
  for (std::size_t size = count / 2; size > 0; size /= 2) sizes.push_back(size);
  if (count == 1) sizes.push_back(1);
  return sizes;
}

// Takes parts out of the best episode, or makes them smaller, as long as it still fails.
class Shrinker {
 public:
  Shrinker(Outcome failed, int tries) : best_(std::move(failed)), tries_(tries) {}

  Outcome Result() {
    int before = 0;
    do {
      before = tries_;
      WithoutStatements();
      for (std::size_t i = best_.episode.statements.size(); i-- > 0;) SimplerStatement(i);
    } while (tries_ > 0 && found_since_ && before != tries_);
    return best_;
  }

 private:
  bool Try(Episode const& episode) {
    if (tries_ == 0) return false;
    --tries_;
    Outcome outcome = Replay(episode);
    if (outcome.difference.empty()) return false;
    best_ = std::move(outcome);
    found_since_ = true;
    return true;
  }

  void WithoutStatements() {
    found_since_ = false;
    for (std::size_t const size : Sizes(best_.episode.statements.size())) {
      for (std::size_t at = 0; at + size <= best_.episode.statements.size();) {
        Episode less = best_.episode;
        auto const first = less.statements.begin() + static_cast<std::ptrdiff_t>(at);
        less.statements.erase(first, first + static_cast<std::ptrdiff_t>(size));
        if (!Try(less)) at += size;
      }
    }
  }

  void SimplerStatement(std::size_t which) {
    if (which >= best_.episode.statements.size()) return;
    for (std::size_t const size : Sizes(best_.episode.statements[which].size())) {
      std::size_t at = 0;
      while (which < best_.episode.statements.size() &&
             at + size <= best_.episode.statements[which].size()) {
        if (!Without(which, at, size) && !Zeroed(which, at, size))
          at += size;
        else if (tries_ == 0)
          return;
        if (zeroed_) at += size;
      }
    }
  }

  bool Without(std::size_t which, std::size_t at, std::size_t size) {
    Episode less = best_.episode;
    auto const first = less.statements[which].begin() + static_cast<std::ptrdiff_t>(at);
    less.statements[which].erase(first, first + static_cast<std::ptrdiff_t>(size));
    zeroed_ = false;
    return Try(less);
  }

  bool Zeroed(std::size_t which, std::size_t at, std::size_t size) {
    Episode less = best_.episode;
    Drawn& drawn = less.statements[which];
    auto const first = drawn.begin() + static_cast<std::ptrdiff_t>(at);
    auto const last = first + static_cast<std::ptrdiff_t>(size);
    if (std::all_of(first, last, [](std::uint32_t each) { return each == 0; })) return false;
    std::fill(first, last, 0);
    zeroed_ = Try(less);
    return zeroed_;
  }

  Outcome best_;
  int tries_;
  bool found_since_ = false;
  bool zeroed_ = false;
};

}  // namespace

Outcome Run(std::uint64_t seed, int statements) {
  Choices setup(seed);
  Runner runner(setup);
  runner.outcome().episode.setup = setup.Taken();
  for (int i = 0; i < statements && !runner.done(); ++i) {
    Choices choices(seed * 1'000'003 + static_cast<std::uint64_t>(i) + 1);
    runner.Statement(choices);
  }
  return runner.outcome();
}

Outcome Replay(Episode const& episode) {
  Choices setup(episode.setup);
  Runner runner(setup);
  runner.outcome().episode.setup = setup.Taken();
  for (Drawn const& drawn : episode.statements) {
    if (runner.done()) break;
    Choices choices(drawn);
    runner.Statement(choices);
  }
  return runner.outcome();
}

Outcome Shrink(Outcome failed, int tries) { return Shrinker(std::move(failed), tries).Result(); }

}  // namespace sql_differential

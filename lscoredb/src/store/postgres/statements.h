#ifndef LSCOREDB_SRC_STATEMENTS_H
#define LSCOREDB_SRC_STATEMENTS_H

// All statements that the server gets. Plain SQL that other databases with PostgreSQL's protocol
// understand too: no functions of our own, no triggers, no advisory locks, no COPY.
//
// The tables of a database, in a schema of its own:
//
//   rows, parts, entries, definitions, meta
//            key bytea, value bytea: the five trees, ordered by the bytes of their keys
//   rows, meta
//            number bigint: what a value says of itself may be out of date where this is not null
//            (numbered_values.h)
//   state    one row, which a committer locks:
//              id          bigint   the number of the newest state
//              version     bigint   of these tables: kTablesVersion; while changes are kept
//                                   kFeedVersion (feed_statements.h)
//              listed      bigint   changes after this state are listed without a gap
//   changes  state bigint, key bytea: the rows that the commit of a state wrote or deleted, for the
//            last kChangesKept states; a commit with more than kMostChanges is not listed
//   layouts  number bigint, word bigint: the reserved layout numbers; and 0, which is no layout,
//            with the catalogue's word
//   tickets  ticket bytea, state bigint, committed boolean: the outcomes of commits. A commit
//            inserts its ticket; if its reply is lost, whoever asks for the outcome inserts the
//            ticket as not committed, and only one of the two can succeed.

#include <array>
#include <string>
#include <vector>

#include "connection.h"
#include "store.h"

namespace lscore {

// Versions of the tables. Without the column `number` they are those that earlier programs made.
inline constexpr std::uint64_t kPlainVersion = 1;
inline constexpr std::uint64_t kPlainFeedVersion = 2;
inline constexpr std::uint64_t kTablesVersion = 3;
inline constexpr std::uint64_t kFeedVersion = 4;
inline constexpr std::uint64_t kNewestTablesVersion = kFeedVersion;
inline bool HasNumbers(std::uint64_t version) { return version >= kTablesVersion; }
inline bool KeepsChanges(std::uint64_t version) {
  return version == kPlainFeedVersion || version == kFeedVersion;
}
inline std::uint64_t TablesVersion(bool numbered, bool feed) {
  if (numbered) return feed ? kFeedVersion : kTablesVersion;
  return feed ? kPlainFeedVersion : kPlainVersion;
}
// The number of commits whose tickets are kept.
inline constexpr std::uint64_t kTicketsKept = 100'000;
// The number of states whose changes are kept, and the most rows that a commit lists.
inline constexpr std::uint64_t kChangesKept = 10'000;
inline constexpr std::size_t kMostChanges = 10'000;

// How often, in states, old lists and tickets are deleted, and the feed is trimmed.
inline constexpr std::uint64_t kTidyEvery = 1000;
inline constexpr std::uint64_t kTrimEvery = 50;

// What they give ends with the column `number` where the tree has it.
struct TreeStatements {
  bool numbered = false;
  Statement get;           // key
  Statement get_many;      // keys
  Statement get_range;     // from a key on, up to a key
  Statement seek_many;     // keys: gives two entries from each on, with that key
  Statement from;          // key, most rows: from the first not below
  Statement after;         // key, most rows
  Statement before;        // key, most rows, falling
  Statement after_until;   // key, most rows, and a key that they are below
  Statement before_until;  // key, most rows, and a key that they are not below, falling
  Statement last;          // most rows, falling
  Statement put;           // keys, values, and numbers
  Statement remove;        // keys
  Statement remove_range;  // from a key on, below a key
};

struct Statements {
  // `schema` is quoted.
  explicit Statements(std::string const& schema);

  // `numbered`: HasNumbers of the tables.
  TreeStatements const& Of(Tree tree, bool numbered) const {
    return (numbered ? trees : plain_trees)[static_cast<std::size_t>(tree)];
  }

  std::array<TreeStatements, kTreeCount> trees;
  std::array<TreeStatements, kTreeCount> plain_trees;
  Statement begin_snapshot;
  Statement begin_batch;
  Statement no_wait_for_disk;
  Statement wait_for_disk;  // its commit waits for all earlier ones
  Statement commit;
  Statement rollback;
  Statement read_state;     // gives id, version, listed
  Statement read_history;   // ticket: as read_state, then 1 if it was committed, else 0, and the
                            // ticket of the newest state's commit
  Statement lock_state;     // as read_state
  Statement read_changes;   // after a state, most rows: gives keys
  Statement put_changes;    // state, keys
  Statement drop_changes;   // of a state and before
  Statement advance_state;  // id, listed
  Statement put_ticket;     // ticket, state
  Statement fence_ticket;   // ticket; writes in either case
  Statement read_ticket;    // ticket: 1 when it was committed
  Statement drop_tickets;   // below a state
  Statement lock_creation;  // fails at once when another session has the lock
  Statement read_reservations;  // gives numbers
  Statement reserve;            // numbers: gives those that were free
  Statement read_word;          // of a number
  Statement replace_word;       // number, expected, new word: gives one row if it was expected
  Statement find_foreign;       // schema: gives rows if other programs have tables with our names
  // Create what is missing, in this order, each in its own transaction. The table `state` comes
  // first: if it exists, the others are ours.
  std::vector<Statement> make;
  Statement drop_tables;
  std::vector<Statement> add_numbers;  // a transaction that brings plain tables up to date
};

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_STATEMENTS_H
#define LSCOREDB_SRC_STATEMENTS_H

// All that is said to the server. Plain SQL, such as other databases with PostgreSQL's protocol
// understand too: no functions of our own, no triggers, no advisory locks, no COPY.
//
// The tables of a database, in a schema of its own:
//
//   rows, parts, entries, definitions, meta
//            key bytea, value bytea: the five trees, by the order of their keys' bytes
//   state    one row, which is locked by whoever commits:
//              id          bigint   the number of the newest state
//              version     bigint   of these tables
//              listed      bigint   the state from which on changes are listed without a gap
//   changes  state bigint, key bytea: the keys of rows that the commit of a state wrote or deleted,
//            of the last kChangesKept states, and of none that changed very many
//   layouts  number bigint, word bigint: the layout numbers that are reserved; and 0, which is
//            none, with the catalogue's word
//   tickets  ticket bytea, state bigint, committed boolean: how a commit came out whose reply was
//            lost. A commit writes its ticket; who asks first writes that it did not come to be.

#include <array>
#include <string>
#include <vector>

#include "connection.h"
#include "store.h"

namespace lscore {

inline constexpr std::uint64_t kTablesVersion = 1;
// Commits for which tickets are kept.
inline constexpr std::uint64_t kTicketsKept = 100'000;
// States whose changes are kept, and most rows that a list of changes has.
inline constexpr std::uint64_t kChangesKept = 10'000;
inline constexpr std::size_t kMostChanges = 10'000;

struct TreeStatements {
  Statement get;       // key
  Statement get_many;  // keys
  Statement from;      // key, most rows: from the first not below
  Statement after;     // key, most rows
  Statement before;    // key, most rows, falling
  Statement last;      // most rows, falling
  Statement put;       // keys, values
  Statement remove;    // keys
};

struct Statements {
  // `schema` is quoted.
  explicit Statements(std::string const& schema);

  TreeStatements const& Of(Tree tree) const { return trees[static_cast<std::size_t>(tree)]; }

  std::array<TreeStatements, kTreeCount> trees;
  Statement begin_snapshot;
  Statement begin_batch;
  Statement no_wait_for_disk;
  Statement commit;
  Statement rollback;
  Statement read_state;         // gives id, version, listed
  Statement lock_state;         // as read_state
  Statement read_changes;       // after a state, most rows: gives keys
  Statement put_changes;        // state, keys
  Statement drop_changes;       // of a state and before
  Statement advance_state;      // id, listed
  Statement put_ticket;         // ticket, state
  Statement fence_ticket;       // ticket
  Statement read_ticket;        // ticket: 1 when it was committed
  Statement drop_tickets;       // below a state
  Statement lock_creation;      // fails at once when somebody has it
  Statement read_reservations;  // gives numbers
  Statement reserve;            // numbers: gives those that were free
  Statement read_word;          // of a number
  Statement replace_word;       // of a number, what it has to be, what it is to be: gives one row
  Statement find_foreign;       // schema: rows when others have made tables with names of ours
  // Make what is not there yet, in this order, each by itself. The state's table comes first: where
  // it is, the others are ours.
  std::vector<Statement> make;
  Statement drop_tables;
};

}  // namespace lscore

#endif

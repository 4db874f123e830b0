#ifndef LSCOREDB_SRC_BLIND_STATEMENTS_H
#define LSCOREDB_SRC_BLIND_STATEMENTS_H

// The statements of a commit in one round trip, plain SQL as those of statements.h. A check that
// fails divides by zero, which ends the transaction. They come after `advance`, which locks the
// state, and so see everything that was committed before. Numbers of states are read from there.

#include <string>

#include "connection.h"

namespace lscore {

struct BlindStatements {
  // `schema` is quoted.
  explicit BlindStatements(std::string const& schema);

  // Version, ticket, keys of rows: locks and advances the state, puts the ticket and the list of
  // changes. Gives the number of the new state, and `listed`. Fails if the version is another.
  Statement advance;
  Statement insert_rows;   // keys, values: fails if one is there
  Statement update_rows;   // keys, numbers, values, how many: fails if one has a higher number
  Statement check_rows;    // keys, numbers, how many: the same, without the update
  Statement check_meta;    // keys, numbers: fails if one has a higher number
  Statement put_stamped;   // keys, values of meta
  Statement add_counts;    // keys, numbers to add, 1 where a set must follow, how many
  Statement check_ids;     // key of the mark, highest id, low, high
  Statement check_free;    // lows, highs, own keys: fails if there is another one in between
  Statement put_commit;    // of the feed: time, what it counts for, notes
  Statement read_changes;  // after a state, most rows: gives state and key
};

}  // namespace lscore

#endif

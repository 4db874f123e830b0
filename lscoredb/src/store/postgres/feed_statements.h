#ifndef LSCOREDB_SRC_FEED_STATEMENTS_H
#define LSCOREDB_SRC_FEED_STATEMENTS_H

// The statements of the feed of changes, plain SQL as those of statements.h. Its tables are created
// when changes are kept for the first time; `version` of the table `state` says whether they are
// kept now. Each commit then writes a row, so that a missing number shows a commit by a program
// that does not know of this.
//
//   feed           one row: the retention, bytes bigint and seconds bigint
//   feed_commits   a row for each commit that is kept:
//                    state    bigint   its number
//                    since    bigint   the first of the commits before it without a gap
//                    time     bigint   microseconds since 1970
//                    begins   bigint   what all earlier commits count for, in bytes
//                    ends     bigint   `begins` and what this one counts for
//                    parts    bigint   how many rows of feed_parts continue `notes`
//                    notes    bytea    noted_bytes.h
//   feed_parts     state bigint, part bigint, bytes bytea: what does not fit into `notes`

#include <cstdint>
#include <string>
#include <vector>

#include "connection.h"

namespace lscore {

struct FeedStatements {
  // `schema` is quoted.
  explicit FeedStatements(std::string const& schema);

  Statement set_retention;   // bytes, seconds
  Statement set_version;     // of the tables, statements.h
  Statement put_commit;      // state, the one before, time, what it counts for, parts, notes
  Statement put_part;        // state, part, bytes
  Statement read_retention;  // gives bytes, seconds
  Statement read_ends;       // gives the oldest and the newest state, and `since` of the newest
  // State, bytes, most rows: gives state, time, parts and notes of that commit, without its notes,
  // and of those that follow until they count for so many bytes. Nothing if none follows.
  Statement read_commits;
  Statement read_parts;  // of a state: gives bytes
  // The time now, most rows: deletes, of so many of the oldest commits, those before the first that
  // the retention still keeps. The newest commit stays.
  Statement trim;
  Statement trim_parts;         // of commits that were deleted
  Statement drop;               // a state, most rows: deletes the oldest up to it
  std::vector<Statement> make;  // each in its own transaction, if missing
};

}  // namespace lscore

#endif

#include "feed_statements.h"

#include <limits>

namespace lscore {
namespace {

// Whether the retention lets go of a commit: those after it fill the bytes, or it is too old.
constexpr char kExpired[] =
    "(feed.bytes > 0 AND newest.ends - oldest.ends >= feed.bytes)"
    " OR (feed.seconds > 0 AND oldest.time < $1::bigint - feed.seconds * 1000000)";

std::vector<Statement> MakeTables(std::string const& feed, std::string const& commits,
                                  std::string const& parts) {
  return {{"make_feed", "CREATE TABLE IF NOT EXISTS " + feed +
                            " (one boolean PRIMARY KEY CHECK (one), bytes bigint NOT NULL,"
                            " seconds bigint NOT NULL)"},
          {"make_feed_commits", "CREATE TABLE IF NOT EXISTS " + commits +
                                    " (state bigint PRIMARY KEY, since bigint NOT NULL,"
                                    " time bigint NOT NULL, begins bigint NOT NULL,"
                                    " ends bigint NOT NULL, parts bigint NOT NULL,"
                                    " notes bytea NOT NULL)"},
          {"make_feed_parts", "CREATE TABLE IF NOT EXISTS " + parts +
                                  " (state bigint, part bigint, bytes bytea NOT NULL,"
                                  " PRIMARY KEY (state, part))"},
          {"make_feed_row", "INSERT INTO " + feed +
                                " (one, bytes, seconds) VALUES (true, 0, 0)"
                                " ON CONFLICT (one) DO NOTHING"}};
}

}  // namespace

FeedStatements::FeedStatements(std::string const& schema) {
  std::string const feed = schema + ".feed";
  std::string const commits = schema + ".feed_commits";
  std::string const parts = schema + ".feed_parts";
  std::string const newest_first = " FROM " + commits + " ORDER BY state DESC LIMIT 1) AS newest";
  set_retention = {"set_retention",
                   "UPDATE " + feed + " SET bytes = $1::bigint, seconds = $2::bigint"};
  set_version = {"set_version", "UPDATE " + schema + ".state SET version = $1::bigint"};
  put_commit = {"put_commit",
                "INSERT INTO " + commits +
                    " (state, since, time, begins, ends, parts, notes) SELECT $1::bigint,"
                    " COALESCE(max(CASE WHEN newest.state = $2::bigint THEN newest.since END),"
                    " $1::bigint), $3::bigint, COALESCE(max(newest.ends), 0),"
                    " COALESCE(max(newest.ends), 0) + $4::bigint, $5::bigint, $6::bytea"
                    " FROM (SELECT state, since, ends" +
                    newest_first};
  put_part = {"put_part", "INSERT INTO " + parts +
                              " (state, part, bytes) VALUES ($1::bigint, $2::bigint, $3::bytea)"};
  read_retention = {"read_retention", "SELECT bytes, seconds FROM " + feed};
  read_ends = {"read_ends",
               "SELECT oldest.state, newest.state, newest.since FROM (SELECT state"
               " FROM " +
                   commits +
                   " ORDER BY state LIMIT 1) AS oldest CROSS JOIN"
                   " (SELECT state, since" +
                   newest_first};
  read_commits = {"read_commits",
                  "SELECT state, time, parts, CASE WHEN state > $1::bigint THEN notes ELSE"
                  " ''::bytea END FROM " +
                      commits + " WHERE state >= $1::bigint AND begins <= (SELECT begins FROM " +
                      commits +
                      " WHERE state > $1::bigint ORDER BY state LIMIT 1) + $2::bigint"
                      " ORDER BY state LIMIT $3::bigint"};
  read_parts = {"read_parts",
                "SELECT bytes FROM " + parts + " WHERE state = $1::bigint ORDER BY part"};
  trim = {"trim", "DELETE FROM " + commits + " WHERE state < (SELECT COALESCE(min(CASE WHEN NOT (" +
                      kExpired +
                      ") THEN oldest.state END), max(oldest.state)) FROM (SELECT state, time, ends"
                      " FROM " +
                      commits + " ORDER BY state LIMIT $2::bigint) AS oldest CROSS JOIN " + feed +
                      " CROSS JOIN (SELECT ends" + newest_first + ")"};
  trim_parts = {"trim_parts", "DELETE FROM " + parts +
                                  " WHERE state < (SELECT COALESCE(min(state)," +
                                  std::to_string(std::numeric_limits<std::int64_t>::max()) +
                                  ") FROM " + commits + ")"};
  drop = {"drop", "DELETE FROM " + commits + " WHERE state IN (SELECT state FROM " + commits +
                      " WHERE state <= $1::bigint ORDER BY state LIMIT $2::bigint)"};
  make = MakeTables(feed, commits, parts);
}

}  // namespace lscore

#include "blind_statements.h"

namespace lscore {
namespace {

// A statement that fails unless the condition holds.
std::string Require(std::string const& condition) {
  return "SELECT 1 / (CASE WHEN " + condition + " THEN 1 ELSE 0 END)";
}

}  // namespace

BlindStatements::BlindStatements(std::string const& schema) {
  std::string const state = schema + ".state";
  std::string const rows = schema + ".rows";
  std::string const meta = schema + ".meta";
  std::string const entries = schema + ".entries";
  std::string const changes = schema + ".changes";
  std::string const commits = schema + ".feed_commits";
  std::string const tickets = schema + ".tickets";
  std::string const now = "(SELECT id FROM " + state + ")";
  std::string const not_later = "(one.number IS NULL OR one.number <= given.number)";
  advance = {"advance_and_put_ticket",
             "WITH advanced AS (UPDATE " + state +
                 " SET id = id + 1 WHERE version = $1::bigint AND ($4::bytea = ''::bytea OR EXISTS"
                 " (SELECT 1 FROM " +
                 tickets +
                 " WHERE ticket = $4::bytea AND committed)) RETURNING id, listed), put_ticket AS"
                 " (INSERT INTO " +
                 tickets +
                 " (ticket, state, committed) SELECT $2::bytea, id, true FROM advanced),"
                 " put_changes AS (INSERT INTO " +
                 changes +
                 " (state, key) SELECT advanced.id, one.key FROM advanced CROSS JOIN"
                 " unnest($3::bytea[]) AS one (key))"
                 " SELECT max(id), max(listed), 1 / count(*) FROM advanced"};
  insert_rows = {"insert_rows", "INSERT INTO " + rows +
                                    " (key, value, number) SELECT key, value, " + now +
                                    " FROM unnest($1::bytea[], $2::bytea[]) AS one (key, value)"};
  update_rows = {"update_rows", "WITH changed AS (UPDATE " + rows +
                                    " AS one SET value = given.value, number = " + now +
                                    " FROM unnest($1::bytea[], $2::bigint[], $3::bytea[]) AS given"
                                    " (key, number, value) WHERE one.key = given.key AND " +
                                    not_later + " RETURNING 1) " +
                                    Require("count(*) = $4::bigint") + " FROM changed"};
  check_rows = {"check_rows", Require("count(*) = $3::bigint") +
                                  " FROM unnest($1::bytea[], $2::bigint[]) AS given (key, number)"
                                  " JOIN " +
                                  rows + " AS one ON one.key = given.key WHERE " + not_later};
  check_meta = {"check_meta", Require("count(*) = 0") +
                                  " FROM unnest($1::bytea[], $2::bigint[]) AS given (key, number)"
                                  " JOIN " +
                                  meta +
                                  " AS one ON one.key = given.key"
                                  " WHERE one.number > given.number"};
  put_stamped = {"put_stamped",
                 "INSERT INTO " + meta + " (key, value, number) SELECT key, value, " + now +
                     " FROM unnest($1::bytea[], $2::bytea[]) AS one (key, value) ON CONFLICT (key)"
                     " DO UPDATE SET value = EXCLUDED.value, number = EXCLUDED.number"};
  add_counts = {"add_counts",
                "WITH changed AS (UPDATE " + meta +
                    " AS one SET number = one.number + given.number"
                    " FROM unnest($1::bytea[], $2::bigint[], $3::bigint[]) AS given"
                    " (key, number, named) WHERE one.key = given.key AND one.number > 0"
                    " AND one.number + given.number > 0 AND (given.named = 0 OR"
                    " substring(one.value FROM 9 FOR 1) = '\\x01'::bytea) RETURNING 1) " +
                    Require("count(*) = $4::bigint") + " FROM changed"};
  check_ids = {"check_ids", Require("(SELECT number FROM " + meta +
                                    " WHERE key = $1::bytea) > $2::bigint AND"
                                    " NOT EXISTS (SELECT 1 FROM " +
                                    meta + " WHERE key >= $3::bytea AND key < $4::bytea)")};
  check_free = {"check_free",
                Require("count(*) = 0") +
                    " FROM unnest($1::bytea[], $2::bytea[], $3::bytea[]) AS own (low, high, key)"
                    " CROSS JOIN LATERAL (SELECT key FROM " +
                    entries +
                    " AS one WHERE one.key >= own.low AND one.key < own.high ORDER BY one.key"
                    " LIMIT 2) AS found WHERE found.key <> own.key"};
  put_commit = {
      "put_blind_commit",
      "INSERT INTO " + commits + " (state, since, time, begins, ends, parts, notes) SELECT " + now +
          ", COALESCE(max(CASE WHEN newest.state = " + now + " - 1 THEN newest.since END), " + now +
          "), $1::bigint, COALESCE(max(newest.ends), 0),"
          " COALESCE(max(newest.ends), 0) + $2::bigint, 0, $3::bytea"
          " FROM (SELECT state, since, ends FROM " +
          commits + " ORDER BY state DESC LIMIT 1) AS newest"};
  read_changes = {"read_blind_changes", "SELECT state, key FROM " + changes +
                                            " WHERE state > $1::bigint LIMIT $2::bigint"};
}

}  // namespace lscore

#include "statements.h"

#include <limits>

#include "format.h"

namespace lscore {
namespace {

constexpr std::array<char const*, kTreeCount> kTables = {"rows", "parts", "entries", "definitions",
                                                         "meta"};

// The trees with the column `number`.
bool MayHaveNumbers(std::size_t tree) {
  return static_cast<Tree>(tree) == Tree::kRows || static_cast<Tree>(tree) == Tree::kMeta;
}

std::string PutOf(std::string const& qualified, bool numbered) {
  if (!numbered) {
    return "INSERT INTO " + qualified +
           " (key, value) SELECT * FROM unnest($1::bytea[], $2::bytea[])"
           " ON CONFLICT (key) DO UPDATE SET value = EXCLUDED.value";
  }
  return "INSERT INTO " + qualified +
         " (key, value, number) SELECT * FROM unnest($1::bytea[], $2::bytea[], $3::bigint[])"
         " ON CONFLICT (key) DO UPDATE SET value = EXCLUDED.value, number = EXCLUDED.number";
}

TreeStatements StatementsOf(std::string const& schema, std::string const& table, bool numbered) {
  std::string const qualified = schema + "." + table;
  std::string const number = numbered ? ", number" : "";
  std::string const from = " FROM " + qualified;
  std::string const select = "SELECT key, value" + number + from;
  auto const named = [&](char const* name, std::string const& text) {
    return Statement{table + (numbered ? "_numbered_" : "_") + name, text};
  };
  TreeStatements made;
  made.numbered = numbered;
  made.get = named("get", "SELECT value" + number + from + " WHERE key = $1::bytea");
  made.get_many = named("get_many", select + " WHERE key = ANY ($1::bytea[])");
  made.get_range = named("get_range", select + " WHERE key >= $1::bytea AND key <= $2::bytea");
  made.seek_many = named("seek_many", "SELECT found.key, found.value, sought.key" +
                                          (numbered ? std::string(", found.number") : "") +
                                          " FROM unnest($1::bytea[]) AS sought (key)"
                                          " CROSS JOIN LATERAL (" +
                                          select +
                                          " AS one WHERE one.key >= sought.key ORDER BY one.key"
                                          " LIMIT 2) AS found ORDER BY sought.key, found.key");
  made.from = named("from", select + " WHERE key >= $1::bytea ORDER BY key LIMIT $2::bigint");
  made.after = named("after", select + " WHERE key > $1::bytea ORDER BY key LIMIT $2::bigint");
  made.before =
      named("before", select + " WHERE key < $1::bytea ORDER BY key DESC LIMIT $2::bigint");
  made.after_until = named("after_until", select +
                                              " WHERE key > $1::bytea AND key < $3::bytea"
                                              " ORDER BY key LIMIT $2::bigint");
  made.before_until = named("before_until", select +
                                                " WHERE key < $1::bytea AND key >= $3::bytea"
                                                " ORDER BY key DESC LIMIT $2::bigint");
  made.last = named("last", select + " ORDER BY key DESC LIMIT $1::bigint");
  made.put = named("put", PutOf(qualified, numbered));
  made.remove_range = named(
      "remove_range", "DELETE FROM " + qualified + " WHERE key >= $1::bytea AND key < $2::bytea");
  made.remove = named("remove", "DELETE FROM " + qualified + " WHERE key = ANY ($1::bytea[])");
  return made;
}

// Takes the lock on the state first, as commits do. Gives up soon where others read for long.
std::vector<Statement> AddNumbers(std::string const& schema) {
  std::vector<Statement> made = {{"add_numbers_begin", "BEGIN"},
                                 {"add_numbers_limit", "SET LOCAL lock_timeout TO 1000"}};
  std::string const raised = std::to_string(kTablesVersion - kPlainVersion);
  made.push_back({"add_numbers_version", "UPDATE " + schema + ".state SET version = version + " +
                                             raised + " WHERE version < " +
                                             std::to_string(kTablesVersion)});
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    if (!MayHaveNumbers(i)) continue;
    made.push_back(
        {std::string("add_numbers_") + kTables[i],
         "ALTER TABLE " + schema + "." + kTables[i] + " ADD COLUMN IF NOT EXISTS number bigint"});
  }
  made.push_back({"add_numbers_commit", "COMMIT"});
  return made;
}

std::string Literal(std::string const& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string literal = "'\\x";
  for (char const c : bytes) {
    literal.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
    literal.push_back(kDigits[static_cast<unsigned char>(c) & 15]);
  }
  return literal + "'";
}

}  // namespace

Statements::Statements(std::string const& schema) {
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    trees[i] = StatementsOf(schema, kTables[i], MayHaveNumbers(i));
    plain_trees[i] = StatementsOf(schema, kTables[i], false);
  }
  add_numbers = AddNumbers(schema);
  std::string const state = schema + ".state";
  std::string const tickets = schema + ".tickets";
  begin_snapshot = {"begin_snapshot", "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"};
  begin_batch = {"begin_batch", "BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE"};
  no_wait_for_disk = {"no_wait_for_disk", "SET LOCAL synchronous_commit TO off"};
  wait_for_disk = {"wait_for_disk", "SELECT txid_current()"};
  commit = {"commit", "COMMIT"};
  rollback = {"rollback", "ROLLBACK"};
  read_state = {"read_state", "SELECT id, version, listed FROM " + state};
  read_history = {"read_history",
                  "SELECT id, version, listed, (SELECT count(*) FROM " + tickets +
                      " WHERE ticket = $1::bytea AND committed), (SELECT ticket FROM " + tickets +
                      " WHERE state = id AND committed LIMIT 1) FROM " + state};
  lock_state = {"lock_state", "SELECT id, version, listed FROM " + state + " FOR UPDATE"};
  advance_state = {"advance_state",
                   "UPDATE " + state + " SET id = $1::bigint, listed = $2::bigint"};
  std::string const changes = schema + ".changes";
  read_changes = {"read_changes",
                  "SELECT key FROM " + changes + " WHERE state > $1::bigint LIMIT $2::bigint"};
  put_changes = {"put_changes", "INSERT INTO " + changes +
                                    " (state, key) SELECT $1::bigint, key"
                                    " FROM unnest($2::bytea[]) AS one (key)"};
  drop_changes = {"drop_changes", "DELETE FROM " + changes + " WHERE state <= $1::bigint"};
  put_ticket = {"put_ticket",
                "INSERT INTO " + tickets +
                    " (ticket, state, committed) VALUES ($1::bytea, $2::bigint, true)"};
  fence_ticket = {"fence_ticket", "INSERT INTO " + tickets +
                                      " (ticket, state, committed) SELECT $1::bytea, id, false"
                                      " FROM " +
                                      state +
                                      " ON CONFLICT (ticket) DO UPDATE"
                                      " SET committed = tickets.committed"};
  read_ticket = {"read_ticket",
                 "SELECT 1::bigint FROM " + tickets + " WHERE ticket = $1::bytea AND committed"};
  drop_tickets = {"drop_tickets", "DELETE FROM " + tickets + " WHERE state < $1::bigint"};
  // Locks the row of no commit, which is created with the tables.
  lock_creation = {"lock_creation",
                   "SELECT state FROM " + tickets + " WHERE ticket = ''::bytea FOR UPDATE NOWAIT"};

  std::string const layouts = schema + ".layouts";
  read_reservations = {"read_reservations", "SELECT number FROM " + layouts};
  reserve = {"reserve",
             "INSERT INTO " + layouts +
                 " (number, word) SELECT number, 0 FROM unnest($1::bigint[]) AS one (number)"
                 " ON CONFLICT (number) DO NOTHING RETURNING number"};
  read_word = {"read_word", "SELECT word FROM " + layouts + " WHERE number = $1::bigint"};
  replace_word = {"replace_word", "UPDATE " + layouts +
                                      " SET word = $3::bigint WHERE number = $1::bigint"
                                      " AND word = $2::bigint RETURNING number"};

  auto const add = [&](std::string const& text) {
    make.push_back({"make_" + std::to_string(make.size()), text});
  };
  add("CREATE SCHEMA IF NOT EXISTS " + schema);
  add("CREATE TABLE IF NOT EXISTS " + state +
      " (one boolean PRIMARY KEY CHECK (one), id bigint NOT NULL, version bigint NOT NULL,"
      " listed bigint NOT NULL)");
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    add("CREATE TABLE IF NOT EXISTS " + schema + "." + kTables[i] +
        " (key bytea PRIMARY KEY, value bytea NOT NULL" +
        (MayHaveNumbers(i) ? ", number bigint)" : ")"));
  }
  add("CREATE TABLE IF NOT EXISTS " + layouts +
      " (number bigint PRIMARY KEY, word bigint NOT NULL)");
  add("INSERT INTO " + layouts + " (number, word) VALUES (0, 0) ON CONFLICT (number) DO NOTHING");
  add("CREATE TABLE IF NOT EXISTS " + tickets +
      " (ticket bytea PRIMARY KEY, state bigint NOT NULL, committed boolean NOT NULL)");
  add("INSERT INTO " + tickets + " (ticket, state, committed) VALUES (''::bytea, " +
      std::to_string(std::numeric_limits<std::int64_t>::max()) +
      ", false) ON CONFLICT (ticket) DO NOTHING");
  add("CREATE INDEX IF NOT EXISTS tickets_by_state ON " + tickets + " (state)");
  add("CREATE TABLE IF NOT EXISTS " + changes +
      " (state bigint, key bytea, PRIMARY KEY (state, key))");
  add("INSERT INTO " + schema + ".meta (key, value) VALUES (" +
      Literal(std::string(format::kFormatKey)) + "::bytea, " +
      Literal(format::FormatRecord(format::kFirstVersion)) +
      "::bytea) ON CONFLICT (key) DO NOTHING");
  add("INSERT INTO " + state + " (one, id, version, listed) VALUES (true, 1, " +
      std::to_string(kTablesVersion) + ", 1) ON CONFLICT (one) DO NOTHING");

  std::string const known = "FROM information_schema.tables WHERE table_schema = $1::text";
  std::string names = "'tickets', 'layouts', 'changes'";
  for (char const* const table : kTables) names.append(", '").append(table).append("'");
  find_foreign = {"find_foreign", "SELECT 1::bigint " + known + " AND table_name IN (" + names +
                                      ") AND NOT EXISTS (SELECT 1 " + known +
                                      " AND table_name = 'state')"};
  drop_tables = {"drop_tables", "DROP TABLE IF EXISTS " + layouts};
  for (std::string const& table : {tickets, state, changes}) drop_tables.text += ", " + table;
  for (char const* const table : kTables) {
    drop_tables.text.append(", ").append(schema).append(".").append(table);
  }
}

}  // namespace lscore

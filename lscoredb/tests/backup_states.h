#ifndef LSCOREDB_TESTS_BACKUP_STATES_H
#define LSCOREDB_TESTS_BACKUP_STATES_H

// What tests of backups write and compare.

#include <map>
#include <utility>

#include "kernel_test.h"

namespace lscoredb_test {

inline constexpr std::uint64_t kLots = std::uint64_t{1} << 40;
inline constexpr std::uint64_t kNumberToken = 100;
inline constexpr std::uint64_t kIndexToken = 60;
inline constexpr std::uint64_t kLayoutToken = 50;

inline lscoredb_options WithSmallLog() {
  lscoredb_options options = NoSync();
  options.log = LSCOREDB_LOG;
  options.log_limit = 64 * 1024;
  return options;
}

// The layout and the index of the objects, if the database has none yet.
inline LayoutId MakeLayout(Session& session) {
  session.Begin();
  if (session.LayoutsByToken(kLayoutToken).empty()) {
    session.CreateLayout(kLayoutToken, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_STRING, 101}});
    session.CreateIndex(kIndexToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
  }
  LayoutId const layout = session.LayoutsByToken(kLayoutToken).back();
  session.Commit();
  return layout;
}

// The number and the text of each object.
using State = std::map<Oid, std::pair<std::int64_t, Text>>;

inline State StateOf(Database const& database) {
  Session session(database);
  session.BeginReadOnly();
  State state;
  for (IndexId const index : session.IndexesByToken(kIndexToken)) {
    for (Oid const oid : session.Scan(index)) {
      state[oid] = {session.Long(oid, 2).value_or(-1), session.String(oid, 3).value_or(u"")};
    }
  }
  return state;
}

}  // namespace lscoredb_test

#endif

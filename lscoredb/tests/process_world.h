#ifndef LSCOREDB_TESTS_PROCESS_WORLD_H
#define LSCOREDB_TESTS_PROCESS_WORLD_H

// What the process tests and their other process both know: rows in pairs that cancel each other
// out, so that half a transaction shows.

#include "kernel_test.h"

namespace lscoredb_test {

inline constexpr std::uint32_t kPairValue = 2;
inline constexpr std::uint64_t kPairTable = 50;
inline constexpr std::uint64_t kPairValueToken = 100;
inline constexpr std::uint64_t kPairIndex = 60;

// Finds the table and its index in the open transaction, or makes them.
struct PairWorld {
  LayoutId layout;
  IndexId index;

  explicit PairWorld(Session& session) {
    std::vector<LayoutId> const layouts = session.LayoutsByToken(kPairTable);
    layout = layouts.empty() ? session.CreateLayout(kPairTable, {{LORV_TYPE_LONG, kPairValueToken}})
                             : layouts[0];
    std::vector<IndexId> const indexes = session.IndexesByToken(kPairIndex);
    index = indexes.empty()
                ? session.CreateIndex(kPairIndex, kSet, {{LORV_TYPE_LONG, kPairValueToken}})
                : indexes[0];
  }
};

// Commits one pair and returns its first row.
inline Oid CommitPair(Session& session, std::int64_t value) {
  session.Begin();
  PairWorld const world(session);
  Oid const first = session.Insert(world.layout);
  session.PutLong(first, kPairValue, value);
  session.PutLong(session.Insert(world.layout), kPairValue, -value);
  session.Commit();
  return first;
}

}  // namespace lscoredb_test

#endif

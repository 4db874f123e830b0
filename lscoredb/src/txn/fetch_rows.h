#ifndef LSCOREDB_SRC_FETCH_ROWS_H
#define LSCOREDB_SRC_FETCH_ROWS_H

// What a scan reads, and how rows that will soon be read are fetched.

#include <cstdint>
#include <span>
#include <vector>

#include "pending.h"
#include "shared_row_cache.h"
#include "store.h"
#include "transaction_row_cache.h"

namespace lscore {

using RowsInUse = TransactionRowCache<RowRef>;

// The first objects of the scan that was begun last, from a server: whoever reads the first one
// will probably read the others.
struct FirstRows {
  ObjectId first{};
  std::vector<std::uint64_t> ids;
};

// What a scan reads from its transaction. Pointers, since an iterator is reused.
struct ScanSource {
  Snapshot const* snapshot = nullptr;
  PendingChanges const* changes = nullptr;
  RowsInUse const* rows = nullptr;
  SharedRowCache::Reader* shared_rows = nullptr;
  Sequence seen = 0;  // the scan sees writes up to this one
  bool far = false;   // reading a row takes a round trip to a server
  FirstRows* first_rows = nullptr;
};

// From a server: the rows that are not cached come in one round trip for each 8192, and the
// snapshot keeps them. From memory: the rows are brought into the processor's cache, which waits
// for nothing. Returns how many rows of a server were not cached.
std::size_t FetchRows(ScanSource const& source, std::span<std::uint64_t const> ids);

}  // namespace lscore

#endif

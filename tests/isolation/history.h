#ifndef SAGLEME_TESTS_ISOLATION_HISTORY_H
#define SAGLEME_TESTS_ISOLATION_HISTORY_H

// What transactions did, and whether snapshot isolation allows it.
//
// Every transaction has a number of its own and leaves it in each object that it writes, so that a
// read shows whose version it saw. It reads an object before it writes it, so that the versions of
// an object form a chain. Ticks come from one clock of the process; they are taken outside the
// calls, so that the true moment of a call lies between its two ticks. A history and its check are
// plain values, without threads.
//
// Violations looks for these, and says in words what it found:
//
//   1. A version that was read is that of a committed transaction, or the first one.
//   2. A transaction sees one version of an object.
//   3. A version is replaced by one committed transaction only (first committer wins: no update is
//      lost).
//   4. No version is read whose commit was called after the reader's begin had returned.
//   5. No version is read whose successor's commit had returned before the reader's begin was
//      called.
//   6. There is an order that explains all that was read: no circle of dependencies but those with
//      two anti-dependencies in a row, which snapshot isolation allows. A transaction that began
//      after another's commit had returned depends on that one.
//   7. A transaction that was refused because of a conflict had one: another one committed a change
//      of an object that it wrote, after its begin.

#include <cstdint>
#include <string>
#include <vector>

namespace sagleme_isolation {

using Number = std::uint64_t;  // of a transaction; 0: what was there before the history
using Oid = std::uint64_t;
using Tick = std::uint64_t;

inline constexpr Number kBefore = 0;

enum class Outcome { kCommitted, kConflict, kAbandoned };

struct Read {
  Oid object;
  Number version;
};

struct Write {
  Oid object;
  Number replaced;  // the version that the writer had read; kBefore for a new object
};

struct Record {
  Number number = 0;
  Tick begin_called = 0;
  Tick begin_returned = 0;
  Tick end_called = 0;
  Tick end_returned = 0;
  Outcome outcome = Outcome::kAbandoned;
  std::vector<Read> reads;  // of versions that others wrote
  std::vector<Write> writes;
};

using History = std::vector<Record>;

// Empty when the history is one that snapshot isolation allows.
std::vector<std::string> Violations(History const& history);

}  // namespace sagleme_isolation

#endif

#ifndef SAGLEME_VACUUM_HPP
#define SAGLEME_VACUUM_HPP

// Works off what schema changes leave behind: objects under superseded layouts, objects of dropped
// tables, and then the layouts themselves.
//
// A request names a set specifier and concerns the objects of exactly that set. A move brings each
// object that has another layout than the one expected to it, values kept by column, new columns
// null or zero. A removal deletes each object; the rows of the set specifier and of the type id
// stay, since neither is ever used again. A request goes in a transaction that has seen no such
// object left, and the request as it was read.
//
// Objects of a dropped table that no request speaks of go too: handles that were left could store
// them where a drop did not close its set. A run closes the sets of dropped tables that are open.
//
// At its end a run releases the kernel layouts that no row of the catalogue names and no object
// stands under, those that earlier runs left among them. Their numbers are given out again once
// every process has ended that had the database open, see lscoredb_release_layout.
//
// Every batch is a transaction of its own, opened in the context given, which must have none open.
// A run can end after any of them, also by the death of the process, and the next one goes on.
// Other writers may work meanwhile: a batch that meets them is tried again. One vacuum at a time is
// enough; two do no harm but step on each other's toes.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

struct VacuumRequest {
  enum class Kind : std::uint64_t { kMove = 1, kRemove = 2 };

  ObjectId row;
  std::u16string setspec;
  std::uint16_t layout = 0;
  Kind kind = Kind::kMove;
};

// What was done so far, told after each batch.
struct VacuumProgress {
  std::uint64_t moved = 0;
  std::uint64_t removed = 0;
  std::uint64_t requests_done = 0;
  std::uint64_t requests = 0;   // that were there at the beginning
  std::uint64_t conflicts = 0;  // batches that were tried again
  std::uint64_t released = 0;   // layouts
};

struct VacuumOptions {
  std::uint32_t batch = 1000;          // objects in a transaction, at least 1
  std::chrono::milliseconds pause{0};  // between batches
  std::uint32_t attempts = 1000;       // at one batch, before the conflict is passed on
  // Called after each committed batch; false ends the run there.
  std::function<bool(VacuumProgress const&)> report;
};

// The requests as a transaction sees them.
SAGLEME_HOST_API std::vector<VacuumRequest> VacuumRequests(Transaction& transaction);

// Works off the requests that are there, and returns what was done. Error when a batch fails for
// another reason than a conflict; what was committed before stays done.
SAGLEME_HOST_API VacuumProgress RunVacuum(Context const& context,
                                          VacuumOptions const& options = {});

}  // namespace sagleme

#endif

#ifndef SAGLEME_VACUUM_HPP
#define SAGLEME_VACUUM_HPP

// Cleans up after schema changes: objects under superseded layouts, objects of dropped tables, and
// then the layouts themselves.
//
// A request names a set specifier and concerns the objects of exactly that set. A move brings each
// object to the expected layout, keeps values by column, and sets new columns to null or zero. A
// removal deletes each object; the rows of the set specifier and of the type id stay, since neither
// is ever reused. A transaction that sees no such objects left deletes the request, if it is
// unchanged.
//
// Objects of a dropped table without a request are removed too: old handles could create them if
// the drop did not close the set. A run closes the open sets of dropped tables.
//
// Finally a run releases the kernel layouts that no catalogue row names and that have no objects,
// including those that earlier runs left. Their numbers are reused once every process that had the
// database open has ended, see lscoredb_release_layout.
//
// Each batch is a separate transaction in the given context, which must have none open. A run may
// end after any batch, even by the death of the process, and the next run continues. Other writers
// may work meanwhile: a batch that conflicts with them is retried. Run one vacuum at a time; two do
// no harm but conflict with each other. A run that does not end with its first batch is a job
// (<sagleme/jobs.hpp>), and takes up one that was cut off.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/jobs.hpp>
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

// Progress so far, reported after each batch.
struct VacuumProgress {
  std::uint64_t moved = 0;
  std::uint64_t removed = 0;
  std::uint64_t requests_done = 0;
  std::uint64_t requests = 0;   // found at the beginning
  std::uint64_t conflicts = 0;  // batches that were retried
  std::uint64_t released = 0;   // layouts
};

struct VacuumOptions {
  std::uint32_t batch = 1000;          // objects in a transaction, at least 1
  std::chrono::milliseconds pause{0};  // between batches
  std::uint32_t attempts = 1000;       // per batch, before the conflict is reported
  // Called after each committed batch; false ends the run there.
  std::function<bool(VacuumProgress const&)> report;
  JobControl const* control = nullptr;  // may end the run from another thread
};

// The requests that a transaction sees.
SAGLEME_HOST_API std::vector<VacuumRequest> VacuumRequests(Transaction& transaction);

// The number of objects under layouts that no table has any longer.
SAGLEME_HOST_API std::uint64_t ObjectsToVacuum(Transaction& transaction);

// Processes the existing requests, and returns what was done. Throws Error if a batch fails for
// another reason than a conflict; committed batches stay.
SAGLEME_HOST_API VacuumProgress RunVacuum(Context const& context,
                                          VacuumOptions const& options = {});

}  // namespace sagleme

#endif

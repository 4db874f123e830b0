#include "status.h"

namespace lscore {
namespace {

struct Entry {
  Status status;
  char const* text;
};

constexpr Entry kTexts[] = {
    {LORV_STATUS_OK, "Success."},
    {LSCOREDB_NO_MEMORY, "Out of memory."},
    {LORV_STATUS_UNREACHABLE, "The object was deleted by this transaction."},
    {LORV_STATUS_NO_INDEX, "There is no such index."},
    {LORV_STATUS_NULL, "The column has no value."},
    {LORV_STATUS_NO_OBJECT, "There is no object with this identity."},
    {LORV_STATUS_DUPLICATE_TOKEN, "Two columns of a layout carry the same token."},
    {LSCOREDB_NO_TRANSACTION, "The context has no open transaction."},
    {LSCOREDB_TRANSACTION_OPEN, "The context has an open transaction already."},
    {LSCOREDB_READ_ONLY, "The transaction is read-only."},
    {LSCOREDB_UNKNOWN_CONTEXT, "There is no such context."},
    {LSCOREDB_UNKNOWN_ITERATOR, "There is no such iterator."},
    {LSCOREDB_UNKNOWN_LAYOUT, "There is no such layout."},
    {LSCOREDB_UNKNOWN_COLUMN, "The layout has no such column."},
    {LSCOREDB_WRONG_TYPE, "The column has another type, or cannot be written in this way."},
    {LSCOREDB_NULL_ARGUMENT, "A pointer that is needed is null."},
    {LSCOREDB_INVALID_ARGUMENT, "An argument is outside of what is allowed."},
    {LSCOREDB_MALFORMED_KEY, "The key is not one of this index."},
    {LSCOREDB_UNKNOWN_SAVEPOINT, "The transaction has no such savepoint, or has it no more."},
    {LSCOREDB_ROLLED_BACK, "The iterator was opened behind a savepoint that was rolled back to."},
    {LSCOREDB_CONFLICT, "Another transaction changed the same data and was committed first."},
    {LSCOREDB_DUPLICATE_KEY, "A unique index holds this key already."},
    {LSCOREDB_ID_IN_USE, "The identity is in use or was given out before."},
    {LSCOREDB_ID_GIVEN_OUT,
     "The identity was used before, or is reserved for those that the database gives itself."},
    {LSCOREDB_TOO_LARGE, "A value is larger than the database can hold."},
    {LSCOREDB_LAYOUTS_EXHAUSTED, "All layout numbers are in use."},
    {LSCOREDB_LAYOUT_IN_USE, "Objects stand under the layout."},
    {LSCOREDB_IN_USE, "The database still has open contexts."},
    {LSCOREDB_NOT_A_DATABASE, "The files are not a database of this kernel."},
    {LSCOREDB_NEWER_FORMAT, "The database was written by a newer version of this kernel."},
    {LSCOREDB_DAMAGED, "The database is damaged."},
    {LSCOREDB_CANNOT_OPEN, "The database cannot be opened or created there."},
    {LSCOREDB_MAP_FULL, "The database has reached its largest size."},
    {LSCOREDB_DISK_FULL, "The disk is full."},
    {LSCOREDB_IO_ERROR, "Reading or writing the database failed."},
    {LSCOREDB_TOO_MANY_READERS, "Too many transactions are open at once."},
    {LSCOREDB_OF_PARENT, "The database was opened by a process that this one was forked from."},
};

}  // namespace

char const* StatusText(Status status) noexcept {
  for (Entry const& entry : kTexts) {
    if (entry.status == status) return entry.text;
  }
  return "This number is no status of the storage kernel.";
}

char const* Failure::what() const noexcept { return StatusText(status_); }

void Throw(Status status) { throw Failure(status); }

}  // namespace lscore

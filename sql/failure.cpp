#include "failure.h"

#include <lscoredb/watch.h>

#include <utility>

namespace sagleme::sql {
namespace {

constexpr int kPrimary = 0xFF;  // the rest says more of the same

struct Last {
  int code;
  std::uint32_t status;
};
thread_local Last last = {SQLITE_OK, 0};

}  // namespace

std::uint32_t TakeLastStatus(int code) {
  Last const taken = std::exchange(last, {SQLITE_OK, 0});
  return (taken.code & kPrimary) == (code & kPrimary) ? taken.status : 0;
}

void NoteStatus(int code, std::uint32_t status) noexcept { last = {code, status}; }

int ResultCode(std::uint32_t status) {
  switch (status) {
    case LSCOREDB_STOPPED:
      return SQLITE_INTERRUPT;
    case LSCOREDB_CONFLICT:
      // The transaction is over and can be run again; waiting for a lock would not help.
      return SQLITE_BUSY_SNAPSHOT;
    case LSCOREDB_TOO_MANY_READERS:
    case LSCOREDB_IN_USE:
      return SQLITE_BUSY;
    case LSCOREDB_DUPLICATE_KEY:
    case LSCOREDB_ID_IN_USE:
    case LSCOREDB_ID_GIVEN_OUT:
      return SQLITE_CONSTRAINT;
    case LSCOREDB_NO_MEMORY:
      return SQLITE_NOMEM;
    case LSCOREDB_WRITE_REFUSED:
      return SQLITE_READONLY;
    case LSCOREDB_TOO_LARGE:
      return SQLITE_TOOBIG;
    case LSCOREDB_MAP_FULL:
    case LSCOREDB_DISK_FULL:
      return SQLITE_FULL;
    case LSCOREDB_IO_ERROR:
      return SQLITE_IOERR;
    case LSCOREDB_DAMAGED:
      return SQLITE_CORRUPT;
    case LSCOREDB_CANNOT_OPEN:
      return SQLITE_CANTOPEN;
    case LSCOREDB_NOT_A_DATABASE:
    case LSCOREDB_NEWER_FORMAT:
      return SQLITE_NOTADB;
    default:
      return SQLITE_ERROR;
  }
}

}  // namespace sagleme::sql

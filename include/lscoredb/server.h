#ifndef LSCOREDB_SERVER_H
#define LSCOREDB_SERVER_H

/*
 * Databases on a server. Where host.h takes a directory, it also takes the URL of a schema on a
 * PostgreSQL server: "postgresql://user@host/database?schema=shop" (docs/many-machines.md).
 */

#include <lscoredb/host.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1 if the place is the URL of a server, 0 if it is a directory or NULL. */
LSCOREDB_API uint32_t lscoredb_is_url(char const* place);

/* Writes the place as it may be shown to anybody: a URL with "***" for each of its passwords, a
 * directory unchanged. `out` has `room` bytes; a longer text is cut, and always ends with a zero
 * byte. With a room of 0 nothing is written. Returns the length of the whole text without its zero
 * byte; 0 for NULL, and if memory runs out. */
LSCOREDB_API size_t lscoredb_shown_place(char const* place, size_t room, char* out);

/* Takes the lock for creating the contents of a new database, and waits while another process on
 * any machine holds it. The lock is held until lscoredb_unlock_creation or lscoredb_close, or until
 * the process ends. Does nothing for a database that is not on a server: lock its directory.
 * LSCOREDB_IN_USE: this handle holds the lock. LSCOREDB_CANNOT_OPEN: another process has held it
 * for more than ten times the URL's `timeout`; lscoredb_open_error says so.
 * LSCOREDB_SERVER_LOST: no server answers. */
LSCOREDB_API uint32_t lscoredb_lock_creation(lscoredb* database);
LSCOREDB_API uint32_t lscoredb_unlock_creation(lscoredb* database);

/* Asks the server for the outcome of the context's last lscoredb_commit, which returned
 * LSCOREDB_COMMIT_UNKNOWN. Call it before the context's next lscoredb_begin, as often as needed.
 * Writes 1 to `*out` if the transaction was committed and 0 if it was not; the answer is final.
 * LSCOREDB_COMMIT_UNKNOWN: the server cannot be reached, or 100,000 commits later it has forgotten.
 * LSCOREDB_NO_TRANSACTION: the context's last commit has a known outcome. */
LSCOREDB_API uint32_t lscoredb_commit_outcome(uint64_t context, uint32_t* out);

#ifdef __cplusplus
}
#endif

#endif

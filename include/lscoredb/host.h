#ifndef LSCOREDB_HOST_H
#define LSCOREDB_HOST_H

/*
 * The host's side of the embedded storage kernel: databases, contexts, transactions.
 *
 * Rules
 *
 *  1. A database is a directory, or is in memory and gone at close. Several processes may open one
 *     directory, and one process may open it several times. A forked process must open it again:
 *     the parent's contexts and iterators do not exist in it, calls with the parent's databases
 *     return LSCOREDB_OF_PARENT, and closing one does nothing and returns 0.
 *  2. A context has at most one transaction. Any number of contexts may be open; only one thread at
 *     a time may use a context.
 *  3. A transaction reads the database as it was when the transaction began, plus its own writes.
 *     Readers never wait for writers; writers wait for each other only inside commit. If two
 *     transactions write one object, the second to commit fails with LSCOREDB_CONFLICT.
 *  4. A commit that returned 0 is permanent; with the default durability it also survives a power
 *     failure. A commit that returned anything else left no trace, and its transaction has ended.
 *  5. Every function returns a status, 0 for success. A function that fails writes no output and
 *     changes nothing. lscoredb_status_text describes each status.
 *  6. Identities of objects and indexes are never reused; those of a rolled-back transaction not
 *     while the process lives. Processes reserve them in blocks, in ascending order. A host may
 *     choose identities with lorvi_context_insert_with_id: from the first unreserved one up to
 *     2^63 - 1, any that no committed object ever had; below that, those that lscoredb_raise_ids
 *     left free and those that a reservation skipped because hosts had chosen nearby ones. Others
 *     give LSCOREDB_ID_GIVEN_OUT, or LSCOREDB_ID_IN_USE if an object has the identity. The kernel
 *     avoids chosen identities; if another process reserves a block around one that is not yet
 *     committed, that commit gives LSCOREDB_ID_GIVEN_OUT.
 *  7. A layout number that a transaction took is not reused while any process that knows it has the
 *     database open, even if the transaction was rolled back. Afterwards the numbers of rolled-back
 *     transactions and of released layouts (lscoredb_release_layout) are free. So forget anything
 *     kept by layout number, or by any other number of a database, at the database's last close:
 *     attach it (lscoredb_attach). Each process keeps the directory's "layouts.lock" open and
 *     locked from its first open to its last close.
 *  8. A process may use any number of databases, one after another or at the same time. The last
 *     lscoredb_close of a database releases all its memory, mappings, descriptors and locks.
 *
 * Any function may return these statuses, which are not repeated below: LSCOREDB_UNKNOWN_CONTEXT
 * for a context that is not open, LSCOREDB_NULL_ARGUMENT, LSCOREDB_NO_MEMORY, LSCOREDB_IO_ERROR,
 * LSCOREDB_DAMAGED.
 *
 * Limits: 1,000 columns in a layout, 1,024 columns in an index, 65,535 layout numbers, 2^32 - 1
 * bytes in a binary or units in a text. Texts of any length may be indexed.
 */

#include <lscoredb/lscoredb.h>
#include <lscoredb/statuses.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lscoredb lscoredb;

/* ---- opening --------------------------------------------------------------------------------- */

#define LSCOREDB_DURABLE 0u /* every commit is synced before it returns */
#define LSCOREDB_NO_SYNC 1u /* survives the death of the process, not of the machine */

/* Whether commits go to a log first: each is one write and one sync, and many reach the data file
 * together later. A directory that has a log keeps it, whatever this option says. A directory
 * without one, new or older, gets one when it is opened for writing and no other process has it
 * open; programs that do not know logs then refuse it with LSCOREDB_NEWER_FORMAT. Databases in
 * memory and on servers have none.
 *
 * DEFAULT: as above, unless the directory was opened with LSCOREDB_NO_LOG before. If the log cannot
 * be made, on a full disk for example, the directory stays as it is.
 * LOG: as above, in any case. If the log cannot be made, the opening fails.
 * NO_LOG: the directory gets none, and remembers that for later openings. Whatever commits need is
 * in the data file; docs/format.md says which programs can read it.
 * SAME_LOG: the directory stays as it is, and remembers nothing. */
#define LSCOREDB_DEFAULT_LOG 0u
#define LSCOREDB_LOG 1u
#define LSCOREDB_NO_LOG 2u
#define LSCOREDB_SAME_LOG 3u

/* How a database is opened. On a server, AUTOMATIC is the same as WRITE. */
#define LSCOREDB_ACCESS_AUTOMATIC 0u /* read and write, or only read if writing is not possible */
#define LSCOREDB_ACCESS_READ 1u      /* only read; creates nothing */
#define LSCOREDB_ACCESS_WRITE 2u     /* read and write, or fail */

#define LSCOREDB_NO_ROW_MEMORY UINT64_MAX

/* Set `size` to sizeof(lscoredb_options) and the rest to 0 for the defaults. Fields beyond `size`
 * count as 0. */
typedef struct lscoredb_options {
  size_t size;
  uint32_t durability;
  uint32_t max_readers;   /* open transactions at once, of all processes; 0: 1024 */
  uint64_t max_file_size; /* bytes; 0: 64 GiB. Address space, not memory */
  /* 1: reads every used page first; LSCOREDB_DAMAGED if they are inconsistent. 0: reads a few. */
  uint32_t verify;
  uint32_t log; /* LSCOREDB_DEFAULT_LOG, LSCOREDB_LOG, LSCOREDB_NO_LOG, LSCOREDB_SAME_LOG */
  /* Bytes of memory in which all contexts of the process share rows that were read, so that the
   * next reader need not go to the file. 0: 256 MiB; LSCOREDB_NO_ROW_MEMORY: none. Memory is
   * allocated as rows come in. While old transactions last, usage may be a quarter higher; the
   * lookup table takes another sixteenth. Rows above 64 KiB are always read from the file. All
   * databases of the process share one budget, the largest that an open one was given. Each is
   * guaranteed half of an equal share. */
  uint64_t row_memory;
  /* Log size in bytes that triggers a checkpoint, which writes the log's content to the data file.
   * 0: 16 MiB; otherwise from 64 KiB to 1 GiB. Changes are in memory until then, where small ones
   * take more room: up to eight times this size. A larger commit goes to the data file at once. */
  uint64_t log_limit;
  uint32_t access; /* LSCOREDB_ACCESS_* */
} lscoredb_options;

/* Opens or creates the database in `directory`, which is created if necessary. NULL opens a new one
 * in memory. Instead of a directory, the URL of a schema on a PostgreSQL server may be given
 * ("postgresql://user@host/database?schema=shop"; docs/many-machines.md). `options` may be NULL. If
 * the process already has the directory open, both share one store, and the stricter durability
 * applies to both.
 *
 * LSCOREDB_CANNOT_OPEN: no such directory, or no permission. LSCOREDB_NOT_A_DATABASE: the file is
 * not a database. LSCOREDB_NEWER_FORMAT: a later version wrote it. LSCOREDB_DAMAGED: it is
 * truncated or inconsistent. LSCOREDB_SERVER_LOST: no server answers. LSCOREDB_INVALID_ARGUMENT: an
 * option is out of range.
 *
 * A directory that cannot be written (read-only or full disk, another user's files) is opened only
 * for reading: calls that write give LSCOREDB_READ_ONLY_DATABASE. A process that may write
 * "lock.mdb" reads alongside writers, with a log one that may write "log.lock" too. One that may
 * not excludes them while it reads, and gets LSCOREDB_CANNOT_OPEN while a writer has the directory
 * open. */
LSCOREDB_API uint32_t lscoredb_open(char const* directory, lscoredb_options const* options,
                                    lscoredb** out);
/* Writes to `*out` whether a directory or URL holds a database. Fails if no server answers. */
LSCOREDB_API uint32_t lscoredb_exists(char const* directory, uint32_t* out);
/* After a lscoredb_open, lscoredb_exists, lscoredb_copy or a call of backup.h of this thread that
 * failed, or a lscoredb_open that opened only for reading: the file or directory that the system
 * refused, or the server's message, and the reason: "shelf/layouts.lock: Permission denied". Empty
 * if nothing was refused. Valid until the thread's next call of one of these functions. */
LSCOREDB_API char const* lscoredb_open_error(void);
/* Closes a database; the pointer is then invalid. LSCOREDB_IN_USE: contexts are open. */
LSCOREDB_API uint32_t lscoredb_close(lscoredb* database);

/* ---- contexts -------------------------------------------------------------------------------- */

/* Opens a context. A handle is never 0 and is not reused after it is closed. */
LSCOREDB_API uint32_t lscoredb_context_open(lscoredb* database, uint64_t* out_context);
/* Closes a context and its iterators; rolls back its open transaction. */
LSCOREDB_API uint32_t lscoredb_context_close(uint64_t context);

/* ---- what users keep with a database or a context ------------------------------------------- */

/* The number of the database that a context belongs to, never 0. All openings of one directory that
 * overlap share it; the next opening after the last close gets a new one. A process never sees a
 * number twice. */
LSCOREDB_API uint32_t lscoredb_database_number(uint64_t context, uint64_t* out);

/* The permanent identity of the database that a context belongs to: a random number below 2^53. The
 * first commit assigns it, in a new database or one that an earlier version wrote; until then it is
 * 0. A copy, made by lscoredb_copy or of the files, has the same identity. Needs no transaction.
 * LSCOREDB_TOO_MANY_READERS. */
LSCOREDB_API uint32_t lscoredb_identity(uint64_t context, uint64_t* out);

/* Receives an attached value once, when its owner ends. By then no context of the database is open,
 * or the context is closed. */
typedef void (*lscoredb_release_callback)(void* value);

/* Attaches `value` to the context's database under `key`, the address of something that the caller
 * owns. The database's last close calls `release`, which may be NULL; values are released in
 * reverse order. If the key already has a value, that value stays and is returned, and the caller
 * still owns `value`. May be called on any thread. */
LSCOREDB_API uint32_t lscoredb_attach(uint64_t context, void const* key, void* value,
                                      lscoredb_release_callback release, void** out);
/* Gets the value under the key, or NULL. Takes no lock. */
LSCOREDB_API uint32_t lscoredb_attached(uint64_t context, void const* key, void** out);
/* The same for values that end with the context, in lscoredb_context_close. */
LSCOREDB_API uint32_t lscoredb_context_attach(uint64_t context, void const* key, void* value,
                                              lscoredb_release_callback release, void** out);
LSCOREDB_API uint32_t lscoredb_context_attached(uint64_t context, void const* key, void** out);

/* ---- transactions ---------------------------------------------------------------------------- */

#define LSCOREDB_READ_WRITE 0u
#define LSCOREDB_READ_ONLY_TRANSACTION 1u

/* Takes a snapshot of the database to read and write. LSCOREDB_TRANSACTION_OPEN: the context
 * already has a transaction. LSCOREDB_TOO_MANY_READERS: too many transactions are open. */
LSCOREDB_API uint32_t lscoredb_begin(uint64_t context, uint32_t flags);
/* Makes the transaction's writes visible to later transactions, and permanent. The transaction ends
 * whatever the status. LSCOREDB_NO_TRANSACTION: none is open. LSCOREDB_CONFLICT: since the
 * snapshot, another transaction has committed a change of the same object, or of the set of an
 * index created here; run the work again. LSCOREDB_ID_GIVEN_OUT: see rule 6. LSCOREDB_SET_CLOSED:
 * see lscoredb_close_set. LSCOREDB_DUPLICATE_KEY: a unique index would hold a key twice.
 * LSCOREDB_MAP_FULL, LSCOREDB_DISK_FULL: no room. */
LSCOREDB_API uint32_t lscoredb_commit(uint64_t context);
/* Ends the transaction and discards its writes. */
LSCOREDB_API uint32_t lscoredb_rollback(uint64_t context);

/* Savepoints. A transaction, even a read-only one, may have any number of nested savepoints; they
 * end with it. While one is open, each write also records how to undo it; nothing else is copied.
 *
 * Sets a savepoint. Its number is never 0 and unique in the process. */
LSCOREDB_API uint32_t lscoredb_savepoint(uint64_t context, uint64_t* out);
/* Undoes everything written since the savepoint: objects and their values, index entries, layouts,
 * indexes, releases of layouts, closings of sets, lscoredb_require. The time is proportional to
 * what was written since. The savepoint stays and may be rolled back to again; later ones end. The
 * transaction is then as it was at the savepoint, even if a write in between failed, with these
 * exceptions:
 * - identities and layout numbers allocated since are not reused;
 * - iterators opened since have ended: they return LSCOREDB_ROLLED_BACK until they are freed.
 *   Earlier ones continue over their range as it was when they were opened;
 * - read scopes are unchanged, and strings and binaries returned since stay valid until their scope
 *   ends.
 *
 * Refresh whatever you keep of the schema, such as handles, as after lscoredb_rollback.
 * LSCOREDB_UNKNOWN_SAVEPOINT: not a savepoint of this transaction, or already ended. */
LSCOREDB_API uint32_t lscoredb_rollback_to(uint64_t context, uint64_t savepoint);
/* Ends the savepoint and later ones. Their writes stay, and are undone by a rollback to an earlier
 * savepoint. LSCOREDB_UNKNOWN_SAVEPOINT as above. */
LSCOREDB_API uint32_t lscoredb_release(uint64_t context, uint64_t savepoint);

/* Makes the commit fail with LSCOREDB_CONFLICT if another transaction has changed or deleted the
 * object since the snapshot, as if this transaction had written it. Transactions that require the
 * same object do not conflict with each other. Also works if the transaction writes nothing. Use it
 * for rules that involve two objects: a transaction that creates a reference requires its target.
 * LORV_STATUS_NO_OBJECT. LORV_STATUS_UNREACHABLE: deleted by this transaction.
 * LSCOREDB_WRITE_REFUSED. */
LSCOREDB_API uint32_t lscoredb_require(uint64_t context, uint64_t oid);

/* A read scope limits the lifetime, and thus the memory, of strings and binaries returned inside
 * it. Scopes nest; the transaction's end ends all its scopes. LSCOREDB_INVALID_ARGUMENT: an end
 * without a begin. */
LSCOREDB_API uint32_t lscoredb_read_scope_begin(uint64_t context);
LSCOREDB_API uint32_t lscoredb_read_scope_end(uint64_t context);

/* ---- upkeep ---------------------------------------------------------------------------------- */

/* Moves an object to another layout. Columns are matched by token; values of common columns are
 * kept, the others become null or zero. LORV_STATUS_NO_OBJECT, LSCOREDB_UNKNOWN_LAYOUT,
 * LSCOREDB_WRITE_REFUSED. */
LSCOREDB_API uint32_t lscoredb_move_object(uint64_t context, uint64_t oid, uint16_t layout);

typedef struct lscoredb_layout_statistics {
  uint16_t layout;
  uint64_t token;
  uint64_t objects; /* objects under this layout, as the transaction sees them */
} lscoredb_layout_statistics;

/* On entry `*count` is the capacity of `out`; on return it is the number of layouts, which are in
 * ascending order. Released layouts without objects are left out. */
LSCOREDB_API uint32_t lscoredb_layout_stats(uint64_t context, uint32_t* count,
                                            lscoredb_layout_statistics* out);

/* Declares that nothing uses a layout any more: no catalogue of the host, and nothing that will be
 * created from one. Processes that know the layout are unaffected, and may still write objects
 * under it. The next process that opens the database with no other process using it removes the
 * layout and frees its number, provided that it has no objects and no derived layouts that stay;
 * otherwise a later opening does. In memory nothing is removed. Releasing a layout twice has no
 * effect. LSCOREDB_UNKNOWN_LAYOUT, LSCOREDB_WRITE_REFUSED. LSCOREDB_LAYOUT_IN_USE: it has objects.
 *
 * When all 65,535 numbers are used, lorvi_context_create_layout returns LSCOREDB_LAYOUTS_EXHAUSTED;
 * its transaction may continue, commit or roll back. */
LSCOREDB_API uint32_t lscoredb_release_layout(uint64_t context, uint16_t layout);

#define LSCOREDB_CLOSE_EMPTY 1u

/* Closes a set because its table was dropped or has another set now: no object may enter exactly
 * that set any more, whatever its layout and whoever inserts it. lorv_context_put_setspec returns
 * LSCOREDB_SET_CLOSED, and removes the object if this transaction inserted it and it has no set
 * yet, so that a refused insert leaves nothing. lscoredb_commit returns LSCOREDB_SET_CLOSED to a
 * transaction that put an object into the set before it could see that the set is closed. Objects
 * already in the set stay and may be changed, moved and deleted. A set stays closed for good: hosts
 * must not reuse a set specifier. With LSCOREDB_CLOSE_EMPTY the commit returns LSCOREDB_CONFLICT
 * if, since the snapshot, another transaction has changed an object of the set or of a set that
 * begins with it. Closing a set twice has no effect. LSCOREDB_WRITE_REFUSED.
 * LSCOREDB_INVALID_ARGUMENT: unknown flags. */
LSCOREDB_API uint32_t lscoredb_close_set(uint64_t context, char16_t const* setspec, uint32_t flags);

/* Makes the kernel allocate identities from `first` on, in all processes, except for those that
 * contexts and other processes have already reserved. Lower identities that were never reserved may
 * then be chosen. To restore objects with their identities, call this on the new database before
 * anything else, with a number above all of them. It takes effect at once and permanently, outside
 * any transaction, and does nothing if the kernel is past `first`. LSCOREDB_INVALID_ARGUMENT: above
 * 2^61. */
LSCOREDB_API uint32_t lscoredb_raise_ids(lscoredb* database, uint64_t first);

typedef struct lscoredb_statistics {
  size_t size;            /* the caller sets it to sizeof(lscoredb_statistics) */
  uint64_t file_size;     /* bytes of the data file in use, free pages included */
  uint64_t max_file_size; /* its maximum size in bytes */
  uint64_t last_commit;   /* the number of the newest committed state */
  uint64_t oldest_commit; /* of the oldest state that an open transaction of any process reads; what
                             newer states freed is used again once it moves on */
  uint32_t transactions;  /* open ones, over all processes */
  uint32_t max_readers;   /* how many there may be */
  uint64_t log_size;      /* bytes of the log that the data file does not hold yet */
  uint64_t log_memory;    /* bytes of this process that hold what is in the log, and what was when
                             transactions began that are still open */
  uint64_t read_only;     /* 1: it was opened only to be read */
  uint64_t round_trips;   /* this process has waited for a server; 0: not on a server */
  uint64_t log; /* LSCOREDB_LOG: there is one; LSCOREDB_NO_LOG: none, in a directory for good;
                   LSCOREDB_DEFAULT_LOG: none, but a later opening may make one */
} lscoredb_statistics;

/* Statistics of the whole database. Fields beyond `out->size` are not written.
 * LSCOREDB_INVALID_ARGUMENT: an invalid `size`. */
LSCOREDB_API uint32_t lscoredb_stats(lscoredb* database, lscoredb_statistics* out);

/* Writes a copy of the newest committed state into `directory`, which must not exist or be empty.
 * Contexts of this and other processes may read and write meanwhile. The copy is an independent,
 * compact database. After a failure the directory may hold an incomplete copy, which should be
 * removed. */
LSCOREDB_API uint32_t lscoredb_copy(lscoredb* database, char const* directory);

/* ---- the check ------------------------------------------------------------------------------- */

/* The kinds of findings, by the rule that is violated. A finding's fields that its kind does not
 * use are 0, the column LSCOREDB_NO_COLUMN. */
/* Objects, index entries or definitions are on a part of the file that cannot be read. object or
 * index: the first one lost. Nothing else is checked then. */
#define LSCOREDB_FINDING_PAGES 1u
/* A definition is malformed or has a wrong checksum. layout or index, if known; column: the
 * position of an indexed column with an impossible type. */
#define LSCOREDB_FINDING_DEFINITION 2u
/* A layout and its lookup by token do not match, or its base is missing. layout */
#define LSCOREDB_FINDING_LAYOUT 3u
/* An index and its lookup by token or by set do not match. index */
#define LSCOREDB_FINDING_INDEX 4u
/* A layout's object count is wrong. layout */
#define LSCOREDB_FINDING_COUNT 5u
/* The last change of an object is not recorded for its set. object */
#define LSCOREDB_FINDING_SET_CHANGE 6u
/* An index's identity would be reused, or the record of identities that may be chosen contradicts
 * itself. index, or object */
#define LSCOREDB_FINDING_NEXT_ID 7u
/* An object's bytes or checksum are wrong, the bytes belong to another object, its layout does not
 * exist, or it comes from a commit that never happened. object, layout */
#define LSCOREDB_FINDING_OBJECT 8u
/* A large object is incomplete, or parts of a large object exist without it. object */
#define LSCOREDB_FINDING_OVERFLOW 9u
/* An index lacks an object that it covers. object, index, layout */
#define LSCOREDB_FINDING_MISSING_ENTRY 10u
/* An entry belongs to no index or no object, or does not match its object: another key, another
 * layout, a wrong checksum. index, object */
#define LSCOREDB_FINDING_ENTRY 11u
/* A unique index holds a key twice. index, object: the second one */
#define LSCOREDB_FINDING_DUPLICATE_KEY 12u

#define LSCOREDB_NO_COLUMN 0xFFFFFFFFu

typedef struct lscoredb_finding {
  size_t size;   /* of this record, which may grow */
  uint32_t kind; /* LSCOREDB_FINDING_* */
  uint32_t column;
  uint64_t object;
  uint64_t index;
  uint16_t layout;
  char const* text; /* an English sentence; valid during the call */
} lscoredb_finding;

/* Receives one finding. A result other than 0 ends the check, and so does an exception, which
 * lscoredb_check lets through. */
typedef uint32_t (*lscoredb_finding_callback)(void* user, lscoredb_finding const* finding);

#define LSCOREDB_CHECK_PAGES_ONLY 1u /* checks only that the file can be read */
#define LSCOREDB_CHECK_NO_ENTRIES 2u /* checks objects and definitions, but not indexes */

/* Reads the whole newest committed state and checks the rules above. It first reads the file page
 * by page without trusting any page, so that damage is reported and does no harm. Contexts of this
 * and other processes may read and write meanwhile; like any long-lived reader, it makes the file
 * grow while they write. Up to eight threads read objects; `report` is called on the caller's
 * thread. Memory: one bit per page of the file, the definitions, the findings about objects, for
 * each thread a note per set specifier and the largest object, and for a unique index 64 bytes for
 * each of the keys that share their first 480 bytes. If `report` is NULL, the first finding ends
 * the check. LSCOREDB_DAMAGED: something was found. LSCOREDB_INVALID_ARGUMENT: unknown flags. */
LSCOREDB_API uint32_t lscoredb_check(lscoredb* database, uint32_t flags,
                                     lscoredb_finding_callback report, void* user);

/* An English sentence for every status of the contract and of this header; for any other number, a
 * sentence that says so. Static memory. */
LSCOREDB_API char const* lscoredb_status_text(uint32_t status);

#ifdef __cplusplus
}
#endif

#endif

#ifndef LSCOREDB_HOST_H
#define LSCOREDB_HOST_H

/*
 * The host's side of the embedded storage kernel: databases, contexts, transactions.
 *
 * Rules
 *
 *  1. A database is a directory, or lives in memory and is gone at close. Several processes may
 *     have one directory open, and one process may open it several times. A process that was forked
 *     opens it anew: in it the parent's contexts and iterators name nothing, calls with the
 *     parent's databases give LSCOREDB_OF_PARENT, and closing one does nothing and gives 0.
 *  2. A context carries at most one transaction. Any number of contexts may be open; one thread at
 *     a time uses a context.
 *  3. A transaction reads the database as it was at its begin, plus its own writes. Readers never
 *     wait for writers; writers wait for one another only inside commit. Of two transactions that
 *     write one object the second to commit fails with LSCOREDB_CONFLICT.
 *  4. A commit that returned 0 is kept, with the default durability also through a loss of power.
 *     One that returned anything else left nothing, and its transaction is over.
 *  5. Every function returns a status, 0 for success, and writes no output and changes nothing when
 *     it fails. lscoredb_status_text has a sentence for each.
 *  6. Identities of objects and indexes are never given out again, those of a transaction that is
 *     rolled back not while the process lives. Processes reserve them by blocks, in rising order.
 *     From the first that none has reserved up to 2^63 - 1 a host may choose identities by
 *     lorvi_context_insert_with_id, any that no committed object ever had; below it those that
 *     lscoredb_raise_ids left free, or that a reservation stepped over because hosts had chosen
 *     nearby ones. Others give LSCOREDB_ID_GIVEN_OUT, and LSCOREDB_ID_IN_USE where an object has
 *     it. Identities that the kernel gives keep clear of chosen ones; when another process reserves
 *     a block around one that is not committed yet, that commit gives LSCOREDB_ID_GIVEN_OUT.
 *  7. A layout number that a transaction took, whatever became of the transaction, is not given out
 *     again while any process has the database open that knows it. Afterwards the numbers of
 *     transactions that were rolled back are free, and those of layouts that were released, see
 *     lscoredb_release_layout. So what is kept by layout number, or by any number of a database, is
 *     forgotten with the database's last close: attach it (lscoredb_attach). Each process keeps a
 *     file "layouts.lock" of the directory open and locked from the first open to the last close.
 *  8. A process may use any number of databases, one after another and at the same time. The last
 *     lscoredb_close of a database gives back all that it took: memory, mappings, descriptors and
 *     locks.
 *
 * Statuses that any function may give, not repeated below: LSCOREDB_UNKNOWN_CONTEXT for a context
 * that is not open, LSCOREDB_NULL_ARGUMENT, LSCOREDB_NO_MEMORY, LSCOREDB_IO_ERROR,
 * LSCOREDB_DAMAGED.
 *
 * Limits: 1,000 columns in a layout, 16 columns in an index, 65,535 layout numbers, 2^32 - 1 bytes
 * in a binary or units in a text; texts of any length may be indexed.
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

/* Whether commits go to a log first: one write and one sync each, and to the data file later, many
 * at once. A directory that has a log keeps it whatever is asked for. One without gets a log when
 * LSCOREDB_LOG asks for it and no other process has it open; programs that know no logs refuse it
 * then with LSCOREDB_NEWER_FORMAT. The default is without. In memory there is none. */
#define LSCOREDB_DEFAULT_LOG 0u
#define LSCOREDB_LOG 1u
#define LSCOREDB_NO_LOG 2u

/* How a database is opened. On a server the first is the same as the third. */
#define LSCOREDB_ACCESS_AUTOMATIC 0u /* to read and write; only to read what cannot be written */
#define LSCOREDB_ACCESS_READ 1u      /* only to read, and nothing is created */
#define LSCOREDB_ACCESS_WRITE 2u     /* to read and write, or not at all */

#define LSCOREDB_NO_ROW_MEMORY UINT64_MAX

/* Set `size` to sizeof(lscoredb_options) and the rest to 0 for the defaults. Fields beyond `size`
 * count as 0. */
typedef struct lscoredb_options {
  size_t size;
  uint32_t durability;
  uint32_t max_readers;   /* transactions open at once over all processes; 0: 1024 */
  uint64_t max_file_size; /* bytes; 0: 64 GiB. Address space, not memory */
  /* 1: reads each page in use first: LSCOREDB_DAMAGED when they do not hold together. 0: a few. */
  uint32_t verify;
  uint32_t log; /* LSCOREDB_DEFAULT_LOG, LSCOREDB_LOG or LSCOREDB_NO_LOG */
  /* Bytes in which all contexts of the process share rows that were read, so that the next one that
   * reads them does not go to the file; 0: 256 MiB, LSCOREDB_NO_ROW_MEMORY: none. It is taken as
   * rows come in. While old transactions last it may be a quarter more, and finding the rows takes
   * a sixteenth besides. Rows above 64 KiB are always read from the file. All databases of the
   * process share one budget, the largest that an open one was given; half of an equal share of it
   * is free to each whatever the others took. */
  uint64_t row_memory;
  /* Bytes of the log that bring about a checkpoint, which writes what the log holds into the data
   * file. 0: 16 MiB; from 64 KiB to 1 GiB. What the log holds is kept in memory, at most twice. A
   * commit that is larger goes to the data file at once. */
  uint64_t log_limit;
  uint32_t access; /* LSCOREDB_ACCESS_* */
} lscoredb_options;

/* Opens, or creates, the database in `directory`, which is made when it is missing; NULL opens a
 * new one in memory. In the place of a directory stands the URL of a schema on a PostgreSQL server
 * ("postgresql://user@host/database?schema=shop"; docs/many-machines.md). `options` may be NULL.
 * Where the process has the directory open already, the two share a store and the stricter
 * durability holds for both. LSCOREDB_CANNOT_OPEN: no directory, or no right to it.
 * LSCOREDB_NOT_A_DATABASE: a file that is none of ours. LSCOREDB_NEWER_FORMAT: written by a later
 * version. LSCOREDB_DAMAGED: cut or contradicting itself. LSCOREDB_SERVER_LOST: no server answers.
 * LSCOREDB_INVALID_ARGUMENT: options out of range.
 *
 * A directory that cannot be written (a read-only or full disk, another user's files) is opened
 * only to read: calls that write give LSCOREDB_READ_ONLY_DATABASE. A process that may write
 * "lock.mdb" reads beside writers. One that may not excludes them while it reads, and gives
 * LSCOREDB_CANNOT_OPEN while one of them has the directory open. A database with a log cannot be
 * opened only to read. */
LSCOREDB_API uint32_t lscoredb_open(char const* directory, lscoredb_options const* options,
                                    lscoredb** out);
/* Writes to `*out` whether a directory or URL holds a database. Fails when no server answers. */
LSCOREDB_API uint32_t lscoredb_exists(char const* directory, uint32_t* out);
/* After a lscoredb_open, lscoredb_exists or lscoredb_copy of this thread that failed, or a
 * lscoredb_open that opened only to read: which file or directory the system refused, or what the
 * server said, and why: "shelf/layouts.lock: Permission denied". Empty where it refused none. Valid
 * until the thread's next call of one of these. */
LSCOREDB_API char const* lscoredb_open_error(void);
/* Ends the use of a database, which is gone then. LSCOREDB_IN_USE: contexts are open. */
LSCOREDB_API uint32_t lscoredb_close(lscoredb* database);

/* ---- contexts -------------------------------------------------------------------------------- */

/* Opens a context. A handle is never 0 and names nothing any more once it is closed. */
LSCOREDB_API uint32_t lscoredb_context_open(lscoredb* database, uint64_t* out_context);
/* Rolls back what is open, and frees the context with its iterators. */
LSCOREDB_API uint32_t lscoredb_context_close(uint64_t context);

/* ---- what users keep with a database or a context ------------------------------------------- */

/* The number of the database that a context belongs to, never 0. All that have one directory open
 * at the same time share it; the next opening after the last close gets another. No number comes
 * twice in a process. */
LSCOREDB_API uint32_t lscoredb_database_number(uint64_t context, uint64_t* out);

/* The identity of the database that a context belongs to, by which it is known again: a random
 * number below 2^53. It comes with the first commit, of a new database or of one that an earlier
 * version wrote, and never changes; 0 until then. A copy of a database, by lscoredb_copy or of its
 * files, has the same one. Needs no transaction. LSCOREDB_TOO_MANY_READERS. */
LSCOREDB_API uint32_t lscoredb_identity(uint64_t context, uint64_t* out);

/* Is given a value that was attached, once, when its owner ends. No context of the database is open
 * any more, or the context is closed already. */
typedef void (*lscoredb_release_callback)(void* value);

/* Attaches `value` to the context's database under `key`, the address of something that the caller
 * owns, until the last close of the database, which calls `release` (may be NULL); the last value
 * attached goes first. When there is a value under the key already, that one stays, goes out, and
 * `value` is the caller's still. Any thread. */
LSCOREDB_API uint32_t lscoredb_attach(uint64_t context, void const* key, void* value,
                                      lscoredb_release_callback release, void** out);
/* The value under the key; NULL goes out when there is none. Takes no lock. */
LSCOREDB_API uint32_t lscoredb_attached(uint64_t context, void const* key, void** out);
/* The same for values that end with the context, in lscoredb_context_close. */
LSCOREDB_API uint32_t lscoredb_context_attach(uint64_t context, void const* key, void* value,
                                              lscoredb_release_callback release, void** out);
LSCOREDB_API uint32_t lscoredb_context_attached(uint64_t context, void const* key, void** out);

/* ---- transactions ---------------------------------------------------------------------------- */

#define LSCOREDB_READ_WRITE 0u
#define LSCOREDB_READ_ONLY_TRANSACTION 1u

/* Takes a snapshot of the database to read and write on. LSCOREDB_TRANSACTION_OPEN: the context has
 * one. LSCOREDB_TOO_MANY_READERS: all places for open transactions are taken. */
LSCOREDB_API uint32_t lscoredb_begin(uint64_t context, uint32_t flags);
/* Makes the transaction's writes visible to later ones, and lasting; the transaction is over
 * whatever comes of it. LSCOREDB_NO_TRANSACTION: none is open. LSCOREDB_CONFLICT: another
 * transaction has committed a change of the same object since, or of the set of an index created
 * here; run the work again. LSCOREDB_ID_GIVEN_OUT: see rule 6. LSCOREDB_SET_CLOSED: see
 * lscoredb_close_set. LSCOREDB_DUPLICATE_KEY: a unique index would hold a key twice.
 * LSCOREDB_MAP_FULL, LSCOREDB_DISK_FULL: no room. */
LSCOREDB_API uint32_t lscoredb_commit(uint64_t context);
/* Ends the transaction and forgets its writes. */
LSCOREDB_API uint32_t lscoredb_rollback(uint64_t context);

/* Savepoints. A transaction, also a read-only one, has any number of them, one behind the other;
 * the transaction's end ends them all. Writes cost a little more while one is open, to note how
 * they are taken back; nothing is copied beside.
 *
 * Sets one. Its number is never 0, and no other savepoint of the process has it. */
LSCOREDB_API uint32_t lscoredb_savepoint(uint64_t context, uint64_t* out);
/* Takes back everything that was written since: objects and their values, index entries, layouts,
 * indexes, releases of layouts, closings of sets, lscoredb_require. The time follows what was
 * written since. The savepoint stays, and may be rolled back to again; those set later end.
 * Afterwards the transaction is as it was, also where a write in between had failed, but for these:
 *  - identities and layout numbers that were given out since are not given out again;
 *  - iterators that were opened since have ended: LSCOREDB_ROLLED_BACK from them until they are
 *    freed. Those opened before go on over the range as it stood when they were opened;
 *  - read scopes stay as they are, opened since or not, and so do the strings and binaries that
 *    were handed out, until their scope ends.
 * What a user keeps of the schema, handles for one, is to be refreshed as after lscoredb_rollback.
 * LSCOREDB_UNKNOWN_SAVEPOINT: none of this transaction, or ended. */
LSCOREDB_API uint32_t lscoredb_rollback_to(uint64_t context, uint64_t savepoint);
/* Ends the savepoint and those set later. What was written stays, and goes with an older savepoint
 * that is rolled back to. LSCOREDB_UNKNOWN_SAVEPOINT as above. */
LSCOREDB_API uint32_t lscoredb_release(uint64_t context, uint64_t savepoint);

/* Has the transaction's commit fail with LSCOREDB_CONFLICT when another one has changed or deleted
 * the object since the snapshot, as if this one had changed it too; transactions that require one
 * object do not disturb each other. It holds also when nothing was written. For rules over two
 * objects: who makes a reference requires its target. LORV_STATUS_NO_OBJECT: there is none.
 * LORV_STATUS_UNREACHABLE: deleted by this transaction. LSCOREDB_WRITE_REFUSED. */
LSCOREDB_API uint32_t lscoredb_require(uint64_t context, uint64_t oid);

/* A read scope bounds the life, and so the memory, of the strings and binaries handed out inside
 * it. Scopes nest; a transaction's end ends all of its scopes. LSCOREDB_INVALID_ARGUMENT: an end
 * without a begin. */
LSCOREDB_API uint32_t lscoredb_read_scope_begin(uint64_t context);
LSCOREDB_API uint32_t lscoredb_read_scope_end(uint64_t context);

/* ---- upkeep ---------------------------------------------------------------------------------- */

/* Moves an object to another layout, columns matched by token: what both have is kept, the rest is
 * null or zero. LORV_STATUS_NO_OBJECT, LSCOREDB_UNKNOWN_LAYOUT, LSCOREDB_WRITE_REFUSED. */
LSCOREDB_API uint32_t lscoredb_move_object(uint64_t context, uint64_t oid, uint16_t layout);

typedef struct lscoredb_layout_statistics {
  uint16_t layout;
  uint64_t token;
  uint64_t objects; /* objects under this layout, as the transaction sees them */
} lscoredb_layout_statistics;

/* `*count` comes in as the room of `out` and goes out as the number of layouts, in rising order of
 * number. Layouts that were released and have no objects are left out. */
LSCOREDB_API uint32_t lscoredb_layout_stats(uint64_t context, uint32_t* count,
                                            lscoredb_layout_statistics* out);

/* Says that nothing names a layout any more, no catalogue of the host and nothing that is still to
 * be made from one. Nothing changes for processes that know the layout; objects may still come
 * under it. The process that next has the database to itself when it opens it takes the layout away
 * and gives its number out again, if no object stands under it then, and no layout was made on it
 * but such as go too; else it stays until a later opening. In memory nothing is taken away.
 * Releasing a layout twice changes nothing. LSCOREDB_UNKNOWN_LAYOUT, LSCOREDB_WRITE_REFUSED.
 * LSCOREDB_LAYOUT_IN_USE: objects stand under it.
 *
 * When all 65,535 numbers are taken lorvi_context_create_layout gives LSCOREDB_LAYOUTS_EXHAUSTED;
 * its transaction can go on, commit and roll back. */
LSCOREDB_API uint32_t lscoredb_release_layout(uint64_t context, uint16_t layout);

#define LSCOREDB_CLOSE_EMPTY 1u

/* Closes a set: no object comes into exactly that set any more, whatever layout it has and whoever
 * inserts it, since its table is gone. lorv_context_put_setspec gives LSCOREDB_SET_CLOSED then, and
 * takes away an object that the transaction inserted and that has no set yet, so that an insert
 * that was refused leaves nothing; lscoredb_commit gives LSCOREDB_SET_CLOSED to a transaction that
 * brought an object into the set before it could see that it is closed. Objects that are in the set
 * stay, and may be changed, moved and deleted. A set stays closed for good: hosts do not use a set
 * specifier twice. With LSCOREDB_CLOSE_EMPTY the commit gives LSCOREDB_CONFLICT when another
 * transaction has changed an object of the set, or of one that begins with it, since the snapshot.
 * Closing a set twice changes nothing. LSCOREDB_WRITE_REFUSED. LSCOREDB_INVALID_ARGUMENT: unknown
 * flags. */
LSCOREDB_API uint32_t lscoredb_close_set(uint64_t context, char16_t const* setspec, uint32_t flags);

/* Has the kernel give only identities from `first` on, in all processes, but for some that contexts
 * and other processes hold already. Those below that were never reserved may be chosen from then
 * on. Whoever brings objects back with the identities they had calls it on the new database before
 * anything else, with a number above them all. Done at once and for good, in no transaction; no
 * change when the kernel is past `first`. LSCOREDB_INVALID_ARGUMENT: above 2^61. */
LSCOREDB_API uint32_t lscoredb_raise_ids(lscoredb* database, uint64_t first);

typedef struct lscoredb_statistics {
  size_t size;            /* set to sizeof(lscoredb_statistics) by the caller */
  uint64_t file_size;     /* bytes of the data file that have been used, free places included */
  uint64_t max_file_size; /* bytes that it may grow to */
  uint64_t last_commit;   /* the number of the newest committed state */
  uint64_t oldest_commit; /* of the oldest state that an open transaction of any process reads; what
                             newer states freed is used again once it moves on */
  uint32_t transactions;  /* open ones, over all processes */
  uint32_t max_readers;   /* how many there may be */
  uint64_t log_size;      /* bytes of the log that the data file does not hold yet; 0: no log */
  uint64_t log_memory;    /* bytes of this process that hold what is in the log, and what was when
                             transactions began that are still open */
  uint64_t read_only;     /* 1: it was opened only to be read */
} lscoredb_statistics;

/* Figures of the whole database. Fields beyond `out->size` are not written.
 * LSCOREDB_INVALID_ARGUMENT: a `size` that is none. */
LSCOREDB_API uint32_t lscoredb_stats(lscoredb* database, lscoredb_statistics* out);

/* Writes a copy of the newest committed state into `directory`, which is not there yet or empty,
 * while contexts of this and other processes read and write. The copy is a database by itself and
 * packed: it has no free places. Of a copy that failed the directory may hold a part, which is to
 * be removed. */
LSCOREDB_API uint32_t lscoredb_copy(lscoredb* database, char const* directory);

/* ---- the check ------------------------------------------------------------------------------- */

/* What a finding is about, by the rule that does not hold. Fields of a finding that a rule does not
 * fill are 0, the column LSCOREDB_NO_COLUMN. */
/* Objects, entries of an index or definitions lie on a part of the file that cannot be read. object
 * or index: the first that is lost. Nothing else is looked at then. */
#define LSCOREDB_FINDING_PAGES 1u
/* A definition is no well-formed record, or its checksum is wrong. layout or index, if it is known;
 * column: the place of a column of an index with an impossible type. */
#define LSCOREDB_FINDING_DEFINITION 2u
/* A layout and what finds it by its token do not belong together, or its base is missing. layout */
#define LSCOREDB_FINDING_LAYOUT 3u
/* An index and what finds it by its token or by its set do not belong together. index */
#define LSCOREDB_FINDING_INDEX 4u
/* A layout does not have as many objects as the count of them says. layout */
#define LSCOREDB_FINDING_COUNT 5u
/* The last change of an object is not noted for its set. object */
#define LSCOREDB_FINDING_SET_CHANGE 6u
/* The identity of an index would be given out again, or what says which identities may be chosen
 * contradicts itself. index, or object */
#define LSCOREDB_FINDING_NEXT_ID 7u
/* An object's bytes or checksum are wrong, they are another object's, its layout is not there, or
 * it comes from a commit that has not been. object, layout */
#define LSCOREDB_FINDING_OBJECT 8u
/* A large object is not there in full, or parts of a large object lie about that has none.
 * object */
#define LSCOREDB_FINDING_PARTS 9u
/* An index does not hold an object that it covers. object, index, layout */
#define LSCOREDB_FINDING_MISSING_ENTRY 10u
/* An index, or none, holds an entry that is no object's, or not as the object is now: another key,
 * another layout, a wrong checksum. index, object */
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

/* Is told of one finding. Anything but 0 ends the check. An exception ends it too, and comes out of
 * lscoredb_check as it is. */
typedef uint32_t (*lscoredb_finding_callback)(void* user, lscoredb_finding const* finding);

#define LSCOREDB_CHECK_PAGES_ONLY 1u /* whether the file can be read at all */
#define LSCOREDB_CHECK_NO_ENTRIES 2u /* objects and definitions, and no index against them */

/* Reads the whole newest committed state and looks whether the rules above hold. It first reads the
 * file page by page without trusting any, so that a damaged one is told and does no harm. Contexts
 * of this and other processes may read and write meanwhile; like any reader that stays, it makes
 * the file grow while they write. Objects are read in up to eight threads; `report` is called in
 * the caller's. Memory: one bit for each page of the file, the definitions, what is found wrong
 * with objects, for each thread a note for each set specifier and the largest object, and for a
 * unique index 64 bytes for each of the keys that share their first 480 bytes. `report` may be
 * NULL: then the first finding ends the check. LSCOREDB_DAMAGED: something was found.
 * LSCOREDB_INVALID_ARGUMENT: unknown flags. */
LSCOREDB_API uint32_t lscoredb_check(lscoredb* database, uint32_t flags,
                                     lscoredb_finding_callback report, void* user);

/* An English sentence for every status of the contract and of this header; for any other number a
 * sentence that says so. Static memory. */
LSCOREDB_API char const* lscoredb_status_text(uint32_t status);

#ifdef __cplusplus
}
#endif

#endif

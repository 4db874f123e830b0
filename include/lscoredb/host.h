#ifndef LSCOREDB_HOST_H
#define LSCOREDB_HOST_H

/*
 * The host's side of the embedded storage kernel: databases, contexts, transactions.
 *
 * Rules
 *
 *  1. A database is a directory, or lives in memory and is gone at close. Several processes may have
 *     one directory open, and one process may open it several times.
 *  2. A context carries at most one transaction. Any number of contexts may be open; one thread at a
 *     time uses a context.
 *  3. A transaction reads the database as it was at its begin, plus its own writes. Readers never
 *     wait for writers; writers wait for one another only inside commit. Of two transactions that
 *     write one object the second to commit fails with LSCOREDB_CONFLICT.
 *  4. A commit that returned 0 is kept, with the default durability also through a loss of power.
 *     One that returned anything else left nothing, and its transaction is over.
 *  5. Every function returns a status, 0 for success, and changes nothing when it fails.
 *     lscoredb_status_text has a sentence for each.
 */

#include <lscoredb/lscoredb.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- statuses of the embedded kernel, beside those of the contract ------------------------------ */

#define LSCOREDB_NO_MEMORY 1003u
#define LSCOREDB_NO_TRANSACTION 9001u
#define LSCOREDB_TRANSACTION_OPEN 9002u
#define LSCOREDB_READ_ONLY 9003u
#define LSCOREDB_UNKNOWN_CONTEXT 9004u
#define LSCOREDB_UNKNOWN_ITERATOR 9005u
#define LSCOREDB_UNKNOWN_LAYOUT 9006u
#define LSCOREDB_UNKNOWN_COLUMN 9007u
#define LSCOREDB_WRONG_TYPE 9008u
#define LSCOREDB_NULL_ARGUMENT 9009u
#define LSCOREDB_INVALID_ARGUMENT 9010u
#define LSCOREDB_MALFORMED_KEY 9011u
#define LSCOREDB_CONFLICT 9020u
#define LSCOREDB_DUPLICATE_KEY 9021u
#define LSCOREDB_ID_IN_USE 9022u
#define LSCOREDB_TOO_LARGE 9023u
#define LSCOREDB_LAYOUTS_EXHAUSTED 9024u
#define LSCOREDB_IN_USE 9030u
#define LSCOREDB_NOT_A_DATABASE 9031u
#define LSCOREDB_NEWER_FORMAT 9032u
#define LSCOREDB_DAMAGED 9033u
#define LSCOREDB_CANNOT_OPEN 9034u
#define LSCOREDB_MAP_FULL 9035u
#define LSCOREDB_DISK_FULL 9036u
#define LSCOREDB_IO_ERROR 9037u
#define LSCOREDB_TOO_MANY_READERS 9038u

typedef struct lscoredb lscoredb;

/* ---- opening ---------------------------------------------------------------------------------------- */

#define LSCOREDB_DURABLE 0u /* every commit is synced before it returns */
#define LSCOREDB_NO_SYNC 1u /* survives the death of the process, not of the machine */

/* Set `size` to sizeof(lscoredb_options) and the rest to 0 for the defaults. Fields beyond `size`
 * count as 0. */
typedef struct lscoredb_options {
  size_t size;
  uint32_t durability;
  uint32_t max_readers;      /* transactions open at once over all processes; 0: 1024 */
  uint64_t max_file_size;    /* bytes; 0: 64 GiB. Address space, not memory */
  uint64_t row_cache_size;   /* bytes for committed rows kept in memory; 0: 64 MiB */
} lscoredb_options;

/* Opens, or creates, the database in `directory`; NULL opens a new one in memory. `options` may be
 * NULL. */
LSCOREDB_API uint32_t lscoredb_open(char const* directory, lscoredb_options const* options,
                                    lscoredb** out);
/* LSCOREDB_IN_USE while contexts are open. */
LSCOREDB_API uint32_t lscoredb_close(lscoredb* database);

/* ---- contexts and transactions ------------------------------------------------------------------------- */

LSCOREDB_API uint32_t lscoredb_context_open(lscoredb* database, uint64_t* out_context);
/* Rolls back what is open. */
LSCOREDB_API uint32_t lscoredb_context_close(uint64_t context);

#define LSCOREDB_READ_WRITE 0u
#define LSCOREDB_READ_ONLY_TRANSACTION 1u

LSCOREDB_API uint32_t lscoredb_begin(uint64_t context, uint32_t flags);
LSCOREDB_API uint32_t lscoredb_commit(uint64_t context);
LSCOREDB_API uint32_t lscoredb_rollback(uint64_t context);

/* A read scope bounds the life, and so the memory, of the strings and binaries handed out inside it.
 * Scopes nest; a transaction's end ends all of its scopes. */
LSCOREDB_API uint32_t lscoredb_read_scope_begin(uint64_t context);
LSCOREDB_API uint32_t lscoredb_read_scope_end(uint64_t context);

/* ---- upkeep ------------------------------------------------------------------------------------------------ */

/* Moves an object to another layout, columns matched by token: what both have is kept, the rest is
 * null or zero. */
LSCOREDB_API uint32_t lscoredb_move_object(uint64_t context, uint64_t oid, uint16_t layout);

typedef struct lscoredb_layout_statistics {
  uint16_t layout;
  uint64_t token;
  uint64_t objects; /* objects under this layout, as the transaction sees them */
} lscoredb_layout_statistics;

/* `*count` comes in as the room of `out` and goes out as the number of layouts, in rising order of
 * number. */
LSCOREDB_API uint32_t lscoredb_layout_stats(uint64_t context, uint32_t* count,
                                            lscoredb_layout_statistics* out);

/* Writes a copy of the newest committed state into `directory`, which is not there yet or empty, while
 * contexts of this and other processes read and write. The copy is a database by itself. Of a copy that
 * failed the directory may hold a part, which is to be removed. */
LSCOREDB_API uint32_t lscoredb_copy(lscoredb* database, char const* directory);

/* An English sentence for every status of the contract and of this header; for any other number a
 * sentence that says so. Static memory. */
LSCOREDB_API char const* lscoredb_status_text(uint32_t status);

#ifdef __cplusplus
}
#endif

#endif

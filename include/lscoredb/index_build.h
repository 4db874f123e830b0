#ifndef LSCOREDB_INDEX_BUILD_H
#define LSCOREDB_INDEX_BUILD_H

/*
 * Part of the host's side of the embedded kernel: indexes that are built beside writers.
 *
 * lorvi_context_create_index fills an index inside of its transaction, which then conflicts with
 * every transaction that changed an object of the set meanwhile. To index many objects while others
 * work, prepare the index first:
 *
 *   1. lscoredb_prepare_index. From its commit on every commit, of any process, keeps the index up.
 *   2. lscoredb_build_index, again and again, until the state is LSCOREDB_INDEX_READY. Each call is
 *      one step and at most one small commit, which conflicts with no writer.
 *   3. lorvi_context_create_index with the same set specifier, columns, sort mask and flags, in a
 *      transaction that began when the index was ready. It takes the prepared index over, at once
 *      and without a conflict with writers; the index gets the token of that call, and belongs to
 *      the transaction like any other. Other definitions are created as ever.
 *
 * Until then nobody sees the index: it has no token, and its id is unknown to all functions but
 * these. The states are in the database. After a kill, or in another process, lscoredb_build_index
 * goes on where it was; only what was sorted is sorted again. Any number of builds may be open. One
 * that is not wanted any more costs every writer its upkeep: abandon it.
 *
 * A unique index:
 *   building      duplicates are refused by nobody;
 *   write-only    all objects are in it, and from here on writers are refused new duplicates, with
 *                 LSCOREDB_DUPLICATE_KEY, as by any unique index; the steps look for old ones;
 *   ready         there are none, and none can be made;
 *   duplicates    a step found one and returned LSCOREDB_DUPLICATE_KEY. Duplicates are refused by
 *                 nobody again. Change or delete the objects that lscoredb_index_duplicates names,
 *                 and go on with lscoredb_build_index, which looks again from the start.
 *
 * A build whose objects move to another set follows them (lscoredb_move_prepared), and begins
 * again there.
 *
 * An abandoned build:
 *   abandoned     no index any more: nobody keeps it up, no definition is like it, and its entries
 *                 are being removed, in commits of a bounded size. Anybody may remove the rest:
 *                 lscoredb_index_builds lists it until nothing is left.
 *
 * The steps keep up to 32 MiB in memory, more in temporary files in the database's directory; a
 * database that has none (in memory, on a server) is sorted in memory. That is kept for each build
 * that the context has begun and not finished. The thread's watch (<lscoredb/watch.h>) sees the
 * scan of the objects, in objects, and may stop a step, which leaves the build as it was before.
 *
 * All functions need a context without an open transaction: LSCOREDB_TRANSACTION_OPEN otherwise. A
 * database with a prepared index, or that had one, can be opened only by kernels that know of them;
 * so can one in which the entries of an abandoned one did not fit into a commit.
 */

#include <lscoredb/lscoredb.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LSCOREDB_INDEX_BUILDING 1u
#define LSCOREDB_INDEX_WRITE_ONLY 2u
#define LSCOREDB_INDEX_DUPLICATES 3u
#define LSCOREDB_INDEX_READY 4u
#define LSCOREDB_INDEX_ABANDONED 5u
#define LSCOREDB_INDEX_REMOVED 0u /* nothing is left; never listed */

typedef struct lscoredb_index_build {
  size_t size;    /* set to sizeof(lscoredb_index_build) by the caller; in an array, of each */
  uint64_t index; /* id */
  uint32_t state; /* LSCOREDB_INDEX_* */
  uint32_t flags; /* as it was prepared */
  uint64_t done;  /* objects that are finished in this state; removed entries of an abandoned one */
  uint64_t total; /* 0: not known yet */
  uint16_t sort_mask;
  uint16_t column_count;
  /* As it was prepared. Valid until the context's next call of a function of this header. */
  char16_t const* name;
  char16_t const* setspec;
  LORVI_COLUMN_DEFINITION const* columns; /* ended like those of lscoredb_prepare_index */
} lscoredb_index_build;

/* Prepares an index; the arguments are those of lorvi_context_create_index. `name` is for those who
 * list builds, NULL: none. When an equal definition is prepared already, in whatever state, that
 * one's id is given. LSCOREDB_CONFLICT: another context is preparing it just now; call again. */
LSCOREDB_API uint32_t lscoredb_prepare_index(uint64_t context, char16_t const* name,
                                             char16_t const* setspec,
                                             LORVI_COLUMN_DEFINITION const* columns,
                                             uint16_t sort_mask, uint32_t flags,
                                             uint64_t* out_index_id);

/* Takes the next step: a context's first one scans and sorts all objects, each following one adds,
 * or compares, about `batch` entries, at least 1; keys with a null that are equal are compared in
 * one step, however many there are. Does nothing once the index is ready. `out` may
 * be NULL; it is filled for LSCOREDB_DUPLICATE_KEY too. LORV_STATUS_NO_INDEX: there is no such
 * build, or no longer. LSCOREDB_CONFLICT: another context took a step of the same build; go on.
 * LSCOREDB_COMMIT_UNKNOWN: the server may or may not have the step; go on. After a full disk or any
 * other failure the build is as before. */
LSCOREDB_API uint32_t lscoredb_build_index(uint64_t context, uint64_t index_id, uint64_t batch,
                                           lscoredb_index_build* out);

/* Lists the prepared indexes, oldest first. On entry `*count` is the capacity of `out`; on return
 * it is their number. The `size` of the first entry holds for all. */
LSCOREDB_API uint32_t lscoredb_index_builds(uint64_t context, uint32_t* count,
                                            lscoredb_index_build* out);

/* Receives an object whose key another one has. A result other than 0 ends the list. It must not
 * use the context, and not throw. */
typedef uint32_t (*lscoredb_duplicate_callback)(void* user, uint64_t object, uint64_t holder);

/* Lists the duplicates among the entries that are there: of all objects unless the state is
 * LSCOREDB_INDEX_BUILDING. Works for any prepared index, also for one that is not unique. */
LSCOREDB_API uint32_t lscoredb_index_duplicates(uint64_t context, uint64_t index_id,
                                                lscoredb_duplicate_callback report, void* user);

/* Abandons a prepared index in whatever state, and removes its entries, about 5,000 in a commit.
 * From the first commit on it is no index any more. The thread's watch sees the removed entries; if
 * it stops the removal, with LSCOREDB_STOPPED, or the process ends, the build stays abandoned, and
 * another call removes the rest. LORV_STATUS_NO_INDEX: there is no such build, or no longer. After
 * LSCOREDB_CONFLICT, LSCOREDB_COMMIT_UNKNOWN, a full disk or any other failure: call again. */
LSCOREDB_API uint32_t lscoredb_abandon_index(uint64_t context, uint64_t index_id);

/* The same with one commit of about `batch` entries, at least 1. `out` may be NULL; its state is
 * LSCOREDB_INDEX_ABANDONED as long as there are more. */
LSCOREDB_API uint32_t lscoredb_abandon_index_step(uint64_t context, uint64_t index_id,
                                                  uint64_t batch, lscoredb_index_build* out);

#ifdef __cplusplus
}
#endif

#endif

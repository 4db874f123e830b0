#ifndef LSCOREDB_DURABILITY_H
#define LSCOREDB_DURABILITY_H

/*
 * When commits reach the disk. The option `durability` sets it for a database, and a commit may ask
 * for more. What is not synced yet survives the death of the process, but not of the machine.
 *
 *                          with a log                    without a log       on a server
 *   LSCOREDB_DURABLE       before the commit returns     likewise            likewise
 *   lscoredb_sync_within   at most so much later         before it returns   before it returns
 *   LSCOREDB_NO_SYNC       when the system does it       likewise            likewise
 *
 * After a power failure a database with a log holds the state after one of its commits, and all
 * that were synced. Without a log, commits that were not synced may leave a damaged file, even if
 * one before them was synced.
 *
 * A database with a log can be opened only for reading as any other: alongside writers by a process
 * that may write "lock.mdb" and "log.lock", otherwise while nobody may write.
 */

#include <lscoredb/lscoredb.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lscoredb lscoredb;

#define LSCOREDB_COMMIT_SYNC 1u

/* As lscoredb_commit. With LSCOREDB_COMMIT_SYNC the commit is synced before it returns, and with it
 * all commits before it, whatever the durability of the database. If the transaction wrote nothing,
 * this is lscoredb_sync. In memory the flag has no effect.
 *
 * LSCOREDB_INVALID_ARGUMENT: unknown flags; the transaction stays open. */
LSCOREDB_API uint32_t lscoredb_commit_flags(uint64_t context, uint32_t flags);
/* The same for a commit to come: that of the context's open transaction, by whichever call. */
LSCOREDB_API uint32_t lscoredb_require_sync(uint64_t context);

/* From now on each commit of a database that was opened with LSCOREDB_NO_SYNC and has a log returns
 * at once, and a sync of it, and of all before it, begins at most `milliseconds` (1 to 3,600,000)
 * later, whether or not the process calls the kernel again. One sync serves all commits of that
 * time, those of other processes included.
 *
 * - The kernel starts one thread for each database of which this is asked. It takes no signals and
 *   ends with the last lscoredb_close, which syncs what is left. No other call starts a thread. A
 *   forked child does not have it; it has none of the parent's databases either.
 * - If the process dies or is stopped within the delay, the next sync of another process, or the
 *   next opening that finds nobody else there, makes up for it.
 * - If a sync fails, the thread writes what it was for to the data file instead, and repeats that
 *   until it succeeds. Meanwhile commits that are to be synced go to the data file as well.
 * - The shortest delay that was asked for holds, and none if the process has the database open with
 *   LSCOREDB_DURABLE too. A database without a log syncs each commit from now on, and one in memory
 *   none.
 *
 * LSCOREDB_INVALID_ARGUMENT: the delay is out of range. LSCOREDB_READ_ONLY_DATABASE. */
LSCOREDB_API uint32_t lscoredb_sync_within(lscoredb* database, uint32_t milliseconds);

/* Syncs every commit that has returned, in any process. Does nothing in memory and in databases
 * that are open for reading only. May be called on any thread, beside commits. */
LSCOREDB_API uint32_t lscoredb_sync(lscoredb* database);
/* The number of the newest commit that is known to survive a power failure; 0: none is known. */
LSCOREDB_API uint32_t lscoredb_synced_commit(lscoredb* database, uint64_t* out);

/* Writes what is in the log to the data file, as a commit does that finds the log full. Commits
 * wait only at the beginning. A host that calls this often enough, on a thread of its own, keeps
 * that work out of its commits. Without a log it does nothing. LSCOREDB_DISK_FULL,
 * LSCOREDB_MAP_FULL: what is in the log stays there. LSCOREDB_READ_ONLY_DATABASE. */
LSCOREDB_API uint32_t lscoredb_checkpoint(lscoredb* database);

#ifdef __cplusplus
}
#endif

#endif

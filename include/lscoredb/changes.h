#ifndef LSCOREDB_CHANGES_H
#define LSCOREDB_CHANGES_H

/*
 * The feed of changes: what commits changed, in their order, for readers in any process.
 *
 * A directory with a log (LSCOREDB_LOG) and a database on a server keep the changes of their
 * commits once lscoredb_keep_changes has asked for it. Every other database returns
 * LSCOREDB_CHANGES_UNSUPPORTED from these functions.
 *
 * Rules
 *
 *  1. A reader gets every commit after the position at which it was opened, in order, each change
 *     once, and none before its commit returned or another process could read it. Rolled back
 *     transactions and savepoints leave nothing.
 *  2. A position is a commit's number and the place of a change in that commit, counted from 1. A
 *     commit may be a group of transactions, which then share its number; `transaction` counts them
 *     from 1, and `last` marks the last change of each. To go on later, keep the position of the
 *     last change that was dealt with and open a reader there. It is valid for the database for
 *     good, but not for a copy of it, nor for what is restored from a backup.
 *  3. Changes are kept as long as the retention says, and by whole files or, on a server, some
 *     commits at a time: a little longer than asked for, never shorter, unless the disk is full.
 *     Commits to a directory never fail for lack of room for kept changes; the oldest ones are
 *     removed then. A reader whose next commit is gone gets
 *     LSCOREDB_CHANGES_GONE: read the database afresh, then follow it from lscoredb_kept's `last`,
 *     taken before that.
 *  4. With LSCOREDB_NO_SYNC a power failure may take commits back that readers have seen, and so
 *     may a failover to a standby that is not synchronous. A reader that is open then gets
 *     LSCOREDB_CHANGES_GONE once other commits have the numbers.
 *  5. Reading takes no lock that a writer waits for. A reader belongs to one thread at a time. Each
 *     keeps its database open: close it first. In a forked process use none of the parent's.
 *  6. On a server a reader asks for changes: lscoredb_changes_next when it has given all that it
 *     knows, in one round trip, lscoredb_changes_wait every second, or as often as
 *     `changes_interval` of the URL says. Any call may then end with LSCOREDB_SERVER_LOST or
 *     LSCOREDB_STOPPED, and a call after that asks again.
 */

#include <lscoredb/host.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lscoredb_changes lscoredb_changes;

/* Keeps the changes of later commits, in all processes and for good: as many as fit into `bytes`
 * and are at most `seconds` old. 0 sets no such bound; with both 0 nothing is kept any more, and
 * what was kept is removed. From then on, programs that do not know this refuse the database with
 * LSCOREDB_NEWER_FORMAT, until it is switched off; those that have it open already keep nothing of
 * what they commit, which readers are told with LSCOREDB_CHANGES_GONE. Waits for open commits. */
LSCOREDB_API uint32_t lscoredb_keep_changes(lscoredb* database, uint64_t bytes, uint64_t seconds);

typedef struct lscoredb_kept_changes {
  size_t size; /* the caller sets it to sizeof(lscoredb_kept_changes) */
  uint64_t bytes;
  uint64_t seconds; /* of the retention */
  uint64_t first;   /* the oldest commit that can be read; last + 1 if there is none */
  uint64_t last;    /* the newest commit */
} lscoredb_kept_changes;

/* What is kept now. Fields beyond `out->size` are not written. LSCOREDB_NO_CHANGES.
 * LSCOREDB_INVALID_ARGUMENT: an invalid `size`. */
LSCOREDB_API uint32_t lscoredb_kept(lscoredb* database, lscoredb_kept_changes* out);

/* Opens a reader of the changes after a position. Place UINT32_MAX: after the whole commit. Commit
 * first - 1 of lscoredb_kept: everything that is kept; commit `last`: only what comes.
 * LSCOREDB_NO_CHANGES. LSCOREDB_INVALID_ARGUMENT: a commit that has not taken place. */
LSCOREDB_API uint32_t lscoredb_changes_open(lscoredb* database, uint64_t commit, uint32_t place,
                                            lscoredb_changes** out);
/* Closes a reader and the file that lscoredb_changes_file gave. */
LSCOREDB_API uint32_t lscoredb_changes_close(lscoredb_changes* reader);

#define LSCOREDB_CHANGE_CREATED 1u
#define LSCOREDB_CHANGE_CHANGED 2u /* its columns; none if it was written with what it held */
#define LSCOREDB_CHANGE_DELETED 3u
#define LSCOREDB_CHANGE_MOVED 4u  /* to another set specifier or, with its values, another layout */
#define LSCOREDB_CHANGE_SCHEMA 5u /* layouts, indexes or closed sets; comes before its objects */

typedef struct lscoredb_change {
  size_t size; /* of this record, which may grow */
  uint64_t commit;
  uint32_t place;
  uint32_t transaction;
  uint64_t time; /* of the commit, in microseconds since 1970, by the clock of its process */
  uint32_t kind; /* LSCOREDB_CHANGE_* */
  uint32_t last; /* 1: the last change of its transaction */
  /* What follows is 0 or NULL for LSCOREDB_CHANGE_SCHEMA. */
  uint64_t object;
  uint16_t layout;                /* that it has now, or had when it was deleted */
  uint16_t former_layout;         /* 0: the same */
  uint32_t column_count;          /* of LSCOREDB_CHANGE_CHANGED and LSCOREDB_CHANGE_MOVED */
  char16_t const* setspec;        /* likewise, never NULL for an object */
  char16_t const* former_setspec; /* NULL: the same */
  uint64_t const* columns; /* the tokens, in its layout, of the columns whose value changed */
} lscoredb_change;

/* Reads the next change. `*out` is NULL if there is none yet; otherwise it and what it points at
 * belong to the reader and are valid until its next call. After a failure the reader is where it
 * was. LSCOREDB_CHANGES_GONE, LSCOREDB_NO_CHANGES: see above. LSCOREDB_DAMAGED: what is kept is
 * damaged; a reader at a later position may succeed. */
LSCOREDB_API uint32_t lscoredb_changes_next(lscoredb_changes* reader, lscoredb_change const** out);

/* Waits until there is something to read, for at most `milliseconds` (negative: without a limit).
 * `*out` is 1 if lscoredb_changes_next may give a change and 0 if the time is over or a signal
 * arrived. */
LSCOREDB_API uint32_t lscoredb_changes_wait(lscoredb_changes* reader, int32_t milliseconds,
                                            uint32_t* out);

/* A file descriptor for poll() and event loops: it is readable when there may be something to read,
 * on a server whenever it is time to ask, and no longer once lscoredb_changes_next gave NULL. It
 * belongs to the reader: neither read nor
 * close it. LSCOREDB_IO_ERROR: the system allows no more of them (fs.inotify.max_user_instances);
 * lscoredb_changes_wait then works all the same. */
LSCOREDB_API uint32_t lscoredb_changes_file(lscoredb_changes* reader, int* out);

#ifdef __cplusplus
}
#endif

#endif

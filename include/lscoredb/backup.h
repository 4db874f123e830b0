#ifndef LSCOREDB_BACKUP_H
#define LSCOREDB_BACKUP_H

/*
 * Backups of a database, and databases made of them, as they were after any commit.
 *
 * Rules
 *
 *  1. A backup is a directory of parts. A full part is a copy of the database. An increment holds
 *     what was committed since the part before it. docs/format.md describes the files.
 *  2. Contexts of this and other processes may read and write the database meanwhile. A backup does
 *     not wait for them, and holds no commit that a power failure could take back.
 *  3. Every database can have full parts. An increment needs a directory that has kept its changes
 *     (lscoredb_keep_changes) since the last part.
 *  4. If a call fails, or the process or the machine dies, the backup is as it was before. The next
 *     lscoredb_backup removes what is left over. A part that is complete is never changed.
 *  5. One process at a time writes to a backup; any number may read it.
 *  6. A restored database is another database: it has an identity of its own, so that the backup
 *     refuses it, and numbers of commits above all that the other one has given, so that its feed
 *     of changes returns LSCOREDB_CHANGES_GONE for the other one's positions. Identities of objects
 *     that were given after the restored state are given again. It has a log, and keeps its
 *     changes, if the other one did at its last backup.
 *  7. The thread's watch (watch.h) observes these calls, and may stop them.
 *
 * After a failure lscoredb_open_error names the file or directory, and says what is wrong with it.
 * Any of the functions may return LSCOREDB_CANNOT_OPEN, LSCOREDB_DISK_FULL, LSCOREDB_STOPPED, and
 * those that read a backup
 *   LSCOREDB_NOT_A_BACKUP    the directory holds none
 *   LSCOREDB_BACKUP_DAMAGED  a part is missing or damaged, or the list of parts is
 *   LSCOREDB_NEWER_FORMAT    a later version wrote it
 */

#include <lscoredb/host.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LSCOREDB_BACKUP_NOTHING 0u /* there was no commit since the last part */
#define LSCOREDB_BACKUP_FULL_PART 1u
#define LSCOREDB_BACKUP_INCREMENT 2u

typedef struct lscoredb_backup_part {
  size_t size;     /* of this record, which may grow */
  uint32_t kind;   /* LSCOREDB_BACKUP_FULL_PART or LSCOREDB_BACKUP_INCREMENT */
  uint32_t number; /* as in the name of its file */
  uint64_t first;  /* the first commit of an increment; of a full part, `last` */
  uint64_t last;   /* the last commit */
  uint64_t time;   /* the part is of the state then, in microseconds since 1970 */
  uint64_t bytes;  /* of its file */
} lscoredb_backup_part;

#define LSCOREDB_BACKUP_FULL 1u  /* a full part, even if an increment would do */
#define LSCOREDB_BACKUP_PRUNE 2u /* then removes the parts before the last full one */

/* Adds a part to the backup in `directory`, which is created if it is missing: a full part if it is
 * the first, otherwise an increment. `*out`, whose `size` the caller sets, gets the part, or
 * LSCOREDB_BACKUP_NOTHING; it may be NULL.
 *
 * LSCOREDB_NEEDS_FULL_BACKUP: the commits since the last part are not kept (any more).
 * LSCOREDB_OTHER_BACKUP: of another database, or of one that was put back to an earlier state by
 * other means and went on differently. LSCOREDB_NOT_A_BACKUP: the directory is not empty, and holds
 * no backup. LSCOREDB_BACKUP_BUSY. LSCOREDB_DAMAGED: of the database. LSCOREDB_INVALID_ARGUMENT:
 * unknown flags. LSCOREDB_READ_ONLY_DATABASE: nothing was ever committed, and nothing can be. */
LSCOREDB_API uint32_t lscoredb_backup(lscoredb* database, char const* directory, uint32_t flags,
                                      lscoredb_backup_part* out);

/* Receives a part. A result other than 0 ends the listing. It must not throw. */
typedef uint32_t (*lscoredb_backup_callback)(void* user, lscoredb_backup_part const* part);

#define LSCOREDB_BACKUP_VERIFY 1u /* reads all parts first, and compares their checksums */

/* Lists the parts in their order. LSCOREDB_INVALID_ARGUMENT: unknown flags. */
LSCOREDB_API uint32_t lscoredb_backup_list(char const* directory, uint32_t flags,
                                           lscoredb_backup_callback report, void* user);

typedef struct lscoredb_restore_options {
  size_t size;           /* the caller sets it to sizeof(lscoredb_restore_options) */
  uint64_t until_commit; /* the last commit; 0: no limit */
  uint64_t until_time;   /* up to the first commit after this time, in microseconds since 1970; 0:
                            no limit */
  uint32_t no_check;     /* 1: does not check the restored database (lscoredb_check) */
} lscoredb_restore_options;

typedef struct lscoredb_restored {
  size_t size;     /* the caller sets it to sizeof(lscoredb_restored) */
  uint64_t commit; /* the database is as it was after this commit */
  uint64_t time;   /* of that commit or, if it is the last one of a full part, of the part */
} lscoredb_restored;

/* Makes a database of a backup in `target`, a directory that does not exist or is empty. It grows
 * in a directory beside it, "<target>.restoring", and gets its name when it is whole and checked.
 * `options` may be NULL: the newest state, checked. So may `out`.
 *
 * LSCOREDB_NOT_IN_BACKUP: the state is older than the oldest part, newer than the newest, or
 * between the end of an increment and the next full part. LSCOREDB_DAMAGED: the check found
 * something, so the database was damaged when it was backed up. LSCOREDB_BACKUP_BUSY: somebody else
 * is restoring to the target. LSCOREDB_INVALID_ARGUMENT: two limits, or a server's URL as target;
 * copy to a server what was restored to a directory. */
LSCOREDB_API uint32_t lscoredb_restore(char const* directory,
                                       lscoredb_restore_options const* options, char const* target,
                                       lscoredb_restored* out);

#ifdef __cplusplus
}
#endif

#endif

#ifndef LSCOREDB_MOVE_H
#define LSCOREDB_MOVE_H

/*
 * Moving an object to another set: it keeps its identity and becomes an object of another table.
 * And what is prepared for the objects of a set, when all of them move.
 */

#include <lscoredb/lscoredb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The value of the column with token `from` becomes that of the column with token `to`. */
typedef struct lscoredb_column_copy {
  uint64_t from;
  uint64_t to;
} lscoredb_column_copy;

/* Moves an object to a layout and a set, in one step: it leaves the indexes of its set and enters
 * those of the other one. Values of columns with the same token and type are kept, then the
 * `count` copies are made, and all other columns become null or zero. A `from` that the object's
 * layout lacks gives null or zero. `copies` may be NULL if `count` is 0.
 *
 * After a failure the object is as it was. LORV_STATUS_NO_OBJECT, LORV_STATUS_UNREACHABLE,
 * LSCOREDB_UNKNOWN_LAYOUT, LSCOREDB_WRITE_REFUSED. LSCOREDB_SET_CLOSED: the set is closed, and the
 * object is not in it. LSCOREDB_UNKNOWN_COLUMN: the layout has no column with the token of a `to`.
 * LSCOREDB_WRONG_TYPE: the two columns of a copy have different types. LSCOREDB_DUPLICATE_KEY: a
 * unique index that covers the set holds the object's new key; if a scan is open, only
 * lscoredb_commit finds it. LSCOREDB_STOPPED: the thread's watch says so (lscoredb/watch.h). */
LSCOREDB_API uint32_t lscoredb_move_to_set(uint64_t context, uint64_t oid, uint16_t layout,
                                           char16_t const* setspec,
                                           lscoredb_column_copy const* copies, uint32_t count);

/* Prepared indexes (lscoredb/index_build.h) over exactly this set become prepared indexes over the
 * set `to`, where their columns have the token of a copy's `to` instead of its `from`. For a
 * transaction that moves all objects of the set. They keep their ids and begin again from the start
 * with its commit, whoever prepared them, and until when; a step that was under way then returns
 * LSCOREDB_CONFLICT. Abandoned ones stay. A rollback to an earlier savepoint undoes it.
 * LSCOREDB_WRITE_REFUSED. LSCOREDB_TOO_LARGE: a set specifier is too long. */
LSCOREDB_API uint32_t lscoredb_move_prepared(uint64_t context, char16_t const* setspec,
                                             char16_t const* to, lscoredb_column_copy const* copies,
                                             uint32_t count);

#ifdef __cplusplus
}
#endif

#endif

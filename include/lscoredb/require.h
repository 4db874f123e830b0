#ifndef LSCOREDB_REQUIRE_H
#define LSCOREDB_REQUIRE_H

/*
 * Making a commit fail when others changed what a transaction relied on, and finding out whether
 * they did; see also lscoredb_require.
 */

#include <lscoredb/lscoredb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Makes the commit fail with LSCOREDB_CONFLICT if, since the snapshot, another transaction has
 * inserted, changed or deleted an object of the set or of a set that begins with it. Use it for
 * work that has read all objects of a set and would miss a new one. Transactions that require the
 * same set do not conflict with each other. Also works if the transaction writes nothing. A
 * rollback to an earlier savepoint undoes it. LSCOREDB_WRITE_REFUSED. */
LSCOREDB_API uint32_t lscoredb_require_set(uint64_t context, char16_t const* setspec);

/* The number of the last commit, as of the snapshot, that inserted, changed or deleted an object of
 * the set or of a set that begins with it; 0: none did. As long as it is the same, what one
 * transaction has read of these objects holds in another. What the transaction itself wrote does
 * not count. */
LSCOREDB_API uint32_t lscoredb_set_changed(uint64_t context, char16_t const* setspec,
                                           uint64_t* out_commit);

#ifdef __cplusplus
}
#endif

#endif

#ifndef LSCOREDB_BULK_H
#define LSCOREDB_BULK_H

/*
 * Scanning and reading many objects in one call.
 *
 * A random object's row is usually not in the processor's cache, and reading one after the other
 * means waiting for each. These functions start to fetch rows before they need them; from a server
 * they fetch those that this process does not have yet in one round trip. Calls for 50 to 1,000
 * objects serve best. Rules and statuses are those of <lscoredb/lscoredb.h>.
 */

#include <lscoredb/lscoredb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What lscoredb_read_words and lscoredb_read_values say of each object. */
#define LSCOREDB_HAS_VALUE 0u
#define LSCOREDB_IS_NULL 1u
#define LSCOREDB_IS_GONE 2u /* there is no such object, or it was deleted */

/* `flags` of lscoredb_iterator_next_many, at most one of them. */
#define LSCOREDB_FETCH_ROWS 1u /* the caller will read the objects */
#define LSCOREDB_COUNT_ONLY 2u /* the caller needs only their number; `out` is not used */

/* Gets the next `capacity` objects of an iterator, as that many calls of lorv_iterator_next do.
 * `count` receives how many there are; fewer than `capacity`: the iterator is at its end. Objects
 * that are deleted after this call are among those that it returned. A `capacity` of 0 only asks
 * whether the iterator can still be used. If a call fails, the iterator returns that status from
 * then on. LSCOREDB_INVALID_ARGUMENT: unknown flags, or more than one.
 *
 * With LSCOREDB_FETCH_ROWS the rows of the objects, and of a server those of many more to come, are
 * on their way when it returns: however few are asked for at a time, a scan that reads them all
 * takes no more round trips than one by single steps.
 *
 * With LSCOREDB_COUNT_ONLY a page of entries takes hardly longer than one: as long as the
 * transaction has written nothing, the entries inside a page are counted unread, so damage to them
 * is not found. What a log holds lies between them, and each entry of it costs a look. */
LSCOREDB_API uint32_t lscoredb_iterator_next_many(uint64_t iterator, uint32_t flags,
                                                  uint32_t capacity, LORV_REFERENCE* out,
                                                  uint32_t* count);

/* Announces that the objects will be read soon. Unknown identities are ignored. */
LSCOREDB_API uint32_t lscoredb_fetch(uint64_t context, uint32_t count, uint64_t const* oids);

/* Reads a column of fixed size (all types but texts and binary values) of `count` objects in any
 * order. `layout` is the one whose column number `column` is, as in an address; 0: each object's
 * own. Value and state of object i go to `values[i]` and `states[i]`; the value is 0 unless the
 * state is LSCOREDB_HAS_VALUE. A value is the 64 bits of the number; of a float, its 32 bits; of a
 * reference, the identity of its target. LSCOREDB_WRONG_TYPE: a column of variable size. A call
 * that fails may have written some values and states. */
LSCOREDB_API uint32_t lscoredb_read_words(uint64_t context, uint32_t count, uint64_t const* oids,
                                          uint16_t layout, uint32_t column, uint64_t* values,
                                          uint8_t* states);

/* Reads a column of texts or binary values of `count` objects in any order into one buffer. `data`
 * receives the buffer, which the kernel owns: it is valid until the next call of this function with
 * this context, or the transaction's end; a call for no objects frees it. The value of object i is
 * in the bytes from `offsets[i]` to `offsets[i + 1]`, and empty unless its state is
 * LSCOREDB_HAS_VALUE; `offsets` has room for `count` + 1 entries. Texts are UTF-16 units without a
 * terminator, in the byte order of the machine, and lie at even offsets from an aligned address.
 * LSCOREDB_WRONG_TYPE: another column, or one that is a text in some of the objects' own layouts
 * and binary in others. A call that fails may have written some offsets and states. */
LSCOREDB_API uint32_t lscoredb_read_values(uint64_t context, uint32_t count, uint64_t const* oids,
                                           uint16_t layout, uint32_t column, void const** data,
                                           uint64_t* offsets, uint8_t* states);

#ifdef __cplusplus
}
#endif

#endif

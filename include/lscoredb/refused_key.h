#ifndef LSCOREDB_REFUSED_KEY_H
#define LSCOREDB_REFUSED_KEY_H

/*
 * Part of the host's side of the kernel, see <lscoredb/host.h>: the key for which a unique index
 * refused a commit. A duplicate is mostly refused by the write that makes it, where the host knows
 * what it was about to write. At commit it is refused when another transaction took the key since,
 * or when it came while a scan was open.
 */

#include <lscoredb/lscoredb.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lscoredb_refused_key {
  size_t size;     /* set to sizeof(lscoredb_refused_key) by the caller */
  uint64_t index;  /* no longer there when the transaction created it */
  uint64_t object; /* that the transaction wrote */
  uint64_t holder; /* another one with the key: a committed one, or one of the transaction too */
  /* As lorv_context_create_iterator takes it, with all columns of the index. Valid until the
   * context's next transaction begins or it is closed. */
  void const* key;
  uint64_t key_size; /* in bytes */
} lscoredb_refused_key;

/* Tells why the context's last lscoredb_commit gave LSCOREDB_DUPLICATE_KEY, until its next
 * transaction begins. Fields beyond `out->size` are not written. LSCOREDB_INVALID_ARGUMENT: it did
 * not give that, or a `size` that is none. */
LSCOREDB_API uint32_t lscoredb_refused(uint64_t context, lscoredb_refused_key* out);

#ifdef __cplusplus
}
#endif

#endif

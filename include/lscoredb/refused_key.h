#ifndef LSCOREDB_REFUSED_KEY_H
#define LSCOREDB_REFUSED_KEY_H

/*
 * Part of the host's side of the kernel, see <lscoredb/host.h>: the key for which a unique index
 * refused a commit, or was not created. A duplicate is usually refused by the write that makes it,
 * where the host knows what it was about to write. The commit refuses one if another transaction
 * took the key since, or if it was written while a scan was open. An index is not created if two
 * existing objects have the same key.
 */

#include <lscoredb/lscoredb.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lscoredb_refused_key {
  size_t size;     /* set to sizeof(lscoredb_refused_key) by the caller */
  uint64_t index;  /* gone if the transaction created it, or failed to */
  uint64_t object; /* that the transaction wrote; of an index that was not created, either one */
  uint64_t holder; /* another object with the key, committed or of the same transaction */
  /* In the form of lorv_context_create_iterator, with all columns of the index. Valid until the
   * context begins its next transaction or is closed. */
  void const* key;
  uint64_t key_size; /* in bytes */
} lscoredb_refused_key;

/* Gives the key for which the context's last lscoredb_commit, or an earlier
 * lorvi_context_create_index of its transaction, returned LSCOREDB_DUPLICATE_KEY, until the next
 * commit or transaction. Fields beyond `out->size` are not written. LSCOREDB_INVALID_ARGUMENT:
 * neither returned that, or `size` is invalid. */
LSCOREDB_API uint32_t lscoredb_refused(uint64_t context, lscoredb_refused_key* out);

#ifdef __cplusplus
}
#endif

#endif

#ifndef SAGLEME_HOST_H
#define SAGLEME_HOST_H

/*
 * For programs in C: a database with its catalogue, and failures in words. Three calls lead to the
 * first table:
 *
 *   lscoredb* database;
 *   uint64_t context;
 *   status = sagleme_open_or_create("shop.db", NULL, &database, &context);
 *   status = lscoredb_begin(context, LSCOREDB_READ_WRITE);
 *   status = lorv_create_table_by_names(context, u"Shop.Article", NULL, columns, NULL);
 *
 * Rules
 *
 *  1. Every function that returns uint32_t returns 0 for success, else a status of the layer
 *     (sagleme.h) or of the kernel (host.h of lscoredb); nothing is open then, and outputs are
 *     unchanged. sagleme_error has the words.
 *  2. The database and its first context are the caller's: further contexts by
 *     lscoredb_context_open, the end by sagleme_close.
 *  3. No exception leaves these functions.
 */

#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Makes a new database in `directory`, which may exist when it is empty or holds the beginnings of
 * a creation that was cut off; NULL makes one in memory. `options` may be NULL.
 * LSCOREDB_CANNOT_OPEN: there is a database already, or the directory cannot be used. */
SAGLEME_HOST_API uint32_t sagleme_create(char const* directory, lscoredb_options const* options,
                                         lscoredb** database, uint64_t* context);
/* Opens an existing one. LSCOREDB_NOT_A_DATABASE: there is none. SAGLEME_NOT_PREPARED: its creation
 * was cut off. */
SAGLEME_HOST_API uint32_t sagleme_open(char const* directory, lscoredb_options const* options,
                                       lscoredb** database, uint64_t* context);
/* Opens what is there, and creates what is not. Several processes may call it at the same time. */
SAGLEME_HOST_API uint32_t sagleme_open_or_create(char const* directory,
                                                 lscoredb_options const* options,
                                                 lscoredb** database, uint64_t* context);
/* Closes the context, which rolls back what is open there, and then the database. LSCOREDB_IN_USE:
 * other contexts are open; this one is closed all the same. */
SAGLEME_HOST_API uint32_t sagleme_close(lscoredb* database, uint64_t context);

/* What `status`, given by the last call in `context`, means, in UTF-8: the words of the layer where
 * it wrote some, else a sentence for the status. `context` 0: given by one of the functions above.
 * Never NULL; valid until the thread's next call of it. Texts over 1,023 bytes are cut. */
SAGLEME_HOST_API char const* sagleme_error(uint64_t context, uint32_t status);

#ifdef __cplusplus
}
#endif

#endif

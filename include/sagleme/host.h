#ifndef SAGLEME_HOST_H
#define SAGLEME_HOST_H

/*
 * For programs in C: databases with their catalogue, and texts of failures. Three calls lead to the
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
 *     unchanged. sagleme_error gives the text.
 *  2. The caller owns the database and its first context, opens further contexts with
 *     lscoredb_context_open, and ends with sagleme_close.
 *  3. No exception leaves these functions.
 */

#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates a database in `directory`, which may exist if it is empty or holds what an interrupted
 * creation left; NULL creates one in memory. `options` may be NULL.
 * LSCOREDB_CANNOT_OPEN: a database exists already, or the directory cannot be used. */
SAGLEME_HOST_API uint32_t sagleme_create(char const* directory, lscoredb_options const* options,
                                         lscoredb** database, uint64_t* context);
/* Opens an existing database. LSCOREDB_NOT_A_DATABASE: there is none. SAGLEME_NOT_PREPARED: its
 * creation was interrupted. */
SAGLEME_HOST_API uint32_t sagleme_open(char const* directory, lscoredb_options const* options,
                                       lscoredb** database, uint64_t* context);
/* Opens a database, or creates it if there is none. Several processes may call it at once. */
SAGLEME_HOST_API uint32_t sagleme_open_or_create(char const* directory,
                                                 lscoredb_options const* options,
                                                 lscoredb** database, uint64_t* context);
/* Closes the context, rolling back its transaction, and then the database. LSCOREDB_IN_USE: other
 * contexts are open; this one is closed nevertheless. */
SAGLEME_HOST_API uint32_t sagleme_close(lscoredb* database, uint64_t context);

/* The meaning, in UTF-8, of the `status` of the last call in `context`: the text of the layer if it
 * wrote one, else a sentence for the status. `context` 0: of one of the functions above. Never
 * NULL; valid until the thread's next call of it. Texts over 1,023 bytes are truncated. */
SAGLEME_HOST_API char const* sagleme_error(uint64_t context, uint32_t status);

#ifdef __cplusplus
}
#endif

#endif

#ifndef SAGLEME_SAGLEME_H
#define SAGLEME_SAGLEME_H

/*
 * The metadata layer for hosts: tables, columns and indexes by name, and objects through handles.
 *
 * Rules
 *
 *  1. Contexts. `context` is a kernel context that the host has opened and in which it has begun a
 *     transaction. The library neither begins nor ends transactions: whatever a call changed stays
 *     until the host commits or rolls back, even if the call failed halfway. Roll back after a
 *     failed change.
 *  2. Threads. The library starts no threads and may be called from any. Only one thread at a time
 *     may use a context. Start-up (rule 7) must finish before a second thread enters.
 *  3. Statuses. A function that returns uint32_t returns 0 for success or a status: one of those
 *     named here, or a status of the kernel, passed through. Outputs are written only on success
 *     unless stated otherwise. Any function may return SAGLEME_BAD_ARGUMENT, SAGLEME_NO_MEMORY,
 *     SAGLEME_NAME_TOO_LONG (for an index key) or LORV_STATUS_NO_OBJECT. A catalogue that
 *     contradicts itself ends the process (SAGLEME_BROKEN_CATALOGUE).
 *  4. Error texts. lorv_metalayer_errbuf returns the text of a context's last failure. Statuses
 *     that come from the kernel have no text.
 *  5. Strings are UTF-16 and end with a zero unit. The library keeps no pointer to a string passed
 *     in. Returned strings are in kernel memory, stay valid until the transaction or its innermost
 *     read scope ends, and must not be freed.
 *  6. References. An object is named by two words: `oid`, its identity, 0 for no object; and
 *     `addr`, whose low 16 bits name a layout. Both stay valid for the object's life; a stale
 *     `addr` is accepted.
 *  7. Start-up. Call lorv_prepare_system_tables once per database before anything else, or
 *     lorv_init_metalayer on a database known to be current. What start-up learns is kept with the
 *     database until its last close. A process may use any number of databases, one after another
 *     or at the same time. (With a kernel that cannot tell databases apart - the embedded one can -
 *     the layer has one state per process, and the process is limited to one database.)
 *  8. Continuations. A function with `next` and `more` works in steps. While it returns 0 with
 *     *more true, commit and begin if you want to, call run_continuation with *next, and free that
 *     handle. Any other outcome is final. All steps run on one thread and in the context of the
 *     first; between steps that context remains the thread's current one. Between two steps you may
 *     work in another database, and may even run another continuation to its end. A step in a
 *     context of another database is refused with LORV_STATUS_FOREIGN_DATABASE.
 *  9. Exceptions. Failures become statuses. Only out of memory and failures of the standard library
 *     leave the library as C++ exceptions, after the thread's state has been restored.
 * 10. Functions marked frameless touch neither the error text nor the thread's state.
 */

#include <lscoredb/lscoredb.h>
#include <sagleme/export.h>
#include <sagleme/statuses.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logical types --------------------------------------------------------------------------- */

/* Column types, by their codes in the catalogue. */
#define SAGLEME_TYPE_TEXT 1u
#define SAGLEME_TYPE_BINARY 2u
#define SAGLEME_TYPE_SIGNED 3u
#define SAGLEME_TYPE_UNSIGNED 4u
#define SAGLEME_TYPE_DECIMAL 5u
#define SAGLEME_TYPE_FLOAT 6u
#define SAGLEME_TYPE_DOUBLE 7u
#define SAGLEME_TYPE_REFERENCE 8u
#define SAGLEME_TYPE_BOOL 10u

/* ---- records from the host ------------------------------------------------------------------- */

/* Columns of a new table. A call takes at most 112. A table has at most 115, including inherited
 * ones and the three that every table has. Texts, binaries and references must be nullable. */
typedef struct LORV_COLUMN_DEFINITION {
  LS_OBJ_REF type; /* the row of a primitive type or of the referenced table; oid 0 ends the array
                    */
  uint8_t is_nullable;
  char16_t const* name;
} LORV_COLUMN_DEFINITION;

typedef struct LORV_COLUMN_DEFINITION_NAMES {
  uint8_t logical_type;      /* SAGLEME_TYPE_* */
  char16_t const* type_name; /* full name of the referenced table, for reference columns */
  uint8_t is_nullable;
  char16_t const* name; /* null ends the array */
} LORV_COLUMN_DEFINITION_NAMES;

typedef struct LORV_INDEXED_COLUMN {
  char16_t const* name; /* null ends the array */
  uint8_t ascending;    /* 0: descending */
} LORV_INDEXED_COLUMN;

/* Opaque. The host owns continuations. The library owns the other two; see handles below. */
typedef struct continuation_context continuation_context;
typedef struct PropertyAccessInfo PropertyAccessInfo;
typedef struct CreateInfo CreateInfo;

/* ---- version, errors ------------------------------------------------------------------------- */

/* The version of the catalogue that this library creates: 9. Needs no context and no database.
 * Frameless. */
SAGLEME_API uint64_t lorv_get_metaschema_version(void);
/* The number of schema changes, as seen by the transaction. When it changes, anything remembered
 * about the schema is stale. For code that already runs in a context (C++:
 * TlsMetalayerContext::Current()). Frameless: a kernel failure, such as before start-up, is thrown
 * as db_util::db_exception. */
SAGLEME_API uint64_t lorv_get_metaschema_generation(void);
/* The text of the context's last failure, or null. The next call in the context clears it; an
 * lorv_crud_ call clears it only when it fails with a text of its own. Longer texts are cut off
 * after 7168 units. The library owns the memory, 14 KiB per context that has called the layer, and
 * keeps it as long as the context is open. Frameless. */
SAGLEME_API char16_t const* lorv_metalayer_errbuf(uint64_t context);

/* ---- bootstrap ------------------------------------------------------------------------------- */

/* Creates the catalogue, or completes or upgrades an existing one, verifies it, and starts up
 * (rules 7 and 8). May be interrupted after any step and started again. SAGLEME_VERSION_MISMATCH:
 * the database is newer than this library. */
SAGLEME_API uint32_t lorv_prepare_system_tables(uint64_t context, continuation_context** next,
                                                bool* more);
/* Another name for lorv_prepare_system_tables. */
SAGLEME_API uint32_t lorv_create_metadata(uint64_t context, continuation_context** next,
                                          bool* more);
/* Runs one step and returns its status. *next is a new handle when *more is true, otherwise null.
 * The caller still owns `handle` and frees it. A failure that has no status is thrown here. */
SAGLEME_API uint32_t run_continuation(continuation_context* handle, continuation_context** next,
                                      bool* more);
/* Frees a handle; null is ignored. Freeing the last handle of an unfinished continuation abandons
 * it and must be done on the thread that created it. */
SAGLEME_API void free_continuation_handle(continuation_context* handle);
/* Starts up on a database with a complete catalogue. Does nothing if the process has already
 * started up on it. SAGLEME_NOT_PREPARED: the catalogue is missing or incomplete.
 * SAGLEME_VERSION_MISMATCH: it has another version. */
SAGLEME_API uint32_t lorv_init_metalayer(uint64_t context);
/* Resolves reference columns whose target table did not exist when they were created.
 * SAGLEME_TARGET_NOT_FOUND: it still does not exist. Call this before anything uses the type of
 * such a column: verifying or indexing it, and adding or dropping columns in its table or in an
 * ancestor, end the process until then. */
SAGLEME_API uint32_t lorv_update_reference_columns_types(uint64_t context);

/* ---- booleans -------------------------------------------------------------------------------- */

/* Reads or writes a bool column by column number. It is stored as an unsigned integer, 0 or 1.
 * Frameless. */
SAGLEME_API uint32_t lorv_meta_get_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t* out);
SAGLEME_API uint32_t lorv_meta_put_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t value);

/* ---- tokens ---------------------------------------------------------------------------------- */

/* A token is the kernel's number for a name. The same text always has the same token. */

/* Gets the token of a name, and creates it if necessary. */
SAGLEME_API uint32_t lorv_assure_token(uint64_t context, char16_t const* name, uint64_t* out_token);
/* Gets the token of the table's layout if `name` is the full name of a table, otherwise the token
 * of the name. SAGLEME_TOKEN_NOT_FOUND: there is none; it is not created. */
SAGLEME_API uint32_t lorv_get_token(uint64_t context, char16_t const* name, uint64_t* out_token);
/* Gets the text of a token. SAGLEME_TOKEN_NOT_FOUND: there is no such token. */
SAGLEME_API uint32_t lorv_get_token_name(uint64_t context, uint64_t token,
                                         char16_t const** out_name);
/* Gets the current name of the column or table that a kernel token stands for, or the token's text
 * if it is an ordinary word or its column or table no longer exists. SAGLEME_TOKEN_NOT_FOUND: there
 * is no such token. */
SAGLEME_API uint32_t lorv_get_column_name_by_token(uint64_t context, uint64_t token,
                                                   char16_t const** out_name);
SAGLEME_API uint32_t lorv_get_table_name_by_token(uint64_t context, uint64_t token,
                                                  char16_t const** out_name);

/* ---- set specifiers and table references ----------------------------------------------------- */

/* A set specifier is the text by which the kernel finds the objects of a table and its descendants.
 * Each table has one row for it. */

/* Gets the text of a set specifier's row. SAGLEME_BAD_ARGUMENT: `oid` is 0. */
SAGLEME_API uint32_t lorv_setspec_name_by_setspec_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                      char16_t const** out_name);
/* Gets the set specifier's row of a table's row. Returns 0 with the null reference if there is
 * none. */
SAGLEME_API uint32_t lorv_setspec_ref_by_table_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                   uint64_t* out_oid, uint64_t* out_addr);
/* `uid` begins with the last segment of a table's name and continues towards the first:
 * "Order.Sales" finds "Shop.Sales.Order". It must not be null. SAGLEME_TABLE_NOT_FOUND: no table
 * matches. SAGLEME_AMBIGUOUS_NAME: several do.
 *
 * Gets the text of the table's set specifier. */
SAGLEME_API uint32_t lorv_setspec_name_by_table_incomplete_reverse_uid(uint64_t context,
                                                                       char16_t const* uid,
                                                                       char16_t const** out_name);
/* Gets the table's row. */
SAGLEME_API uint32_t lorv_table_ref_by_incomplete_reverse_uid(uint64_t context, char16_t const* uid,
                                                              uint64_t* out_oid,
                                                              uint64_t* out_addr);
/* Gets the row of the table with this current layout. SAGLEME_LAYOUT_NOT_FOUND: there is none;
 * superseded layouts belong to no table. */
SAGLEME_API uint32_t lorv_table_ref_by_layout_id(uint64_t context, uint16_t layout_id,
                                                 uint64_t* out_oid, uint64_t* out_addr);

/* ---- tables ---------------------------------------------------------------------------------- */

/* Schema changes never touch objects: an object keeps the layout it was written in until something
 * moves it. Every change increments the schema generation. */

/* Creates a table under a base table (oid 0: no base of the host's), with columns by reference. If
 * a table of that name exists, the two are compared: the result is 0 with null outputs if they are
 * the same, otherwise SAGLEME_SCHEMA_MISMATCH. Both output pointers may be null. */
SAGLEME_API uint32_t lorv_create_table(uint64_t context, char16_t const* name, uint64_t base_oid,
                                       uint64_t base_addr,
                                       LORV_COLUMN_DEFINITION const* column_definitions,
                                       uint64_t* out_oid, uint64_t* out_addr);
/* The same by name. `base_table_name` may be null but not empty. A reference may name a table that
 * is created later. `out_layout_id` may be null. SAGLEME_BASE_NOT_FOUND: the base table does not
 * exist. SAGLEME_COLUMN_NOT_NULLABLE: a column of this type must be nullable.
 * SAGLEME_TARGET_NOT_FOUND: a column has an unknown type. */
SAGLEME_API uint32_t lorv_create_table_by_names(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
/* The same, but the targets of references must exist, otherwise SAGLEME_TARGET_NOT_FOUND. */
SAGLEME_API uint32_t lorv_create_table_high_check_types(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
/* Drops an empty table and all its descendants. SAGLEME_TABLE_NOT_FOUND. SAGLEME_TABLE_NOT_EMPTY:
 * the table or a descendant has an index or an object; nothing is dropped. References to the table
 * are not checked. */
SAGLEME_API uint32_t lorv_drop_table_cascade(uint64_t context, char16_t const* full_table_name);
/* Drops a table and its indexes, whether or not it holds objects. Its objects remain and are queued
 * for removal. SAGLEME_TABLE_HAS_DESCENDANTS: it has descendants and `drop_children` is false.
 * SAGLEME_TABLE_REFERENCED: a reference column or a class refers to it and `force` is false. */
SAGLEME_API uint32_t lorv_drop_table_by_name(uint64_t context, char16_t const* full_table_name,
                                             bool drop_children, bool force);
/* The same for several tables, which may reference each other. `names` ends with a null pointer. */
SAGLEME_API uint32_t lorv_drop_tables_by_names(uint64_t context, char16_t const** names,
                                               bool drop_children, bool force);
/* Renames a table. SAGLEME_TABLE_NOT_FOUND. SAGLEME_TABLE_EXISTS: the new name is taken, possibly
 * by the table itself. */
SAGLEME_API uint32_t lorv_rename_table(uint64_t context, char16_t const* full_table_name,
                                       char16_t const* new_table_name);
/* Adds columns to a table and its descendants. The output is the table's new layout; its pointer
 * may be null. SAGLEME_COLUMN_NAME_TAKEN: names are taken; the text lists them. */
SAGLEME_API uint32_t lorv_alter_table_add_columns(uint64_t context, char16_t const* full_table_name,
                                                  LORV_COLUMN_DEFINITION_NAMES const* added_columns,
                                                  uint64_t* out_layout_id);
/* Drops a column from the table that declares it and from its descendants. The output is as above.
 * SAGLEME_NO_SUCH_COLUMN. SAGLEME_COLUMN_INHERITED: an ancestor declares it.
 * SAGLEME_COLUMN_INDEXED: an index uses it. SAGLEME_COLUMN_MAPPED, SAGLEME_TABLE_REFERENCED: a
 * class uses it. */
SAGLEME_API uint32_t lorv_alter_table_drop_column_by_names(uint64_t context,
                                                           char16_t const* full_table_name,
                                                           char16_t const* column_name,
                                                           uint64_t* out_layout_id);
/* Renames a column in the table that declares it and in its descendants. SAGLEME_NO_SUCH_COLUMN.
 * SAGLEME_COLUMN_INHERITED. SAGLEME_COLUMN_NAME_TAKEN: the new name is taken, possibly by the
 * column itself. */
SAGLEME_API uint32_t lorv_alter_table_rename_column(uint64_t context,
                                                    char16_t const* full_table_name,
                                                    char16_t const* column_name,
                                                    char16_t const* column_new_name);

/* ---- indexes --------------------------------------------------------------------------------- */

/* An index covers a table and its descendants. Its name is unique among all indexes
 * (SAGLEME_INDEX_EXISTS). If bit i of `sort_mask` is set, the i-th column is descending. `columns`
 * holds at most 15 column numbers and ends with -1. Bit 0 of `flags`: unique.
 * SAGLEME_BROKEN_CATALOGUE is an ordinary status here: a column number is unknown, or there are too
 * many columns. */

/* By the table's row. */
SAGLEME_API uint32_t lorv_create_index(uint64_t context, uint64_t table_oid, uint64_t table_addr,
                                       char16_t const* name, uint16_t sort_mask,
                                       int16_t const* columns, uint32_t flags);
/* By names. SAGLEME_TABLE_NOT_FOUND. SAGLEME_COLUMN_NOT_FOUND. */
SAGLEME_API uint32_t lorv_create_index_by_names(uint64_t context, char16_t const* name,
                                                char16_t const* table,
                                                LORV_INDEXED_COLUMN const* columns, bool unique);
/* By the table's current layout. SAGLEME_TABLE_NOT_FOUND: no table has it. */
SAGLEME_API uint32_t lorv_create_index_ids(uint64_t context, uint16_t layout_id,
                                           char16_t const* name, uint16_t sort_mask,
                                           int16_t const* columns, uint32_t flags);
/* Drops an index by its row, by its name (SAGLEME_INDEX_NOT_FOUND), or by table and name
 * (SAGLEME_INDEX_OF_ANOTHER_TABLE). `table` is a full name or a name without its first segments. */
SAGLEME_API uint32_t lorv_drop_index(uint64_t context, uint64_t oid, uint64_t addr);
SAGLEME_API uint32_t lorv_drop_index_by_name(uint64_t context, char16_t const* name);
SAGLEME_API uint32_t lorv_drop_index_by_table_and_name(uint64_t context, char16_t const* table,
                                                       char16_t const* index);

/* Deletes all classes and mapped properties of language bindings. Tables are unchanged. */
SAGLEME_API uint32_t lorv_clrmetadata_clean(uint64_t context);

/* ---- objects: handles ------------------------------------------------------------------------ */

/* Get a handle by name once, then use it for any number of objects, in any context of its database
 * and on any thread. The library owns it. It is valid until a refresh finds that its table or
 * column no longer exists, at most until its database closes. After a schema change it is stale
 * until the next refresh. Names are full names. SAGLEME_TABLE_NOT_FOUND.
 *
 * lorv_crud_CreateObject, lorv_crud_CreateObjectWithId and lorv_crud_ReadRefAndType refuse a handle
 * of another database with LORV_STATUS_FOREIGN_DATABASE and a text. The frameless functions do not
 * check: with a foreign handle they read or write whichever column has the handle's ordinal. */

/* Gets the number that identifies a table for its whole life. */
SAGLEME_API uint32_t lorv_crud_GetTypeId(uint64_t context, char16_t const* name,
                                         uint64_t* out_type_id);
/* For creating objects of a table; of a system table if `system` is true. */
SAGLEME_API uint32_t lorv_crud_GetCreateHandle(uint64_t context, char16_t const* name,
                                               CreateInfo** out_handle);
SAGLEME_API uint32_t lorv_crud_GetCreateHandleOrSystem(uint64_t context, char16_t const* name,
                                                       bool system, CreateInfo** out_handle);
/* Returns 1 in all cases, because deleting needs no handle. */
SAGLEME_API uint32_t lorv_crud_GetDeleteHandle(uint64_t context, char16_t const* name,
                                               uint64_t* out_handle);
/* For one column of a table. SAGLEME_BAD_ARGUMENT: there is no such column. The name of a language
 * binding's property gives a kernel status, and every refresh fails with it until the property is
 * gone. */
SAGLEME_API uint32_t lorv_crud_GetPropertyHandle(uint64_t context, char16_t const* class_name,
                                                 char16_t const* property_name,
                                                 PropertyAccessInfo** out_handle);
/* Updates every handle to the schema that this transaction sees, and frees handles whose table or
 * column no longer exists. No other thread may use handles meanwhile. */
SAGLEME_API uint32_t lorv_crud_RefreshIssuedHandles(uint64_t context);

/* ---- objects: life --------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_crud_CreateObject(uint64_t context, CreateInfo const* handle,
                                            uint64_t* out_oid, uint64_t* out_addr);
/* With an identity chosen by the host that was never used before. Not for system tables. */
SAGLEME_API uint32_t lorv_crud_CreateObjectWithId(uint64_t context, CreateInfo const* handle,
                                                  uint64_t oid, uint64_t* out_addr);
/* Frameless; the handle is ignored. */
SAGLEME_API uint32_t lorv_crud_DeleteObject(uint64_t context, uint64_t handle, uint64_t oid,
                                            uint64_t addr);
SAGLEME_API uint32_t lorv_crud_DeleteObject_NoHandle(uint64_t context, uint64_t oid, uint64_t addr);
/* Finds an object by identity. The type id is that of its table, 0 if the table was dropped.
 * LORV_STATUS_NO_OBJECT. */
SAGLEME_API uint32_t lorv_crud_Lookup(uint64_t context, uint64_t oid, uint64_t* out_addr,
                                      uint64_t* out_type_id);
/* `addr` is ignored. */
SAGLEME_API uint32_t lorv_crud_GetObjectTypeId(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint64_t* out_type_id);

/* ---- objects: properties --------------------------------------------------------------------- */

/* Read or write one column. The handle's layout replaces the one in `addr`. Reading a column
 * without a value returns LORV_STATUS_NULL and writes no output. All are frameless except
 * lorv_crud_ReadRefAndType. The kernel owns the memory of texts and binaries (rule 5). Decimals are
 * counts of millionths. */

SAGLEME_API uint32_t lorv_crud_ReadBinary(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, LORV_BINARY** out);
SAGLEME_API uint32_t lorv_crud_WriteBinary(uint64_t context, PropertyAccessInfo const* handle,
                                           uint64_t oid, uint64_t addr, void const* data,
                                           uint64_t size);
SAGLEME_API uint32_t lorv_crud_ReadDecimal(uint64_t context, PropertyAccessInfo const* handle,
                                           uint64_t oid, uint64_t addr, int64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteDecimal(uint64_t context, PropertyAccessInfo const* handle,
                                            uint64_t oid, uint64_t addr, int64_t value);
SAGLEME_API uint32_t lorv_crud_ReadDouble(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, double* out);
SAGLEME_API uint32_t lorv_crud_WriteDouble(uint64_t context, PropertyAccessInfo const* handle,
                                           uint64_t oid, uint64_t addr, double value);
SAGLEME_API uint32_t lorv_crud_ReadFloat(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, float* out);
SAGLEME_API uint32_t lorv_crud_WriteFloat(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, float value);
SAGLEME_API uint32_t lorv_crud_ReadLong(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, int64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteLong(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, int64_t value);
SAGLEME_API uint32_t lorv_crud_ReadULong(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, uint64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteULong(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, uint64_t value);
/* Reads 0 or 1 into 64 bits. */
SAGLEME_API uint32_t lorv_crud_ReadBool(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, uint64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteBool(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, bool value);
/* Writes null if the column is nullable, otherwise zero. */
SAGLEME_API uint32_t lorv_crud_WriteDefault(uint64_t context, PropertyAccessInfo const* handle,
                                            uint64_t oid, uint64_t addr);
/* Writes the output whatever the status is; check the status first. */
SAGLEME_API uint32_t lorv_crud_ReadRef(uint64_t context, PropertyAccessInfo const* handle,
                                       uint64_t oid, uint64_t addr, LS_OBJ_REF* out);
/* The identity alone. */
SAGLEME_API uint32_t lorv_crud_ReadRefId(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, uint64_t* out);
/* With the type id of the object's table, 0 if the table was dropped. */
SAGLEME_API uint32_t lorv_crud_ReadRefAndType(uint64_t context, PropertyAccessInfo const* handle,
                                              uint64_t oid, uint64_t addr, LS_OBJ_REF* out,
                                              uint64_t* out_type_id);
/* A target oid of 0 writes null. */
SAGLEME_API uint32_t lorv_crud_WriteRef(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, uint64_t target_oid,
                                        uint64_t target_addr);
SAGLEME_API uint32_t lorv_crud_ReadString(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, char16_t const** out);
/* A null text writes null. */
SAGLEME_API uint32_t lorv_crud_WriteString(uint64_t context, PropertyAccessInfo const* handle,
                                           uint64_t oid, uint64_t addr, char16_t const* text);

#ifdef __cplusplus
}
#endif

#endif

#ifndef SAGLEME_SAGLEME_H
#define SAGLEME_SAGLEME_H

/*
 * The metadata layer for hosts: tables, columns and indexes by name, and objects through handles.
 *
 * Rules
 *
 *  1. Contexts. `context` is a kernel context that the host opened, with a transaction that the
 *     host began. The library begins and ends none: what a call changed stays, also when the call
 *     failed half way, until the host commits or rolls back. After a failed change roll back.
 *  2. Threads. The library starts none and may be called from any. One thread at a time uses a
 *     context. Start-up (rule 7) ends before a second thread enters.
 *  3. Statuses. A function that returns uint32_t returns 0 for success, else a status: one of
 *     those named here, or the kernel's own, passed through. Outputs are written on success alone,
 *     unless said otherwise. Statuses that many functions share:
 *       1001 bad argument    1003 out of memory      4197 a name is too long for an index key
 *       4273 no such object  7035 ends the process: the catalogue contradicts itself
 *  4. Texts. The words of a context's last failure are fetched with lorv_metalayer_errbuf.
 *     Statuses that come from the kernel have none.
 *  5. Strings are UTF-16 ended by a zero unit. The library keeps no pointer to a string passed in.
 *     A string handed out lies in kernel memory, is valid as long as the kernel says (until the
 *     transaction or its innermost read scope ends), and is not freed.
 *  6. References. An object is two words: `oid`, its identity, 0 for no object, and `addr`, whose
 *     low 16 bits name a layout. They stay valid for the object's life; a stale `addr` is
 *     accepted.
 *  7. Start-up. Once per database, before anything else in it: lorv_prepare_system_tables on a new
 *     or older one, lorv_init_metalayer on one that is known to be current. What is learnt then is
 *     kept with the database and ends with its last close; a process may use any number of
 *     databases, one after another and at the same time. (A kernel that does not tell databases
 *     apart, which the embedded one does, leaves the layer with one state for the process, and the
 *     process with one database.)
 *  8. Continuations. A function with `next` and `more` does its work in steps. While it returns 0
 *     with *more true, do what is to be done between steps (commit, begin), call run_continuation
 *     with *next, and free that handle. All steps run on one thread, in the context of the first;
 *     between steps that context stays the thread's own. Any other outcome is the last one. Work in
 *     another database may come between two steps, also a continuation that is run to its end; a
 *     step in a context of another database is refused with LORV_STATUS_FOREIGN_DATABASE.
 *  9. Exceptions. Failures inside become statuses, but out of memory and failures of the standard
 *     library pass through as C++ exceptions, with the thread's state restored.
 * 10. The frameless functions (marked so) touch neither error text nor thread state.
 */

#include <lscoredb/lscoredb.h>
#include <sagleme/export.h>
#include <sagleme/statuses.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- logical types --------------------------------------------------------------------------- */

/* The types of columns as the catalogue has them, by their codes there. */
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

/* Columns of a table to be made. One call takes at most 112, one table holds at most 115 with
 * all it inherits and the three that every table has. Texts, binaries and references must be
 * nullable. */
typedef struct LORV_COLUMN_DEFINITION {
  LS_OBJ_REF type; /* the row of a primitive type or of the referenced table; oid 0: the end */
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
  uint8_t ascending;    /* 0: the column runs backwards */
} LORV_INDEXED_COLUMN;

/* Opaque. A continuation is owned by the host; the other two by the library, see the handles
 * below. */
typedef struct continuation_context continuation_context;
typedef struct PropertyAccessInfo PropertyAccessInfo;
typedef struct CreateInfo CreateInfo;

/* ---- version, errors ------------------------------------------------------------------------- */

/* The version of the catalogue that this library makes: 9. Needs no context and no database.
 * Frameless. */
SAGLEME_API uint64_t lorv_get_metaschema_version(void);
/* The count of schema changes, as the transaction sees it: when it moves, what was learnt of the
 * schema is stale. For code that runs in a context already (C++: TlsMetalayerContext::Current()).
 * Frameless: a kernel failure, as before start-up, is thrown as db_util::db_exception. */
SAGLEME_API uint64_t lorv_get_metaschema_generation(void);
/* The words of the context's last failure, null for none. Emptied by the next call in that context,
 * by an lorv_crud_ call only when that fails with words of its own. At most 7168 units; the rest is
 * cut off. The memory is the library's and stays as long as the context is open, 14 KiB for each
 * one in which the layer was called. Frameless. */
SAGLEME_API char16_t const* lorv_metalayer_errbuf(uint64_t context);

/* ---- bootstrap ------------------------------------------------------------------------------- */

/* Creates the catalogue, or completes or raises an older one, checks it, and starts up (rules 7,
 * 8). May be cut off after any step and begun again. 15010: the database is newer than this
 * library. */
SAGLEME_API uint32_t lorv_prepare_system_tables(uint64_t context, continuation_context** next,
                                                bool* more);
/* The same under its other name. */
SAGLEME_API uint32_t lorv_create_metadata(uint64_t context, continuation_context** next,
                                          bool* more);
/* One step: the status of the step, with *next a new handle when *more is true, else null. `handle`
 * stays the caller's to free. A failure that is no status is thrown here. */
SAGLEME_API uint32_t run_continuation(continuation_context* handle, continuation_context** next,
                                      bool* more);
/* Frees a handle; null is ignored. With the last handle of a computation that is not through, what
 * it holds is given up, on the thread that made it. */
SAGLEME_API void free_continuation_handle(continuation_context* handle);
/* Starts up on a database that has a whole catalogue; does nothing when the process has started up.
 * 7043: the catalogue is missing or incomplete. 15010: it has another version. */
SAGLEME_API uint32_t lorv_init_metalayer(uint64_t context);
/* Completes the reference columns whose table did not exist when they were made. 15002: it still
 * does not. Call it before anything else looks at the type of such a column: verifying or indexing
 * it, and adding or dropping columns in its table or above, end the process until then. */
SAGLEME_API uint32_t lorv_update_reference_columns_types(uint64_t context);

/* ---- booleans -------------------------------------------------------------------------------- */

/* A bool column of an object, by column number: stored as an unsigned integer; what is put becomes
 * 0 or 1. Frameless. */
SAGLEME_API uint32_t lorv_meta_get_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t* out);
SAGLEME_API uint32_t lorv_meta_put_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t value);

/* ---- tokens ---------------------------------------------------------------------------------- */

/* A token is the number that the kernel knows a name by. The same text always has the same
 * token. */

/* The token of a name, made when there is none. */
SAGLEME_API uint32_t lorv_assure_token(uint64_t context, char16_t const* name, uint64_t* out_token);
/* The token of a table's layout, if `name` is a table's full name, else the token of the name.
 * Makes none. 4279: there is none. */
SAGLEME_API uint32_t lorv_get_token(uint64_t context, char16_t const* name, uint64_t* out_token);
/* The text of a token. 4279: there is no such token. */
SAGLEME_API uint32_t lorv_get_token_name(uint64_t context, uint64_t token,
                                         char16_t const** out_name);
/* The present name of the column, or table, that a token of the kernel stands for; the token's text
 * when it is a plain word or what it stands for is gone. 4279: there is no such token. */
SAGLEME_API uint32_t lorv_get_column_name_by_token(uint64_t context, uint64_t token,
                                                   char16_t const** out_name);
SAGLEME_API uint32_t lorv_get_table_name_by_token(uint64_t context, uint64_t token,
                                                  char16_t const** out_name);

/* ---- set specifiers and table references ----------------------------------------------------- */

/* A set specifier is the text by which the kernel finds the objects of a table and its descendants.
 * Each table has one row for it. */

/* The text of a set specifier's row. 1001: `oid` is 0. */
SAGLEME_API uint32_t lorv_setspec_name_by_setspec_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                      char16_t const** out_name);
/* The set specifier's row of a table's row; the null reference, and 0, when there is none. */
SAGLEME_API uint32_t lorv_setspec_ref_by_table_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                   uint64_t* out_oid, uint64_t* out_addr);
/* `uid` is the beginning of a table's name read backwards by segments: "Order.Sales" for
 * "Shop.Sales.Order". It must not be null. 15003: no table. 7039: more than one. The text of the
 * table's set specifier, and: */
SAGLEME_API uint32_t lorv_setspec_name_by_table_incomplete_reverse_uid(uint64_t context,
                                                                       char16_t const* uid,
                                                                       char16_t const** out_name);
/* the table's row. */
SAGLEME_API uint32_t lorv_table_ref_by_incomplete_reverse_uid(uint64_t context, char16_t const* uid,
                                                              uint64_t* out_oid,
                                                              uint64_t* out_addr);
/* The row of the table whose current layout this is. 4230: none; a superseded layout has no table
 * either. */
SAGLEME_API uint32_t lorv_table_ref_by_layout_id(uint64_t context, uint16_t layout_id,
                                                 uint64_t* out_oid, uint64_t* out_addr);

/* ---- tables ---------------------------------------------------------------------------------- */

/* Changes of tables never touch objects: these keep the shape they were written in until something
 * moves them. Every change counts up the generation. */

/* Creates a table under a base (oid 0: under none of the host's), columns by reference. When a
 * table of that name exists it is compared instead: 0 when it is the same, and the outputs are then
 * null, else 15009. Both outputs may be null pointers. */
SAGLEME_API uint32_t lorv_create_table(uint64_t context, char16_t const* name, uint64_t base_oid,
                                       uint64_t base_addr,
                                       LORV_COLUMN_DEFINITION const* column_definitions,
                                       uint64_t* out_oid, uint64_t* out_addr);
/* The same, all by name. `base_table_name` may be null, not empty; 15001: there is no such table. A
 * reference may name a table that is made later. 4213: a type that must be nullable is not. 15002:
 * a column's type is unknown. `out_layout_id` may be null. */
SAGLEME_API uint32_t lorv_create_table_by_names(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
/* The same, and what a reference names must exist now, else 15002. */
SAGLEME_API uint32_t lorv_create_table_high_check_types(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
/* Drops an empty table with all its descendants. 15003: no such table. 15006: it, or a descendant,
 * has an index or holds an object; nothing is dropped then. References to it are not looked for. */
SAGLEME_API uint32_t lorv_drop_table_cascade(uint64_t context, char16_t const* full_table_name);
/* Drops a table with its indexes, whatever it holds; its objects are left behind and asked to be
 * cleared away. 15013: it has descendants, and `drop_children` is false. 15012: it is referenced,
 * or a class is mapped to it, and `force` is false. */
SAGLEME_API uint32_t lorv_drop_table_by_name(uint64_t context, char16_t const* full_table_name,
                                             bool drop_children, bool force);
/* The same for several tables, which may reference one another. `names` ends with a null
 * pointer. */
SAGLEME_API uint32_t lorv_drop_tables_by_names(uint64_t context, char16_t const** names,
                                               bool drop_children, bool force);
/* 15003: no such table. 4214: the new name is taken, also by the table itself. */
SAGLEME_API uint32_t lorv_rename_table(uint64_t context, char16_t const* full_table_name,
                                       char16_t const* new_table_name);
/* Adds columns to a table and its descendants. 4277: a name is taken; the text tells all of them.
 * The output, the table's new layout, may be a null pointer. */
SAGLEME_API uint32_t lorv_alter_table_add_columns(uint64_t context, char16_t const* full_table_name,
                                                  LORV_COLUMN_DEFINITION_NAMES const* added_columns,
                                                  uint64_t* out_layout_id);
/* Drops a column from the table that declared it, and from its descendants. 7038: there is none.
 * 15024: it is inherited. 15011: an index holds it. 15014, 15012: a class does. The output as
 * above. */
SAGLEME_API uint32_t lorv_alter_table_drop_column_by_names(uint64_t context,
                                                           char16_t const* full_table_name,
                                                           char16_t const* column_name,
                                                           uint64_t* out_layout_id);
/* Renames a column in the table that declared it, and in its descendants. 7038, 15024 as above.
 * 4277: the new name is taken, also by the column itself. */
SAGLEME_API uint32_t lorv_alter_table_rename_column(uint64_t context,
                                                    char16_t const* full_table_name,
                                                    char16_t const* column_name,
                                                    char16_t const* column_new_name);

/* ---- indexes --------------------------------------------------------------------------------- */

/* An index is over a table and its descendants, and has a name that no other index has (4187). Bit
 * i of `sort_mask`: the i-th column runs backwards. `columns`: column numbers, ended by -1, at most
 * 15. Bit 0 of `flags`: unique. 7035 is a status here: a column number is unknown, or there are too
 * many. */

/* The table by its row. */
SAGLEME_API uint32_t lorv_create_index(uint64_t context, uint64_t table_oid, uint64_t table_addr,
                                       char16_t const* name, uint16_t sort_mask,
                                       int16_t const* columns, uint32_t flags);
/* All by name. 15003: no such table. 4300: no such column. */
SAGLEME_API uint32_t lorv_create_index_by_names(uint64_t context, char16_t const* name,
                                                char16_t const* table,
                                                LORV_INDEXED_COLUMN const* columns, bool unique);
/* The table by its current layout. 15003: there is none. */
SAGLEME_API uint32_t lorv_create_index_ids(uint64_t context, uint16_t layout_id,
                                           char16_t const* name, uint16_t sort_mask,
                                           int16_t const* columns, uint32_t flags);
/* By its row, by its name (4229: there is none), or by table and name (15005: it belongs to another
 * table). `table` is a name in full or without its first segments. */
SAGLEME_API uint32_t lorv_drop_index(uint64_t context, uint64_t oid, uint64_t addr);
SAGLEME_API uint32_t lorv_drop_index_by_name(uint64_t context, char16_t const* name);
SAGLEME_API uint32_t lorv_drop_index_by_table_and_name(uint64_t context, char16_t const* table,
                                                       char16_t const* index);

/* Forgets all classes and mapped properties of language bindings. Tables stay as they are. */
SAGLEME_API uint32_t lorv_clrmetadata_clean(uint64_t context);

/* ---- objects: handles ------------------------------------------------------------------------ */

/* A handle is asked for by name once and used for any number of objects, in any context of its
 * database and any thread. The library owns it; it is valid until a refresh finds its table or
 * column gone, and no longer than its database is open. After a schema change it is stale until the
 * next refresh. Names are full names. 15003: no such table.
 *
 * A handle of another database than the context's gives LORV_STATUS_FOREIGN_DATABASE, with a text,
 * in lorv_crud_CreateObject, lorv_crud_CreateObjectWithId and lorv_crud_ReadRefAndType. The
 * frameless functions do not look: with a foreign handle they read and write whatever column of the
 * object has the handle's place. */

/* The number that stays with a table for its life. */
SAGLEME_API uint32_t lorv_crud_GetTypeId(uint64_t context, char16_t const* name,
                                         uint64_t* out_type_id);
/* For making objects of a table; of a system table when `system` is true. */
SAGLEME_API uint32_t lorv_crud_GetCreateHandle(uint64_t context, char16_t const* name,
                                               CreateInfo** out_handle);
SAGLEME_API uint32_t lorv_crud_GetCreateHandleOrSystem(uint64_t context, char16_t const* name,
                                                       bool system, CreateInfo** out_handle);
/* Always 1; deleting needs no handle. */
SAGLEME_API uint32_t lorv_crud_GetDeleteHandle(uint64_t context, char16_t const* name,
                                               uint64_t* out_handle);
/* For one column of a table. 1001: it has no such column. The name of a language binding's property
 * gives the kernel's status, and refreshes fail with it from then on until that is gone. */
SAGLEME_API uint32_t lorv_crud_GetPropertyHandle(uint64_t context, char16_t const* class_name,
                                                 char16_t const* property_name,
                                                 PropertyAccessInfo** out_handle);
/* Brings every handle up to the schema as this transaction sees it, and frees those of what is
 * gone. No other thread may be using handles meanwhile. */
SAGLEME_API uint32_t lorv_crud_RefreshIssuedHandles(uint64_t context);

/* ---- objects: life --------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_crud_CreateObject(uint64_t context, CreateInfo const* handle,
                                            uint64_t* out_oid, uint64_t* out_addr);
/* With an identity of the host's choice, never used before. Not for system tables. */
SAGLEME_API uint32_t lorv_crud_CreateObjectWithId(uint64_t context, CreateInfo const* handle,
                                                  uint64_t oid, uint64_t* out_addr);
/* Frameless; the handle is not looked at. */
SAGLEME_API uint32_t lorv_crud_DeleteObject(uint64_t context, uint64_t handle, uint64_t oid,
                                            uint64_t addr);
SAGLEME_API uint32_t lorv_crud_DeleteObject_NoHandle(uint64_t context, uint64_t oid, uint64_t addr);
/* An object by identity, with the type id of its table, 0 when the table is gone. 4273: no such
 * object. */
SAGLEME_API uint32_t lorv_crud_Lookup(uint64_t context, uint64_t oid, uint64_t* out_addr,
                                      uint64_t* out_type_id);
/* `addr` is not looked at. */
SAGLEME_API uint32_t lorv_crud_GetObjectTypeId(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint64_t* out_type_id);

/* ---- objects: properties --------------------------------------------------------------------- */

/* Reads and writes one column. The layout in `addr` is replaced by the handle's. Reading a column
 * without a value gives 4272 and writes no output. Frameless, all but lorv_crud_ReadRefAndType. The
 * memory of texts and binaries is the kernel's (rule 5). Decimals are counts of millionths. */

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
/* 0 or 1 in a 64-bit place. */
SAGLEME_API uint32_t lorv_crud_ReadBool(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, uint64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteBool(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, bool value);
/* Null where the column takes it, else zero. */
SAGLEME_API uint32_t lorv_crud_WriteDefault(uint64_t context, PropertyAccessInfo const* handle,
                                            uint64_t oid, uint64_t addr);
/* Writes the output whatever the status; test the status first. */
SAGLEME_API uint32_t lorv_crud_ReadRef(uint64_t context, PropertyAccessInfo const* handle,
                                       uint64_t oid, uint64_t addr, LS_OBJ_REF* out);
/* The identity alone. */
SAGLEME_API uint32_t lorv_crud_ReadRefId(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, uint64_t* out);
/* With the type id of the object's table, 0 when that is gone. */
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

#ifndef SAGLEME_SAGLEME_H
#define SAGLEME_SAGLEME_H

#include <lscoredb/lscoredb.h>
#include <sagleme/export.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- records from the host ----------------------------------------------------------------------- */

typedef struct LORV_COLUMN_DEFINITION {
  LS_OBJ_REF type; /* the row of a primitive type or of the referenced table; oid 0 ends the array */
  uint8_t is_nullable;
  char16_t const* name;
} LORV_COLUMN_DEFINITION;

typedef struct LORV_COLUMN_DEFINITION_NAMES {
  uint8_t logical_type;
  char16_t const* type_name; /* full name of the referenced table, for reference columns */
  uint8_t is_nullable;
  char16_t const* name; /* null ends the array */
} LORV_COLUMN_DEFINITION_NAMES;

typedef struct LORV_INDEXED_COLUMN {
  char16_t const* name; /* null ends the array */
  uint8_t ascending;
} LORV_INDEXED_COLUMN;

typedef struct continuation_context continuation_context;
typedef struct PropertyAccessInfo PropertyAccessInfo;
typedef struct CreateInfo CreateInfo;

/* ---- version, errors ------------------------------------------------------------------------------- */

SAGLEME_API uint64_t lorv_get_metaschema_version(void);
SAGLEME_API uint64_t lorv_get_metaschema_generation(void);
SAGLEME_API char16_t const* lorv_metalayer_errbuf(uint64_t context);

/* ---- bootstrap --------------------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_prepare_system_tables(uint64_t context, continuation_context** next,
                                                bool* more);
SAGLEME_API uint32_t lorv_create_metadata(uint64_t context, continuation_context** next, bool* more);
SAGLEME_API uint32_t run_continuation(continuation_context* handle, continuation_context** next,
                                      bool* more);
SAGLEME_API void free_continuation_handle(continuation_context* handle);
SAGLEME_API uint32_t lorv_init_metalayer(uint64_t context);
SAGLEME_API uint32_t lorv_update_reference_columns_types(uint64_t context);

/* ---- booleans ------------------------------------------------------------------------------------------ */

SAGLEME_API uint32_t lorv_meta_get_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t* out);
SAGLEME_API uint32_t lorv_meta_put_bool(uint64_t context, uint64_t oid, uint64_t addr,
                                        uint32_t column, uint64_t value);

/* ---- tokens ---------------------------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_assure_token(uint64_t context, char16_t const* name, uint64_t* out_token);
SAGLEME_API uint32_t lorv_get_token(uint64_t context, char16_t const* name, uint64_t* out_token);
SAGLEME_API uint32_t lorv_get_token_name(uint64_t context, uint64_t token,
                                         char16_t const** out_name);
SAGLEME_API uint32_t lorv_get_column_name_by_token(uint64_t context, uint64_t token,
                                                   char16_t const** out_name);
SAGLEME_API uint32_t lorv_get_table_name_by_token(uint64_t context, uint64_t token,
                                                  char16_t const** out_name);

/* ---- set specifiers and table references ------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_setspec_name_by_setspec_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                      char16_t const** out_name);
SAGLEME_API uint32_t lorv_setspec_ref_by_table_ref(uint64_t context, uint64_t oid, uint64_t addr,
                                                   uint64_t* out_oid, uint64_t* out_addr);
SAGLEME_API uint32_t lorv_setspec_name_by_table_incomplete_reverse_uid(uint64_t context,
                                                                       char16_t const* uid,
                                                                       char16_t const** out_name);
SAGLEME_API uint32_t lorv_table_ref_by_incomplete_reverse_uid(uint64_t context, char16_t const* uid,
                                                              uint64_t* out_oid,
                                                              uint64_t* out_addr);
SAGLEME_API uint32_t lorv_table_ref_by_layout_id(uint64_t context, uint16_t layout_id,
                                                 uint64_t* out_oid, uint64_t* out_addr);

/* ---- tables ------------------------------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_create_table(uint64_t context, char16_t const* name, uint64_t base_oid,
                                       uint64_t base_addr,
                                       LORV_COLUMN_DEFINITION const* column_definitions,
                                       uint64_t* out_oid, uint64_t* out_addr);
SAGLEME_API uint32_t lorv_create_table_by_names(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
SAGLEME_API uint32_t lorv_create_table_high_check_types(
    uint64_t context, char16_t const* name, char16_t const* base_table_name,
    LORV_COLUMN_DEFINITION_NAMES const* column_definitions, uint16_t* out_layout_id);
SAGLEME_API uint32_t lorv_drop_table_cascade(uint64_t context, char16_t const* full_table_name);
SAGLEME_API uint32_t lorv_drop_table_by_name(uint64_t context, char16_t const* full_table_name,
                                             bool drop_children, bool force);
SAGLEME_API uint32_t lorv_drop_tables_by_names(uint64_t context, char16_t const** names,
                                               bool drop_children, bool force);
SAGLEME_API uint32_t lorv_rename_table(uint64_t context, char16_t const* full_table_name,
                                       char16_t const* new_table_name);
SAGLEME_API uint32_t lorv_alter_table_add_columns(uint64_t context, char16_t const* full_table_name,
                                                  LORV_COLUMN_DEFINITION_NAMES const* added_columns,
                                                  uint64_t* out_layout_id);
SAGLEME_API uint32_t lorv_alter_table_drop_column_by_names(uint64_t context,
                                                           char16_t const* full_table_name,
                                                           char16_t const* column_name,
                                                           uint64_t* out_layout_id);
SAGLEME_API uint32_t lorv_alter_table_rename_column(uint64_t context,
                                                    char16_t const* full_table_name,
                                                    char16_t const* column_name,
                                                    char16_t const* column_new_name);

/* ---- indexes -------------------------------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_create_index(uint64_t context, uint64_t table_oid, uint64_t table_addr,
                                       char16_t const* name, uint16_t sort_mask,
                                       int16_t const* columns, uint32_t flags);
SAGLEME_API uint32_t lorv_create_index_by_names(uint64_t context, char16_t const* name,
                                                char16_t const* table,
                                                LORV_INDEXED_COLUMN const* columns, bool unique);
SAGLEME_API uint32_t lorv_create_index_ids(uint64_t context, uint16_t layout_id,
                                           char16_t const* name, uint16_t sort_mask,
                                           int16_t const* columns, uint32_t flags);
SAGLEME_API uint32_t lorv_drop_index(uint64_t context, uint64_t oid, uint64_t addr);
SAGLEME_API uint32_t lorv_drop_index_by_name(uint64_t context, char16_t const* name);
SAGLEME_API uint32_t lorv_drop_index_by_table_and_name(uint64_t context, char16_t const* table,
                                                       char16_t const* index);
SAGLEME_API uint32_t lorv_clrmetadata_clean(uint64_t context);

/* ---- objects: handles ------------------------------------------------------------------------------------------ */

SAGLEME_API uint32_t lorv_crud_GetTypeId(uint64_t context, char16_t const* name,
                                         uint64_t* out_type_id);
SAGLEME_API uint32_t lorv_crud_GetCreateHandle(uint64_t context, char16_t const* name,
                                               CreateInfo** out_handle);
SAGLEME_API uint32_t lorv_crud_GetCreateHandleOrSystem(uint64_t context, char16_t const* name,
                                                       bool system, CreateInfo** out_handle);
SAGLEME_API uint32_t lorv_crud_GetDeleteHandle(uint64_t context, char16_t const* name,
                                               uint64_t* out_handle);
SAGLEME_API uint32_t lorv_crud_GetPropertyHandle(uint64_t context, char16_t const* class_name,
                                                 char16_t const* property_name,
                                                 PropertyAccessInfo** out_handle);
SAGLEME_API uint32_t lorv_crud_RefreshIssuedHandles(uint64_t context);

/* ---- objects: life --------------------------------------------------------------------------------------------- */

SAGLEME_API uint32_t lorv_crud_CreateObject(uint64_t context, CreateInfo const* handle,
                                            uint64_t* out_oid, uint64_t* out_addr);
SAGLEME_API uint32_t lorv_crud_CreateObjectWithId(uint64_t context, CreateInfo const* handle,
                                                  uint64_t oid, uint64_t* out_addr);
SAGLEME_API uint32_t lorv_crud_DeleteObject(uint64_t context, uint64_t handle, uint64_t oid,
                                            uint64_t addr);
SAGLEME_API uint32_t lorv_crud_DeleteObject_NoHandle(uint64_t context, uint64_t oid, uint64_t addr);
SAGLEME_API uint32_t lorv_crud_Lookup(uint64_t context, uint64_t oid, uint64_t* out_addr,
                                      uint64_t* out_type_id);
SAGLEME_API uint32_t lorv_crud_GetObjectTypeId(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint64_t* out_type_id);

/* ---- objects: properties ---------------------------------------------------------------------------------------- */

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
/* Writes 0 or 1 to a 64-bit place. */
SAGLEME_API uint32_t lorv_crud_ReadBool(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, uint64_t* out);
SAGLEME_API uint32_t lorv_crud_WriteBool(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, bool value);
SAGLEME_API uint32_t lorv_crud_WriteDefault(uint64_t context, PropertyAccessInfo const* handle,
                                            uint64_t oid, uint64_t addr);
SAGLEME_API uint32_t lorv_crud_ReadRef(uint64_t context, PropertyAccessInfo const* handle,
                                       uint64_t oid, uint64_t addr, LS_OBJ_REF* out);
SAGLEME_API uint32_t lorv_crud_ReadRefId(uint64_t context, PropertyAccessInfo const* handle,
                                         uint64_t oid, uint64_t addr, uint64_t* out);
SAGLEME_API uint32_t lorv_crud_ReadRefAndType(uint64_t context, PropertyAccessInfo const* handle,
                                              uint64_t oid, uint64_t addr, LS_OBJ_REF* out,
                                              uint64_t* out_type_id);
SAGLEME_API uint32_t lorv_crud_WriteRef(uint64_t context, PropertyAccessInfo const* handle,
                                        uint64_t oid, uint64_t addr, uint64_t target_oid,
                                        uint64_t target_addr);
SAGLEME_API uint32_t lorv_crud_ReadString(uint64_t context, PropertyAccessInfo const* handle,
                                          uint64_t oid, uint64_t addr, char16_t const** out);
SAGLEME_API uint32_t lorv_crud_WriteString(uint64_t context, PropertyAccessInfo const* handle,
                                           uint64_t oid, uint64_t addr, char16_t const* text);

#ifdef __cplusplus
}
#endif

#endif

/* The C headers as a plain C program sees them. */

#include "access/c_host.h"

#include <sagleme/sagleme.h>
#include <sagleme/ucs2.h>
#include <stddef.h>

_Static_assert(sizeof(LS_OBJ_REF) == 16, "two words");
_Static_assert(sizeof(LORV_COLUMN_DEFINITION) == 32, "a definition by reference");
_Static_assert(offsetof(LORV_COLUMN_DEFINITION, name) == 24, "its name stands last");
_Static_assert(sizeof(LORV_COLUMN_DEFINITION_NAMES) == 32, "a definition by names");
_Static_assert(offsetof(LORV_COLUMN_DEFINITION_NAMES, name) == 24, "its name stands last");
_Static_assert(sizeof(LORV_INDEXED_COLUMN) == 16, "an indexed column");
_Static_assert(offsetof(LORV_INDEXED_COLUMN, ascending) == 8, "its direction");

unsigned long c_host_version(void) { return lorv_get_metaschema_version(); }

unsigned int c_host_create_table_without_name(unsigned long context) {
  LORV_COLUMN_DEFINITION_NAMES const none[] = {{0, NULL, 0, NULL}};
  uint16_t layout = 0;
  return lorv_create_table_by_names(context, NULL, NULL, none, &layout);
}

int c_host_reads_message(unsigned long context, char16_t* out, unsigned long size) {
  return ucs2_scpy_s(out, size, lorv_metalayer_errbuf(context));
}

void c_host_frees_nothing(void) { free_continuation_handle(NULL); }

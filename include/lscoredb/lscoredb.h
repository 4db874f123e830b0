#ifndef LSCOREDB_LSCOREDB_H
#define LSCOREDB_LSCOREDB_H

/*
 * The contract of the storage kernel: rows of numbered columns, layouts, ordered indexes.
 *
 * This is everything that the metadata layer asks of a kernel. A library that offers these
 * functions with these meanings can take the place of the embedded kernel at load time.
 *
 * Rules
 *
 *  1. Every function that can fail returns a status, 0 for success. On failure no output is written
 *     and nothing is changed.
 *  2. A context is a 64-bit handle owned by the host. One thread at a time uses a context. All
 *     functions below run inside the transaction that the host has open in the context.
 *  3. An object is named by two words: `oid`, its identity, never 0 and never used twice, and
 *     `addr`, whose low 16 bits name a layout. The columns of a call are the columns of that
 *     layout. The high 48 bits are a position that the kernel gave; 0 is accepted in their place. A
 *     layout of 0 in the address stands for the object's own layout.
 *  4. An object keeps the layout under which it was written. When the address names another one,
 *     columns are matched by token. A column that the object's layout lacks reads as null, or as
 *     zero where it is not nullable. A write first moves the object to the named layout, provided
 *     that layout is newer and of the same set; otherwise the object stays where it is and the
 *     write goes to the column of that token.
 *  5. Column 0 of every layout is the object's identity, column 1 its set specifier; neither is
 *     written through the column functions. An unwritten column reads as null where it is nullable,
 *     else as zero.
 *  6. Memory handed out (string and binary records, texts) belongs to the kernel. It is writable,
 *     has room for one more unit behind the last one, and stays valid until the transaction, or the
 *     innermost read scope of the context, ends.
 *  7. Texts passed in are UTF-16 ended by a zero unit. Lone surrogates are legal. The kernel keeps
 *     no pointer to anything passed in.
 *  8. A kernel may give statuses beside those named here; the metadata layer passes them on as they
 *     are. Those of the embedded kernel stand in <lscoredb/host.h>: among them calls outside a
 *     transaction, writes in a read-only one, unknown layouts and columns, a column of another type
 *     than the function's, and a key that a unique index holds already.
 */

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#include <uchar.h>
#endif

#if defined(LSCOREDB_BUILD)
#define LSCOREDB_API __attribute__((visibility("default")))
#else
#define LSCOREDB_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- statuses of the contract ---------------------------------------------------------------- */

#define LORV_STATUS_OK 0u
/* The object was deleted by this very transaction and cannot be reached. */
#define LORV_STATUS_UNREACHABLE 4174u
/* No such index. */
#define LORV_STATUS_NO_INDEX 4229u
/* The column has no value. */
#define LORV_STATUS_NULL 4272u
/* No object with that identity. */
#define LORV_STATUS_NO_OBJECT 4273u
/* A column token occurs twice in a layout. */
#define LORV_STATUS_DUPLICATE_TOKEN 4277u

/* ---- column types ---------------------------------------------------------------------------- */

#define LORV_TYPE_STRING 1u
#define LORV_TYPE_BINARY 2u
#define LORV_TYPE_LONG 3u
#define LORV_TYPE_ULONG 4u
#define LORV_TYPE_DECIMAL 5u
#define LORV_TYPE_FLOAT 6u
#define LORV_TYPE_DOUBLE 7u
#define LORV_TYPE_REFERENCE 8u
#define LORV_TYPE_KEY 9u /* an unsigned integer, read and written like LORV_TYPE_ULONG */

/* Tokens of the two columns that every layout begins with. */
#define LORV_TOKEN_ID 1u
#define LORV_TOKEN_SETSPEC 2u

/* ---- records that cross the boundary --------------------------------------------------------- */

/* Reference to an object. `oid` 0 is the null reference, whatever `addr` holds. */
typedef struct LS_OBJ_REF {
  uint64_t oid;
  uint64_t addr; /* position << 16 | layout */
} LS_OBJ_REF;

/* A reference as the kernel gives it out. */
typedef struct LORV_REFERENCE {
  uint64_t oid; /* 0 from lorv_iterator_next: the range has ended, the other fields are not set */
  uint64_t position;
  uint16_t layout; /* 0: the object that the reference names does not exist */
} LORV_REFERENCE;

/* A text in kernel memory: `length` units follow, and room for one more behind them. */
typedef struct LORV_STRING {
  uint32_t length;
  char16_t units[1];
} LORV_STRING;

/* A binary value in kernel memory: `length` bytes follow, from `bytes` on. */
typedef struct LORV_BINARY {
  uint32_t length;
  uint8_t bytes[1];
} LORV_BINARY;

/* A column of a layout, or an indexed column. An array of them ends with an entry of `type` 0. */
typedef struct LORVI_COLUMN_DEFINITION {
  uint8_t type;
  uint8_t is_nullable;
  uint64_t token;
} LORVI_COLUMN_DEFINITION;

typedef struct LORVI_COLUMN_INFO {
  uint64_t token;
  uint8_t internal[3];
  uint8_t type;
} LORVI_COLUMN_INFO;

typedef struct LORVI_LAYOUT_INFO {
  uint64_t token;        /* the token that the layout was created with */
  uint32_t column_count; /* inherited columns and columns 0 and 1 included */
  uint16_t layout_handle;
  uint16_t base_layout_handle; /* 0: none */
} LORVI_LAYOUT_INFO;

typedef struct LORVI_INDEX_INFO {
  uint64_t index_id;
  uint64_t token; /* the token that the index was created with */
  uint16_t attribute_count;
  uint16_t reserved; /* 0 */
  uint16_t flags;    /* the flags that the index was created with, low 16 bits */
} LORVI_INDEX_INFO;

/* ---- rows ------------------------------------------------------------------------------------ */

/* Reads a column of one type. LORV_STATUS_NULL: the column has no value and `out` is not written.
 */
LSCOREDB_API uint32_t lorv_context_get_ulong(uint64_t context, uint64_t oid, uint64_t addr,
                                             uint32_t column, uint64_t* out);
LSCOREDB_API uint32_t lorv_context_get_long(uint64_t context, uint64_t oid, uint64_t addr,
                                            uint32_t column, int64_t* out);
LSCOREDB_API uint32_t lorv_context_get_float(uint64_t context, uint64_t oid, uint64_t addr,
                                             uint32_t column, float* out);
LSCOREDB_API uint32_t lorv_context_get_double(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, double* out);
/* A decimal is a signed count of millionths: 1.5 is 1500000. */
LSCOREDB_API uint32_t lorv_context_get_decimal(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint32_t column, int64_t* out);
LSCOREDB_API uint32_t lorv_context_get_string(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, LORV_STRING** out);
LSCOREDB_API uint32_t lorv_context_get_binary(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, LORV_BINARY** out);
/* `out` gets the identity in the column and the layout that this object has now. */
LSCOREDB_API uint32_t lorv_context_get_reference(uint64_t context, uint64_t oid, uint64_t addr,
                                                 uint32_t column, LORV_REFERENCE* out);
/* The identity held in a reference column alone. */
LSCOREDB_API uint32_t lorvi_context_get_refid(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, uint64_t* out);

/* Writes a column of one type. Null written to a column that is not nullable is zero, or empty. */
LSCOREDB_API uint32_t lorv_context_put_ulong(uint64_t context, uint64_t oid, uint64_t addr,
                                             uint32_t column, uint64_t value);
LSCOREDB_API uint32_t lorv_context_put_long(uint64_t context, uint64_t oid, uint64_t addr,
                                            uint32_t column, int64_t value);
LSCOREDB_API uint32_t lorv_context_put_float(uint64_t context, uint64_t oid, uint64_t addr,
                                             uint32_t column, float value);
LSCOREDB_API uint32_t lorv_context_put_double(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, double value);
LSCOREDB_API uint32_t lorv_context_put_decimal(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint32_t column, int64_t millionths);
/* A null `text` writes null. */
LSCOREDB_API uint32_t lorv_context_put_string(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, char16_t const* text);
/* `size` bytes from `data`, at most 2^32 - 1. A null `data` with `size` 0 writes null. */
LSCOREDB_API uint32_t lorv_context_put_binary(uint64_t context, uint64_t oid, uint64_t addr,
                                              uint32_t column, void const* data, uint64_t size);
/* A `target_oid` of 0 writes null. */
LSCOREDB_API uint32_t lorv_context_put_reference(uint64_t context, uint64_t oid, uint64_t addr,
                                                 uint32_t column, uint64_t target_oid,
                                                 uint64_t target_addr);
/* Null where the column is nullable, else zero. */
LSCOREDB_API uint32_t lorv_context_put_default(uint64_t context, uint64_t oid, uint64_t addr,
                                               uint32_t column);

/* The set specifier of an object. LORV_STATUS_NULL: none was written yet. An object enters the
 * indexes of its set with its first set specifier; a change moves it between index ranges. */
LSCOREDB_API uint32_t lorv_context_get_setspec(uint64_t context, uint64_t oid, uint64_t addr,
                                               LORV_STRING** out);
LSCOREDB_API uint32_t lorv_context_put_setspec(uint64_t context, uint64_t oid, uint64_t addr,
                                               char16_t const* setspec);

/* Inserts an object under layout `table_id`; the first is for system tables, the second for others.
 */
LSCOREDB_API uint32_t lorv_context_insert_system(uint64_t context, uint16_t table_id,
                                                 uint64_t* out_oid);
LSCOREDB_API uint32_t lorv_context_insert(uint64_t context, uint16_t table_id, uint64_t* out_oid);
/* Inserts an object with a given identity, which must not be in use nor have been given out, nor be
 * among those that the kernel has reserved for itself. */
LSCOREDB_API uint32_t lorvi_context_insert_with_id(uint64_t context, uint16_t table_id,
                                                   uint64_t oid);
LSCOREDB_API uint32_t lorv_context_delete(uint64_t context, uint64_t oid, uint64_t addr);
/* Finds an object by identity and gives the address word of its reference.
 * LORV_STATUS_NO_OBJECT: there is none. */
LSCOREDB_API uint32_t lorv_context_lookup(uint64_t context, uint64_t oid, uint64_t* out_addr);

/* ---- index walks ----------------------------------------------------------------------------- */

#define LORV_ITERATOR_FORWARD 0x70u
#define LORV_ITERATOR_REVERSE 0x80070u

/* Opens a scan of the range from `first_key` to `last_key`, both included, in index order; with
 * LORV_ITERATOR_REVERSE against it, and `first_key` is then the bound that index order has last.
 * Keys are in the byte format of <sagleme/metalayer.hpp>; a key may stop after any column.
 * The scan delivers the range as it stood at this call: what the transaction writes afterwards does
 * not change it, but that objects deleted meanwhile are left out. Null is below all values; a
 * column created as descending runs backwards, its null last. */
LSCOREDB_API uint32_t lorv_context_create_iterator(uint64_t context, uint64_t index_id,
                                                   uint32_t flags, void const* first_key,
                                                   void const* last_key, uint64_t* out_iterator);
/* The next object, or status 0 and `oid` 0 at the end. */
LSCOREDB_API uint32_t lorv_iterator_next(uint64_t iterator, LORV_REFERENCE* out);
/* Releases an iterator; does not fail for one that is open, also after its transaction has ended,
 * as long as its context is open. */
LSCOREDB_API uint32_t lorv_iterator_free(uint64_t iterator);

/* ---- texts as key bytes ---------------------------------------------------------------------- */

/* The kernel's sort-order form of a text. Byte order is the order of UTF-16 code units. `flags` 1
 * gives the bound above all texts that begin with `text`. Returns the number of bytes needed; when
 * that is more than `size` the buffer holds nothing useful. The first bytes are a header: 7 bits
 * each, high bit set on the last, most significant first: the number of spare bits at the end of
 * the payload that follows. */
LSCOREDB_API uint32_t lorv_convert_ucs2_to_turbotext(char16_t const* text, uint32_t flags,
                                                     uint8_t* buffer, uint32_t size);
/* The same for a prefix of set specifiers: `upper` 0 and 1 give the bounds that enclose exactly the
 * set specifiers that begin with `text`. */
LSCOREDB_API uint32_t lorv_convert_ucs2_to_setspectt(char16_t const* text, uint32_t upper,
                                                     uint8_t* buffer, uint32_t size);

/* ---- layouts and indexes --------------------------------------------------------------------- */

/* Creates a layout: the columns of `base_layout_handle`, then `columns`. A base of 0 makes a root,
 * whose columns 0 and 1 the kernel adds. `reserved` is 0. LORV_STATUS_DUPLICATE_TOKEN: two columns
 * would carry one token. */
LSCOREDB_API uint32_t lorvi_context_create_layout(uint64_t context, uint64_t token,
                                                  uint16_t base_layout_handle,
                                                  LORVI_COLUMN_DEFINITION const* columns,
                                                  uint32_t reserved, uint16_t* out_layout_handle);
LSCOREDB_API uint32_t lorvi_context_get_layout_info(uint64_t context, uint16_t layout_handle,
                                                    LORVI_LAYOUT_INFO* out);
/* `*count` comes in as the room of `out` and goes out as the number of layouts made with `token`,
 * newest first; 0 is no failure. */
LSCOREDB_API uint32_t lorvi_context_get_layout_infos_by_token(uint64_t context, uint64_t token,
                                                              uint32_t* count,
                                                              LORVI_LAYOUT_INFO* out);
LSCOREDB_API uint32_t lorvi_context_get_column_info(uint64_t context, uint16_t layout_handle,
                                                    uint16_t column, LORVI_COLUMN_INFO* out);

/* Creates an index over all objects, present and future, whose set specifier begins with `setspec`.
 * Bit 0 of `flags`: unique. Bit i of `sort_mask`: the i-th column descends; columns from the 17th
 * on ascend. Up to 1024 columns. */
LSCOREDB_API uint32_t lorvi_context_create_index(uint64_t context, uint64_t token,
                                                 char16_t const* setspec,
                                                 LORVI_COLUMN_DEFINITION const* columns,
                                                 uint16_t sort_mask, uint32_t flags,
                                                 uint64_t* out_index_id);
LSCOREDB_API uint32_t lorvi_context_drop_index(uint64_t context, uint64_t index_id);
/* As for layouts. LORV_STATUS_NO_INDEX is another way to say that there is none. */
LSCOREDB_API uint32_t lorvi_context_get_index_infos_by_token(uint64_t context, uint64_t token,
                                                             uint32_t* count,
                                                             LORVI_INDEX_INFO* out);
/* The set specifier that an index was created over, ended by a zero unit. */
LSCOREDB_API uint32_t lorvi_context_get_index_setspec(uint64_t context, uint64_t index_id,
                                                      char16_t const** out);

#ifdef __cplusplus
}
#endif

#endif

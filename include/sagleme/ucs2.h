#ifndef SAGLEME_UCS2_H
#define SAGLEME_UCS2_H

/*
 * Strings of UTF-16 code units, on the model of the C string functions.
 *
 *  1. A string ends with a zero unit. Surrogates are units like any other.
 *  2. Nothing is allocated. Unless stated otherwise, no argument may be null, lengths and sizes
 *     are in units, and outputs have room for the result and its terminator.
 *  3. Functions that can fail return EINVAL (22) or ERANGE (34) and set errno to it.
 *  4. No state; any thread may call. Only ucs2_icmp and ucs2_tof depend on the C locale.
 */

#include <sagleme/export.h>
#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- length and copies ----------------------------------------------------------------------- */

/* Returns the number of units before the terminator. */
SAGLEME_API uint32_t ucs2_len(char16_t const* s);
/* Copies `n` units one by one, first to last, even if the ranges overlap. */
SAGLEME_API void ucs2_memcpy(char16_t* dst, char16_t const* src, size_t n);
/* Copies a string with its terminator. */
SAGLEME_API void ucs2_scpy(char16_t* dst, char16_t const* src);
/* The same into at most `size` units. 22: a null pointer. 34: no room; `dst` becomes empty. */
SAGLEME_API int ucs2_scpy_s(char16_t* dst, size_t size, char16_t const* src);
/* Appends to the string in `dst`, which has `size` units in all. 22: a null pointer, or `dst`
 * has no terminator and stays unchanged. 34: no room; `dst` becomes empty. */
SAGLEME_API int ucs2_strcat_s(char16_t* dst, size_t size, char16_t const* src);
/* Widens each char as a signed number. Returns the length. */
SAGLEME_API uint32_t ascii_to_ucs2(char const* src, char16_t* dst);
/* Skips units from 0x80 up. Returns the length written. */
SAGLEME_API uint32_t ucs2_to_ascii(char16_t const* src, char* dst);
/* Reverses `length` units in place, and returns `length`. */
SAGLEME_API int ucs2_reverse(char16_t* s, int length);

/* ---- comparison ------------------------------------------------------------------------------ */

/* Returns the difference of the first two units that differ, 0 for equal strings. */
SAGLEME_API int ucs2_cmp(char16_t const* a, char16_t const* b);
/* For names; returns -1, 0 or 1. Compares only the low bytes of the units, as signed numbers,
 * after tolower. A unit whose low byte is 0 ends the string. */
SAGLEME_API int ucs2_icmp(char16_t const* a, char16_t const* b);

/* ---- numbers --------------------------------------------------------------------------------- */

/* Reads decimal digits after blanks, tabs and one "+". A number that is too large reads as
 * 2^64 - 1. A null `s` sets errno to 22 and `*end`, unless `end` is null, to null; otherwise
 * `*end` is not written. */
SAGLEME_API uint64_t ucs2_toui64_base10(char16_t const* s, char16_t const** end);
/* The same with one sign of either kind. Numbers that are too low read as -2^63, too large as -1.
 * Unless `end` is null, `*end` points one past the unit that ended the number. */
SAGLEME_API int64_t ucs2_toi64_base10(char16_t const* s, char16_t const** end);
/* Reads the low bytes of at most 127 units, after blanks and tabs, as strtod does. */
SAGLEME_API double ucs2_tof(char16_t const* s);
/* Write a number in decimal and return its length: at most 10, 20 and 20, plus a terminator. */
SAGLEME_API uint32_t u32_to_ucs2(uint32_t value, char16_t* out);
SAGLEME_API uint32_t i64_to_ucs2(int64_t value, char16_t* out);
SAGLEME_API uint32_t u64_to_ucs2(uint64_t value, char16_t* out);

/* ---- UTF-8 ----------------------------------------------------------------------------------- */

/* Each unit alone becomes one to three bytes, so a surrogate pair becomes six. */

/* Writes the bytes of one unit, without a terminator, and returns their number. */
SAGLEME_API uint32_t ucs2_char_to_utf8(char16_t c, unsigned char* out);
SAGLEME_API uint32_t ucs2_char_utf8_size(char16_t c);
/* Returns the bytes that a string takes, without a terminator. */
SAGLEME_API uint32_t ucs2_utf8_len(char16_t const* s);
SAGLEME_API uint32_t ucs2_to_utf8(char16_t const* s, unsigned char* out);

/* Reads bytes back and returns the number of units. The first byte of a character alone gives its
 * length, one to three. Further bytes are not checked, except that the terminator always ends
 * the string. */
SAGLEME_API uint32_t utf8_to_ucs2(unsigned char const* s, char16_t* out);
/* The same into `capacity` units. Returns the number of units in `s`. If that is not below
 * `capacity`, the output is full and has no terminator. */
SAGLEME_API uint32_t utf8_to_ucs2_s(unsigned char const* s, char16_t* out, unsigned int capacity);

#ifdef __cplusplus
}
#endif

#endif

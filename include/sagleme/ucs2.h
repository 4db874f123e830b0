#ifndef SAGLEME_UCS2_H
#define SAGLEME_UCS2_H

#include <sagleme/export.h>
#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

SAGLEME_API uint32_t ucs2_len(char16_t const* s);
SAGLEME_API void ucs2_memcpy(char16_t* dst, char16_t const* src, size_t n);
SAGLEME_API void ucs2_scpy(char16_t* dst, char16_t const* src);
SAGLEME_API int ucs2_scpy_s(char16_t* dst, size_t size, char16_t const* src);
SAGLEME_API int ucs2_strcat_s(char16_t* dst, size_t size, char16_t const* src);
SAGLEME_API uint32_t ascii_to_ucs2(char const* src, char16_t* dst);
SAGLEME_API uint32_t ucs2_to_ascii(char16_t const* src, char* dst);
SAGLEME_API int ucs2_cmp(char16_t const* a, char16_t const* b);
SAGLEME_API int ucs2_icmp(char16_t const* a, char16_t const* b);
SAGLEME_API uint64_t ucs2_toui64_base10(char16_t const* s, char16_t const** end);
SAGLEME_API int64_t ucs2_toi64_base10(char16_t const* s, char16_t const** end);
SAGLEME_API double ucs2_tof(char16_t const* s);
SAGLEME_API uint32_t ucs2_char_to_utf8(char16_t c, unsigned char* out);
SAGLEME_API uint32_t ucs2_char_utf8_size(char16_t c);
SAGLEME_API uint32_t ucs2_utf8_len(char16_t const* s);
SAGLEME_API uint32_t ucs2_to_utf8(char16_t const* s, unsigned char* out);
SAGLEME_API int ucs2_reverse(char16_t* s, int length);
SAGLEME_API uint32_t u32_to_ucs2(uint32_t value, char16_t* out);
SAGLEME_API uint32_t i64_to_ucs2(int64_t value, char16_t* out);
SAGLEME_API uint32_t u64_to_ucs2(uint64_t value, char16_t* out);
SAGLEME_API uint32_t utf8_to_ucs2(unsigned char const* s, char16_t* out);
SAGLEME_API uint32_t utf8_to_ucs2_s(unsigned char const* s, char16_t* out, unsigned int capacity);

#ifdef __cplusplus
}
#endif

#endif

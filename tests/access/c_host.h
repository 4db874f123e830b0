#ifndef SAGLEME_TESTS_ACCESS_C_HOST_H
#define SAGLEME_TESTS_ACCESS_C_HOST_H

/* What a host written in C does with the library; its tests call it. */

#ifdef __cplusplus
extern "C" {
#else
#include <uchar.h>
#endif

unsigned long c_host_version(void);
unsigned int c_host_create_table_without_name(unsigned long context);
int c_host_reads_message(unsigned long context, char16_t* out, unsigned long size);
void c_host_frees_nothing(void);

#ifdef __cplusplus
}
#endif

#endif

#ifndef SAGLEME_EXPORT_H
#define SAGLEME_EXPORT_H

/* What carries this mark is the library's binary interface; everything else stays inside it. */
#if defined(SAGLEME_BUILD)
#define SAGLEME_API __attribute__((visibility("default")))
#else
#define SAGLEME_API
#endif

#endif

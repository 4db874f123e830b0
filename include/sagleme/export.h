#ifndef SAGLEME_EXPORT_H
#define SAGLEME_EXPORT_H

/* What carries one of these marks is the binary interface of its library; everything else stays
   inside it. SAGLEME_API is the metadata layer's, SAGLEME_HOST_API the host library's. */
#if defined(SAGLEME_BUILD)
#define SAGLEME_API __attribute__((visibility("default")))
#else
#define SAGLEME_API
#endif

#if defined(SAGLEME_HOST_BUILD)
#define SAGLEME_HOST_API __attribute__((visibility("default")))
#else
#define SAGLEME_HOST_API
#endif

/* Exceptions cross the borders of libraries, so their type information is visible in each. */
#define SAGLEME_EXCEPTION __attribute__((visibility("default")))

#endif

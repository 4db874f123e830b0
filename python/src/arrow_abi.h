#ifndef SAGLEME_PYTHON_ARROW_ABI_H
#define SAGLEME_PYTHON_ARROW_ABI_H

// The Arrow C data interface: the layouts of its records are fixed for everybody. An exporter fills
// them in; a consumer calls release when it is done, which sets release to null.

#include <cstdint>

struct ArrowSchema {
  char const* format;
  char const* name;
  char const* metadata;
  std::int64_t flags;
  std::int64_t n_children;
  ArrowSchema** children;
  ArrowSchema* dictionary;
  void (*release)(ArrowSchema*);
  void* private_data;
};

struct ArrowArray {
  std::int64_t length;
  std::int64_t null_count;
  std::int64_t offset;
  std::int64_t n_buffers;
  std::int64_t n_children;
  void const** buffers;
  ArrowArray** children;
  ArrowArray* dictionary;
  void (*release)(ArrowArray*);
  void* private_data;
};

struct ArrowArrayStream {
  int (*get_schema)(ArrowArrayStream*, ArrowSchema* out);
  int (*get_next)(ArrowArrayStream*, ArrowArray* out);
  char const* (*get_last_error)(ArrowArrayStream*);
  void (*release)(ArrowArrayStream*);
  void* private_data;
};

inline constexpr std::int64_t kArrowNullable = 2;

#endif

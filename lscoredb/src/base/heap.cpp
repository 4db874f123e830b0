#include "heap.h"

#include <cstdlib>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace lscore {

void ReturnFreeHeap() noexcept {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace lscore

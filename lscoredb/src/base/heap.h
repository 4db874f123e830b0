#ifndef LSCOREDB_SRC_HEAP_H
#define LSCOREDB_SRC_HEAP_H

namespace lscore {

// Returns the free pages of the process's heap to the system, where the heap can do that. A heap
// keeps what was freed below memory that is still in use, so a large transaction would leave
// hundreds of megabytes. Takes milliseconds for each gigabyte: for the end of work that took
// longer.
void ReturnFreeHeap() noexcept;

}  // namespace lscore

#endif

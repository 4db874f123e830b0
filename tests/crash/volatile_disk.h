#ifndef SAGLEME_TESTS_CRASH_VOLATILE_DISK_H
#define SAGLEME_TESTS_CRASH_VOLATILE_DISK_H

// A disk that keeps only what was synced. It remembers the writes to one file since its last sync;
// when power is lost, each sector of them is on the disk or not, by chance.
//
// Process-wide. The functions are called with the lock of the fail points held.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace volatile_disk {

// From now on writes are remembered. `seed` decides what a loss of power leaves.
void Watch(std::uint64_t seed);

// Before a write of `size` bytes from `data`. Writes through a descriptor that syncs are not kept
// in mind.
void Writing(int file, void const* data, std::size_t size, off_t at);
void Synced();

// Leaves in the file what a disk might, and ends the process.
int LosePower();

}  // namespace volatile_disk

#endif

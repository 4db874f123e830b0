#include "cached_row_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <new>

// Part of the leak checker; null if the process has none.
extern "C" [[gnu::weak]] void __lsan_ignore_object(void const* object);

namespace lscore {
namespace {

// Slots of the cache hold addresses with marks in their upper bits, which a leak checker does not
// recognise as pointers.
void* HiddenFromLeakChecker(void* block) {
  if (block != nullptr && __lsan_ignore_object != nullptr) __lsan_ignore_object(block);
  return block;
}

}  // namespace

CachedRowMemory::~CachedRowMemory() {
  if (reserved_ != nullptr) munmap(reserved_, (chunk_limit_ + 1) * kChunk);
}

// Reserves address space for all chunks at once, without memory behind it, and one chunk more, so
// that the first can be aligned. Pages are allocated when they are first touched.
void CachedRowMemory::UseChunks() noexcept {
  std::lock_guard const lock(mutex_);
  if (reserved_ != nullptr || chunk_limit_ == 0) return;
  try {
    chunks_.resize(chunk_limit_);
    unused_.reserve(chunk_limit_);
    for (Numbers& numbers : roomy_) numbers.reserve(chunk_limit_);
  } catch (std::bad_alloc const&) {
    return;
  }
  std::size_t const size = (chunk_limit_ + 1) * kChunk;
  void* const space = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (space == MAP_FAILED) return;
  madvise(space, size, MADV_HUGEPAGE);  // a hint, which may fail
  reserved_ = static_cast<char*>(space);
  auto const address = reinterpret_cast<std::uintptr_t>(space);
  chunks_begin_ = reserved_ + (kChunk - address % kChunk) % kChunk;
  for (std::size_t i = chunk_limit_; i > 0; --i) {
    unused_.push_back(static_cast<std::uint32_t>(i - 1));
  }
}

bool CachedRowMemory::Holds(void const* block) const {
  auto const at = reinterpret_cast<std::uintptr_t>(block);
  auto const begin = reinterpret_cast<std::uintptr_t>(chunks_begin_);
  return chunks_begin_ != nullptr && at >= begin && at - begin < chunk_limit_ * kChunk;
}

// From a chunk of the block size with room, else from an unused chunk, else from the heap.
void* CachedRowMemory::Take(std::size_t size) noexcept {
  if (size <= kLargest) {
    std::lock_guard const lock(mutex_);
    Numbers& roomy = RoomyFor(size);
    if (roomy.empty() && !unused_.empty()) {
      roomy.push_back(unused_.back());
      unused_.pop_back();
      chunks_[roomy.back()].size = size;
    }
    if (!roomy.empty()) return TakeFrom(roomy.back());
  }
  return HiddenFromLeakChecker(std::aligned_alloc(kLine, size));
}

void* CachedRowMemory::TakeFrom(std::uint32_t number) {
  Chunk& chunk = chunks_[number];
  void* block = chunk.free;
  if (block != nullptr) {
    chunk.free = chunk.free->next;
  } else {
    block = chunks_begin_ + number * kChunk + chunk.fresh;
    chunk.fresh += chunk.size;
  }
  ++chunk.used;
  if (!chunk.HasRoom()) RoomyFor(chunk.size).pop_back();
  return block;
}

void CachedRowMemory::Give(void* block, std::size_t size) noexcept {
  {
    std::lock_guard const lock(mutex_);
    if (Holds(block)) {
      auto const number = static_cast<std::uint32_t>(
          static_cast<std::size_t>(static_cast<char*>(block) - chunks_begin_) / kChunk);
      Chunk& chunk = chunks_[number];
      if (!chunk.HasRoom()) RoomyFor(size).push_back(number);
      chunk.free = new (block) Block{chunk.free};
      if (--chunk.used == 0) Release(number);
      return;
    }
  }
  std::free(block);
}

void CachedRowMemory::Release(std::uint32_t number) {
  Chunk& chunk = chunks_[number];
  Numbers& roomy = RoomyFor(chunk.size);
  if (roomy.size() == 1) return;  // the last one stays: the next row of that size needs it again
  std::erase(roomy, number);
  madvise(chunks_begin_ + number * kChunk, kChunk, MADV_DONTNEED);
  chunk = Chunk{};
  unused_.push_back(number);
}

}  // namespace lscore

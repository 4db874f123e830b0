#ifndef LSCOREDB_SRC_CACHED_ROW_MEMORY_H
#define LSCOREDB_SRC_CACHED_ROW_MEMORY_H

// An allocator for rows that are read at random. It uses huge pages where the system has them,
// since half of the wait for such a row is for the translation of its address.
//
// Blocks of one size share a chunk, which is one huge page; an empty chunk goes back to the system.
// Large blocks, and all before the first call of UseChunks, come from the heap, so that a database
// of few rows does not take megabytes. Any thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace lscore {

class CachedRowMemory {
 public:
  static constexpr std::size_t kLine = 64;  // the alignment of all blocks

  // `bytes`: the most that chunks may take. Allocates nothing yet.
  explicit CachedRowMemory(std::uint64_t bytes) : chunk_limit_(bytes / kChunk) {}
  ~CachedRowMemory();
  CachedRowMemory(CachedRowMemory const&) = delete;
  CachedRowMemory& operator=(CachedRowMemory const&) = delete;

  // Null if there is no memory. `size` is a multiple of kLine.
  void* Take(std::size_t size) noexcept;
  // REQUIRES: Take returned `block` for that size.
  void Give(void* block, std::size_t size) noexcept;
  // Uses chunks from now on, if address space for them can be reserved.
  void UseChunks() noexcept;

 private:
  static constexpr std::size_t kChunk = std::size_t{2} << 20;
  static constexpr std::size_t kLargest = 1024;

  struct Block {
    Block* next;
  };
  struct Chunk {
    std::size_t size = 0;   // of its blocks; 0: not in use
    std::size_t fresh = 0;  // offset of the part that was never allocated
    std::size_t used = 0;   // number of allocated blocks
    Block* free = nullptr;  // freed ones

    bool HasRoom() const { return free != nullptr || fresh + size <= kChunk; }
  };
  using Numbers = std::vector<std::uint32_t>;  // chunk numbers; never grows beyond its capacity

  bool Holds(void const* block) const;
  Numbers& RoomyFor(std::size_t size) { return roomy_[size / kLine - 1]; }
  void* TakeFrom(std::uint32_t number);
  void Release(std::uint32_t number);

  std::size_t const chunk_limit_;
  std::mutex mutex_;
  char* reserved_ = nullptr;  // address space for the chunks and their alignment
  char* chunks_begin_ = nullptr;
  std::vector<Chunk> chunks_;
  Numbers unused_;
  std::array<Numbers, kLargest / kLine> roomy_;  // by block size: the chunks with free blocks
};

}  // namespace lscore

#endif

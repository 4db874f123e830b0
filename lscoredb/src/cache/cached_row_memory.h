#ifndef LSCOREDB_SRC_CACHED_ROW_MEMORY_H
#define LSCOREDB_SRC_CACHED_ROW_MEMORY_H

// Memory for rows that are read at random: in large pages, where the system has them, since half of
// the wait for such a row is that for its address.
//
// Blocks of one size share a chunk, which is one large page; a chunk that is empty again goes back
// to the system. Large blocks, and all before the first call of UseChunks, come from the heap: a
// database of few rows is not to take megabytes. Any thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace lscore {

class CachedRowMemory {
 public:
  static constexpr std::size_t kLine = 64;  // what all blocks are aligned to

  // `bytes`: room for chunks, none of which is allocated yet.
  explicit CachedRowMemory(std::uint64_t bytes) : chunk_limit_(bytes / kChunk) {}
  ~CachedRowMemory();
  CachedRowMemory(CachedRowMemory const&) = delete;
  CachedRowMemory& operator=(CachedRowMemory const&) = delete;

  // Null if there is no memory. `size` is a multiple of kLine.
  void* Take(std::size_t size) noexcept;
  // REQUIRES: Take gave `block` for that size.
  void Give(void* block, std::size_t size) noexcept;
  // Uses chunks from now on. Does nothing if there is no room for them.
  void UseChunks() noexcept;

 private:
  static constexpr std::size_t kChunk = std::size_t{2} << 20;
  static constexpr std::size_t kLargest = 1024;

  struct Block {
    Block* next;
  };
  struct Chunk {
    std::size_t size = 0;   // of its blocks; 0: not in use
    std::size_t fresh = 0;  // bytes from the begin that were given out at some time
    std::size_t used = 0;   // blocks
    Block* free = nullptr;

    bool HasRoom() const { return free != nullptr || fresh + size <= kChunk; }
  };
  using Numbers = std::vector<std::uint32_t>;  // of chunks; never grows beyond what was reserved

  bool Holds(void const* block) const;
  Numbers& RoomyFor(std::size_t size) { return roomy_[size / kLine - 1]; }
  void* TakeFrom(std::uint32_t number);
  void Release(std::uint32_t number);

  std::size_t const chunk_limit_;
  std::mutex mutex_;
  char* reserved_ = nullptr;  // address space, with the chunks in it
  char* chunks_begin_ = nullptr;
  std::vector<Chunk> chunks_;
  Numbers unused_;
  std::array<Numbers, kLargest / kLine> roomy_;  // by size, those with room
};

}  // namespace lscore

#endif

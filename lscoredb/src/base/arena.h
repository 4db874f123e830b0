#ifndef LSCOREDB_SRC_ARENA_H
#define LSCOREDB_SRC_ARENA_H

// Memory that is freed all at once, or down to a mark. It keeps its first chunk, so small
// transactions allocate nothing from the heap. More than a few megabytes come directly from the
// system and return to it, since a heap would keep them. One thread at a time.

#include <cstddef>
#include <memory>
#include <memory_resource>
#include <vector>

namespace lscore {

class Arena : public std::pmr::memory_resource {
 public:
  struct Mark {
    std::size_t chunk = 0;
    std::size_t used = 0;
  };

  // 16-byte aligned.
  char* Allocate(std::size_t size);
  // Bytes that came directly from the system and have not returned.
  std::size_t from_system() const { return from_system_; }
  Mark mark() const { return {chunks_.empty() ? 0 : chunks_.size() - 1, used_}; }
  // Frees what was allocated since the mark.
  void ReleaseTo(Mark mark);
  void Release() { ReleaseTo({}); }

 private:
  static constexpr std::size_t kFirstChunk = 16 * 1024;
  static constexpr std::size_t kLargestChunk = 1024 * 1024;
  static constexpr std::size_t kAlignment = 16;

  static constexpr std::size_t kMostFromHeap = std::size_t{8} << 20;
  static constexpr std::size_t kMappedChunk = std::size_t{4} << 20;

  struct Free {
    std::size_t mapped;  // bytes from the system; 0: from the heap
    void operator()(char* bytes) const noexcept;
  };
  struct Chunk {
    std::unique_ptr<char[], Free> bytes;
    std::size_t size;
  };

  void AddChunk(std::size_t at_least);
  void DropChunk();
  static Chunk FromHeap(std::size_t size);
  static Chunk FromSystem(std::size_t at_least);

  void* do_allocate(std::size_t bytes, std::size_t) override { return Allocate(bytes); }
  void do_deallocate(void*, std::size_t, std::size_t) override {}
  bool do_is_equal(std::pmr::memory_resource const& other) const noexcept override {
    return this == &other;
  }

  std::vector<Chunk> chunks_;
  std::size_t used_ = 0;  // of the last chunk
  std::size_t from_heap_ = 0;
  std::size_t from_system_ = 0;
};

}  // namespace lscore

#endif

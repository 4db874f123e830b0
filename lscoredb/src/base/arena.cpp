#include "arena.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace lscore {

char* Arena::Allocate(std::size_t size) {
  if (size > PTRDIFF_MAX) throw std::bad_alloc();
  size = (size + kAlignment - 1) / kAlignment * kAlignment;
  if (chunks_.empty() || chunks_.back().size - used_ < size) AddChunk(size);
  char* const at = chunks_.back().bytes.get() + used_;
  used_ += size;
  return at;
}

void Arena::AddChunk(std::size_t at_least) {
  std::size_t const next =
      chunks_.empty() ? kFirstChunk : std::min(chunks_.back().size * 2, kLargestChunk);
  std::size_t const size = std::max(next, at_least);
  bool const mapped = from_heap_ + size > kMostFromHeap;
  chunks_.reserve(chunks_.size() + 1);
  chunks_.push_back(mapped ? FromSystem(at_least) : FromHeap(size));
  (mapped ? from_system_ : from_heap_) += chunks_.back().size;
  used_ = 0;
}

Arena::Chunk Arena::FromHeap(std::size_t size) {
  return {std::unique_ptr<char[], Free>(new char[size], Free{0}), size};
}

// A huge page takes one fault where small ones take hundreds. A system that has none ignores the
// advice.
Arena::Chunk Arena::FromSystem(std::size_t at_least) {
  std::size_t const size = (at_least + kMappedChunk - 1) / kMappedChunk * kMappedChunk;
  void* const mapped =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  static_cast<void>(madvise(mapped, size, MADV_HUGEPAGE));
  return {std::unique_ptr<char[], Free>(static_cast<char*>(mapped), Free{size}), size};
}

void Arena::Free::operator()(char* bytes) const noexcept {
  if (mapped == 0) {
    delete[] bytes;
  } else {
    munmap(bytes, mapped);
  }
}

void Arena::DropChunk() {
  Chunk const& last = chunks_.back();
  (last.bytes.get_deleter().mapped != 0 ? from_system_ : from_heap_) -= last.size;
  chunks_.pop_back();
}

void Arena::ReleaseTo(Mark mark) {
  while (chunks_.size() > mark.chunk + 1) DropChunk();
  used_ = chunks_.empty() ? 0 : mark.used;
  if (used_ == 0 && chunks_.size() == 1 && chunks_[0].size > kFirstChunk) DropChunk();
}

}  // namespace lscore

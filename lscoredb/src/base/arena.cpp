#include "arena.h"

#include <algorithm>

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
  chunks_.reserve(chunks_.size() + 1);
  chunks_.push_back({std::unique_ptr<char[]>(new char[size]), size});
  used_ = 0;
}

void Arena::ReleaseTo(Mark mark) {
  while (chunks_.size() > mark.chunk + 1) chunks_.pop_back();
  used_ = chunks_.empty() ? 0 : mark.used;
  if (used_ == 0 && chunks_.size() == 1 && chunks_[0].size > kFirstChunk) chunks_.clear();
}

}  // namespace lscore

#ifndef LSCOREDB_SRC_ZERO_PAGES_H
#define LSCOREDB_SRC_ZERO_PAGES_H

// Memory that reads as zeros and is the system's own, page by page as it is touched. The heap would
// clear all of it where it uses memory again.

#include <sys/mman.h>

#include <cstddef>
#include <new>

namespace lscore {

// Room for `Value`s, for which zeros have to be a value. They are not destroyed.
template <typename Value>
class ZeroPages {
 public:
  explicit ZeroPages(std::size_t count) : size_(count * sizeof(Value)) {
    void* const pages =
        mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    values_ = static_cast<Value*>(pages);
  }
  ~ZeroPages() { munmap(values_, size_); }
  ZeroPages(ZeroPages const&) = delete;
  ZeroPages& operator=(ZeroPages const&) = delete;

  Value* data() const { return values_; }
  Value& operator[](std::size_t i) const { return values_[i]; }

 private:
  std::size_t size_;  // in bytes
  Value* values_;
};

}  // namespace lscore

#endif

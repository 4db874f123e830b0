#ifndef SAGLEME_TESTS_SQL_DIFFERENTIAL_CHOICES_H
#define SAGLEME_TESTS_SQL_DIFFERENTIAL_CHOICES_H

// The choices that a generator made, so that it can make them again, or simpler ones.
//
// A generator draws numbers, and smaller ones stand for simpler things. Given numbers are used
// first; when they run out, further ones are random, or 0 where they are replayed. A statement is
// made smaller by taking numbers out of its list or making them smaller, without a word about SQL.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <vector>

namespace sql_differential {

class Choices {
 public:
  // Random ones.
  explicit Choices(std::uint64_t seed) : random_(seed), replayed_(false) {}
  // Those given.
  explicit Choices(std::vector<std::uint32_t> given)
      : random_(0), replayed_(true), taken_(std::move(given)) {}

  // Below `count`, which is above 0.
  std::uint32_t Below(std::uint32_t count) {
    if (at_ == taken_.size()) {
      taken_.push_back(replayed_ ? 0 : static_cast<std::uint32_t>(random_() % count));
    }
    return taken_[at_++] % count;
  }
  // True in `percent` of the cases; false is the simpler one.
  bool Chance(std::uint32_t percent) { return Below(100) >= 100 - percent; }
  template <typename List>
  auto const& Pick(List const& list) {
    return list[Below(static_cast<std::uint32_t>(std::size(list)))];
  }

  // What was drawn so far.
  std::vector<std::uint32_t> Taken() const {
    return {taken_.begin(), taken_.begin() + static_cast<std::ptrdiff_t>(at_)};
  }

 private:
  std::mt19937_64 random_;
  bool replayed_;
  std::vector<std::uint32_t> taken_;
  std::size_t at_ = 0;
};

}  // namespace sql_differential

#endif

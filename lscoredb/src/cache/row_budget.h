#ifndef LSCOREDB_SRC_CACHE_ROW_BUDGET_H
#define LSCOREDB_SRC_CACHE_ROW_BUDGET_H

// One budget for the cached rows of all databases of the process: the largest memory that any open
// one was given. Half of an equal share is guaranteed to each, so that a database that is opened
// late gets its part; all together therefore take at most one and a half times the budget. Any
// thread.

#include <cstdint>

namespace lscore {

class RowBudget {
 public:
  // The share of an open database, which lives as long as its cache.
  class Share {
   public:
    explicit Share(std::uint64_t memory);
    ~Share();
    Share(Share const&) = delete;
    Share& operator=(Share const&) = delete;

   private:
    std::uint64_t const memory_;
  };

  // Whether a database's cache may grow by `more` bytes to `wanted`.
  static bool Allows(std::uint64_t wanted, std::uint64_t more) noexcept;
  static void Take(std::uint64_t bytes) noexcept;
  static void Give(std::uint64_t bytes) noexcept;
  // The bytes that all databases use.
  static std::uint64_t taken() noexcept;
};

}  // namespace lscore

#endif

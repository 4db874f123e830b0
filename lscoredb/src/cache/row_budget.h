#ifndef LSCOREDB_SRC_CACHE_ROW_BUDGET_H
#define LSCOREDB_SRC_CACHE_ROW_BUDGET_H

// One budget for the rows that all databases of the process keep in memory: the largest memory that
// any open one was given. A database that comes late finds its part nevertheless: half of an equal
// share is free to each, so that all together take at most one and a half times the budget.
// Any thread.

#include <cstdint>

namespace lscore {

class RowBudget {
 public:
  // An open database's right to a part.
  class Share {
   public:
    explicit Share(std::uint64_t memory);
    ~Share();
    Share(Share const&) = delete;
    Share& operator=(Share const&) = delete;

   private:
    std::uint64_t const memory_;
  };

  // Whether a database may grow by `more` bytes to `wanted`.
  static bool Allows(std::uint64_t wanted, std::uint64_t more) noexcept;
  static void Take(std::uint64_t bytes) noexcept;
  static void Give(std::uint64_t bytes) noexcept;
  // Bytes of all databases.
  static std::uint64_t taken() noexcept;
};

}  // namespace lscore

#endif

#include "row_budget.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>

namespace lscore {
namespace {

struct Budget {
  std::mutex mutex;
  std::multiset<std::uint64_t> memories;  // of the open databases
  std::atomic<std::uint64_t> limit{0};
  std::atomic<std::uint64_t> free_to_each{0};
  std::atomic<std::uint64_t> taken{0};

  // REQUIRES: the lock.
  void Divide() {
    limit = memories.empty() ? 0 : *memories.rbegin();
    free_to_each = limit / (2 * std::max<std::uint64_t>(memories.size(), 1));
  }
};

// Outlives all static objects that may hold databases.
Budget& TheBudget() {
  static auto* const budget = new Budget;
  return *budget;
}

}  // namespace

RowBudget::Share::Share(std::uint64_t memory) : memory_(memory) {
  Budget& budget = TheBudget();
  std::lock_guard const lock(budget.mutex);
  budget.memories.insert(memory);
  budget.Divide();
}

RowBudget::Share::~Share() {
  Budget& budget = TheBudget();
  std::lock_guard const lock(budget.mutex);
  budget.memories.erase(budget.memories.find(memory_));
  budget.Divide();
}

bool RowBudget::Allows(std::uint64_t wanted, std::uint64_t more) noexcept {
  Budget const& budget = TheBudget();
  return budget.taken.load(std::memory_order_relaxed) + more <=
             budget.limit.load(std::memory_order_relaxed) ||
         wanted <= budget.free_to_each.load(std::memory_order_relaxed);
}

void RowBudget::Take(std::uint64_t bytes) noexcept {
  TheBudget().taken.fetch_add(bytes, std::memory_order_relaxed);
}

void RowBudget::Give(std::uint64_t bytes) noexcept {
  TheBudget().taken.fetch_sub(bytes, std::memory_order_relaxed);
}

std::uint64_t RowBudget::taken() noexcept {
  return TheBudget().taken.load(std::memory_order_relaxed);
}

}  // namespace lscore

#include "row_budget.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <set>

#include "fork.h"

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

// Never destroyed, since static objects may hold databases.
Budget& budget = *new Budget;

// A forked child starts with a new budget: it has none of the parent's databases open, and a thread
// that exists only in the parent may have held the mutex.
AtFork const begin_anew(nullptr, nullptr, [] { new (&budget) Budget; });

}  // namespace

RowBudget::Share::Share(std::uint64_t memory) : memory_(memory) {
  std::lock_guard const lock(budget.mutex);
  budget.memories.insert(memory);
  budget.Divide();
}

RowBudget::Share::~Share() {
  std::lock_guard const lock(budget.mutex);
  budget.memories.erase(budget.memories.find(memory_));
  budget.Divide();
}

bool RowBudget::Allows(std::uint64_t wanted, std::uint64_t more) noexcept {
  return budget.taken.load(std::memory_order_relaxed) + more <=
             budget.limit.load(std::memory_order_relaxed) ||
         wanted <= budget.free_to_each.load(std::memory_order_relaxed);
}

void RowBudget::Take(std::uint64_t bytes) noexcept {
  budget.taken.fetch_add(bytes, std::memory_order_relaxed);
}

void RowBudget::Give(std::uint64_t bytes) noexcept {
  budget.taken.fetch_sub(bytes, std::memory_order_relaxed);
}

std::uint64_t RowBudget::taken() noexcept { return budget.taken.load(std::memory_order_relaxed); }

}  // namespace lscore

#include "kept_answers.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "status.h"

namespace lscore {
namespace {

constexpr std::size_t kMostKept = 16;

// What all databases of the process keep, in bytes.
std::atomic<std::uint64_t> g_kept{0};

bool IsSmaller(std::unique_ptr<ServerAnswers> const& a, std::unique_ptr<ServerAnswers> const& b) {
  return a->memory() < b->memory();
}

}  // namespace

KeptAnswers::~KeptAnswers() {
  for (auto const& one : kept_) g_kept -= one->memory();
}

KeptAnswers::All KeptAnswers::EnterState(CommitId state) {
  if (state <= state_) return {};
  state_ = state;
  for (auto const& one : kept_) g_kept -= one->memory();
  return std::exchange(kept_, {});
}

std::unique_ptr<ServerAnswers> KeptAnswers::Remove(All::iterator one) {
  std::unique_ptr<ServerAnswers> removed = std::move(*one);
  kept_.erase(one);
  g_kept -= removed->memory();
  return removed;
}

std::unique_ptr<ServerAnswers> KeptAnswers::Take(CommitId state, bool numbered) {
  All old;
  std::lock_guard const lock(mutex_);
  old = EnterState(state);
  if (state != state_) return nullptr;
  auto const largest = std::max_element(kept_.begin(), kept_.end(), &IsSmaller);
  if (largest == kept_.end() || (*largest)->numbered() != numbered) return nullptr;
  return Remove(largest);
}

std::unique_ptr<ServerAnswers> KeptAnswers::Add(std::unique_ptr<ServerAnswers> answers) {
  std::uint64_t const size = answers->memory();
  kept_.reserve(kMostKept);
  if ((g_kept += size) > most_ || kept_.size() == kMostKept) {
    g_kept -= size;
    return answers;
  }
  kept_.push_back(std::move(answers));
  return nullptr;
}

// The smallest ones make room for larger ones.
void KeptAnswers::Keep(CommitId state, std::unique_ptr<ServerAnswers> answers) noexcept {
  if (answers == nullptr || answers->memory() > most_) return;
  All old;
  static_cast<void>(Guarded([&] {
    std::lock_guard const lock(mutex_);
    old = EnterState(state);
    old.reserve(old.size() + kMostKept);
    if (state != state_) return Status{LORV_STATUS_OK};
    while ((answers = Add(std::move(answers))) != nullptr) {
      auto const smallest = std::min_element(kept_.begin(), kept_.end(), &IsSmaller);
      if (smallest == kept_.end() || !IsSmaller(*smallest, answers)) break;
      old.push_back(Remove(smallest));
    }
    return Status{LORV_STATUS_OK};
  }));
}

}  // namespace lscore

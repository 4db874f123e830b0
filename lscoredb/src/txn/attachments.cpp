#include "attachments.h"

namespace lscore {

Attachments::~Attachments() {
  while (!entries_.empty()) {
    std::unique_ptr<Entry> const last = std::move(entries_.back());
    entries_.pop_back();
    if (last->release != nullptr) last->release(last->value);
  }
}

// Appends to a singly linked list whose entries never move or go before the destructor. The release
// store publishes a complete entry, so Find reads the list without the mutex.
void* Attachments::Attach(void const* key, void* value, Release release) {
  std::lock_guard const lock(mutex_);
  if (void* const found = Find(key)) return found;
  entries_.push_back(std::make_unique<Entry>(key, value, release));
  auto& end = entries_.size() == 1 ? first_ : entries_[entries_.size() - 2]->next;
  end.store(entries_.back().get(), std::memory_order_release);
  return value;
}

}  // namespace lscore

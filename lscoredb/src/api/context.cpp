#include "context.h"

#include "fork.h"

namespace lscore {

constinit NeverDestroyedHandleTable<Context> contexts;
constinit NeverDestroyedHandleTable<OpenIterator> iterators;

namespace {

AtFork const forget_handles(nullptr, nullptr, [] {
  Contexts().ForgetParent();
  Iterators().ForgetParent();
});

}  // namespace

bool IsOfParent(lscoredb const& database) { return database.process != ProcessNumber(); }

Context::Context(lscoredb& owner) : owner_(owner), transaction_(owner.database) {
  ++owner_.contexts;
}

Context::~Context() {
  if (transaction_.open()) transaction_.Rollback();
  for (auto const& iterator : iterators_) Iterators().Retire(iterator->handle);
  --owner_.contexts;
}

IndexBuilder& Context::index_builder() {
  if (index_builder_ == nullptr) {
    index_builder_ = std::make_unique<IndexBuilder>(owner_.database);
  }
  return *index_builder_;
}

OpenIterator& Context::TakeIterator() {
  if (free_iterators_.empty()) {
    iterators_.reserve(iterators_.size() + 1);
    free_iterators_.reserve(iterators_.size() + 1);
    auto iterator = std::make_unique<OpenIterator>();
    iterator->context = this;
    iterator->handle = Iterators().Register(*iterator);
    Iterators().Suspend(iterator->handle);
    free_iterators_.push_back(iterator.get());
    iterators_.push_back(std::move(iterator));
  }
  return *free_iterators_.back();
}

Status Context::CreateIterator(IndexId index, bool reverse, void const* first_key,
                               void const* last_key, std::uint64_t* out) {
  OpenIterator& iterator = TakeIterator();
  Status const status =
      transaction_.OpenIterator(iterator.iterator, index, {reverse, first_key, last_key});
  if (status != LORV_STATUS_OK) return status;
  free_iterators_.pop_back();
  iterator.handle = Iterators().Revive(iterator.handle);
  *out = iterator.handle;
  return LORV_STATUS_OK;
}

void Context::FreeIterator(OpenIterator& iterator) {
  Iterators().Suspend(iterator.handle);
  transaction_.CloseIterator(iterator.iterator);
  free_iterators_.push_back(&iterator);
}

}  // namespace lscore

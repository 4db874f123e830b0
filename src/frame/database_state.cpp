#include "frame/database_state.h"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <new>
#include <sagleme/metalayer/context.hpp>

#include "frame/context_state.h"
#include "frame/kernel_host.h"

namespace metalayer {
namespace {

char const kKey = 0;  // its address is what the states are attached under

constinit std::atomic<bool> exported_in_use{false};

using SharedState = std::shared_ptr<DatabaseState>;

// A status other than 0 says that there is no such context.
void* FindAttached(decltype(lscoredb_attached) find, unsigned long context, bool* open) {
  void* found = nullptr;
  *open = find(context, &kKey, &found) == 0;
  return found;
}

template <typename Value>
void Release(void* value) {
  delete static_cast<Value*>(value);
}

// The context was open a moment ago, so that what fails is memory.
template <typename Value>
Value& Attach(decltype(lscoredb_attach) attach, unsigned long context,
              std::unique_ptr<Value> value) {
  void* attached = nullptr;
  unsigned int const status = attach(context, &kKey, value.get(), Release<Value>, &attached);
  if (status != 0 || attached == nullptr) throw std::bad_alloc();
  if (attached == value.get()) return *value.release();
  return *static_cast<Value*>(attached);
}

// Held while a state is looked for or made, and over every fork, so that a child finds it free.
std::mutex making;

[[maybe_unused]] int const kept_over_forks =
    pthread_atfork([] { making.lock(); }, [] { making.unlock(); }, [] { making.unlock(); });

}  // namespace

// The states as the kernel keeps them.
class KernelStates {
 public:
  // That of a context which the kernel keeps no state for. Where it keeps any, a context that is
  // not open has no part in those of databases; a thread in no context sees what is exported.
  // Never destroyed: functions may be called until the very end of the process.
  static SharedState const& OfProcess(unsigned long context) {
    static constinit std::atomic<SharedState const*> exported{nullptr};
    static constinit std::atomic<SharedState const*> not_open{nullptr};
    return context != 0 && KernelKeepsStates() ? Made(not_open, false) : Made(exported, true);
  }

  // One at a time, so that only a state that is kept claims what is exported.
  static SharedState OfDatabase(unsigned long context) {
    std::lock_guard const lock(making);
    bool open = false;
    void* const known = FindAttached(lscoredb_attached, context, &open);
    if (known != nullptr) return *static_cast<SharedState*>(known);
    auto state = std::make_unique<SharedState>();
    state->reset(MakeClaiming());
    return Attach(lscoredb_attach, context, std::move(state));
  }

 private:
  // Claims what is exported, when nobody has. A state gives its claim back when it ends; one that
  // could not be made has none.
  static DatabaseState* MakeClaiming() {
    bool const exported = !exported_in_use.exchange(true);
    if (auto* const made = new (std::nothrow) DatabaseState(exported)) return made;
    if (exported) exported_in_use = false;
    throw std::bad_alloc();
  }

  static SharedState const& Made(std::atomic<SharedState const*>& slot, bool exported) {
    if (SharedState const* const made = slot) return *made;
    std::lock_guard const lock(making);
    // It has no claim to give back, also when memory runs out here.
    auto const keep = [](DatabaseState*) {};
    if (slot == nullptr) slot = new SharedState(new DatabaseState(exported), keep);
    return *slot;
  }
};

DatabaseState::~DatabaseState() {
  for (std::size_t i = kParts; i > 0; --i) delete parts_[i - 1].load();
  if (exported_) exported_in_use = false;
}

ContextState* ContextState::Find(unsigned long context) {
  if (!KernelKeepsStates()) return nullptr;
  bool open = false;
  void* const known = FindAttached(lscoredb_context_attached, context, &open);
  if (known != nullptr) [[likely]]
    return static_cast<ContextState*>(known);
  if (!open) return nullptr;
  auto state = std::make_unique<ContextState>();
  state->database = KernelStates::OfDatabase(context);
  return &Attach(lscoredb_context_attach, context, std::move(state));
}

std::shared_ptr<DatabaseState> DatabaseState::Share(unsigned long context) {
  ContextState* const state = ContextState::Find(context);
  return state == nullptr ? KernelStates::OfProcess(context) : state->database;
}

DatabaseState& DatabaseState::Of(unsigned long context) {
  ContextState* const state = ContextState::Find(context);
  return state == nullptr ? *KernelStates::OfProcess(context) : *state->database;
}

DatabaseState& DatabaseState::Current() { return Of(*TlsMetalayerContext::Current()); }

}  // namespace metalayer

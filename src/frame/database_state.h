#ifndef SAGLEME_SRC_FRAME_DATABASE_STATE_H
#define SAGLEME_SRC_FRAME_DATABASE_STATE_H

// What the layer knows of one database, found through a context.
//
// A kernel that distinguishes databases keeps the state with the database and releases it at the
// last close. Under any other kernel one state serves the process. The state consists of parts, one
// for each room that keeps something, made on first use; a part is of no use to other rooms. Any
// thread may ask for a part; what it holds has rules of its own.
//
// The variables that the library exports are the storage of one state: of the process's, and of the
// database that was opened while no other had them. Parts of that state stand upon them.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace metalayer {

class StatePart {
 public:
  virtual ~StatePart() = default;
};

enum class PartOf : std::size_t { kMetaclasses, kLayoutTables, kDescriptors, kStartUp, kHandles };

class DatabaseState {
 public:
  // The state of the database that `context` belongs to, made when it is missed.
  static std::shared_ptr<DatabaseState> Share(unsigned long context);
  // The same, valid while the context is open. A frame of the thread that stands in the context has
  // looked it up already.
  static DatabaseState& Of(unsigned long context);
  // That of the thread's context.
  static DatabaseState& Current();

  DatabaseState(DatabaseState const&) = delete;
  DatabaseState& operator=(DatabaseState const&) = delete;
  ~DatabaseState();

  bool exported() const { return exported_; }

  // Part is made by Part(DatabaseState&).
  template <typename Part>
  Part& Get() {
    std::atomic<StatePart*>& slot = parts_[static_cast<std::size_t>(Part::kPart)];
    StatePart* part = slot.load(std::memory_order_acquire);
    if (part == nullptr) [[unlikely]]
      part = &Make<Part>(slot);
    return *static_cast<Part*>(part);
  }

 private:
  friend class KernelStates;

  explicit DatabaseState(bool exported) : exported_(exported) {}

  template <typename Part>
  StatePart& Make(std::atomic<StatePart*>& slot) {
    std::lock_guard const lock(mutex_);
    if (StatePart* const part = slot.load(std::memory_order_relaxed)) return *part;
    auto made = std::make_unique<Part>(*this);
    slot.store(made.get(), std::memory_order_release);
    return *made.release();
  }

  static constexpr std::size_t kParts = 5;

  bool const exported_;
  std::mutex mutex_;  // held while a part is made
  std::array<std::atomic<StatePart*>, kParts> parts_{};
};

}  // namespace metalayer

#endif

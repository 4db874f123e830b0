#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "bytes.h"
#include "check.h"

namespace lscore {
namespace {

constexpr unsigned kMostThreads = 8;
constexpr std::uint64_t kIdsPerRange = 4096;  // at least
constexpr std::uint64_t kRangesPerThread = 16;
constexpr std::chrono::milliseconds kBetweenLooks{50};  // at the watch, while helpers work

// The findings of one range. The calling thread reports them at the end, in the order of ranges, so
// that a check always reports the same and the host's callback runs in its own thread.
class KeptFindings final : public Findings {
 public:
  explicit KeptFindings(bool one_is_enough) : one_is_enough_(one_is_enough) {}

  void Report(Finding const& finding, std::string const& text) override {
    kept_.emplace_back(finding, text);
    if (one_is_enough_) throw StopCheck();
  }
  void PassOn(Findings& to) {
    for (auto const& [finding, text] : kept_) to.Report(finding, text);
    kept_ = {};
  }

 private:
  bool const one_is_enough_;
  std::vector<std::pair<Finding, std::string>> kept_;
};

// The number of objects by the counts of the layouts, which may be wrong: for progress only.
std::uint64_t CountedObjects(Snapshot const& snapshot, CheckedDefinitions const& definitions) {
  std::uint64_t count = 0;
  definitions.ForEachLayout([&](Layout const& layout) {
    static_cast<void>(Guarded([&] {
      count += ReadCount(snapshot, layout.number()).objects;
      return LORV_STATUS_OK;
    }));
  });
  return count;
}

// All objects, divided into about `most` ranges of ids. Ids are not evenly used, so there are many
// more ranges than threads.
std::vector<ObjectRange> Ranges(Snapshot const& snapshot, std::uint64_t most) {
  Cursor cursor;
  cursor.Open(snapshot, Tree::kRows);
  if (!cursor.First()) return {};
  auto const first = Load<std::uint64_t>(cursor.key().data());
  cursor.Last();
  auto const last = Load<std::uint64_t>(cursor.key().data());
  std::uint64_t const ids = last - first;
  std::uint64_t const step = std::max(kIdsPerRange, ids / most + 1);
  std::vector<ObjectRange> ranges;
  for (std::uint64_t at = first;; at += step) {
    bool const ends = last - at < step;
    ranges.push_back({ObjectId{at}, ObjectId{ends ? last : at + step - 1}});
    if (ends) return ranges;
  }
}

// Threads that take ranges from a common counter. The calling thread works too and watches over the
// others: progress and cancelling belong to it.
class Workers {
 public:
  Workers(Store& store, Snapshot const& snapshot, CheckedDefinitions const& definitions,
          FindingSink& sink, bool entries, ObjectCheck& check)
      : store_(store),
        snapshot_(snapshot),
        definitions_(definitions),
        sink_(sink),
        entries_(entries),
        check_(check),
        work_(kObjectShare, CountedObjects(snapshot, definitions)) {}

  void Run() {
    unsigned const threads = std::clamp(std::thread::hardware_concurrency(), 1u, kMostThreads);
    ranges_ = Ranges(snapshot_, threads * kRangesPerThread);
    for (std::size_t i = 0; i < ranges_.size(); ++i) found_.emplace_back(sink_.one_is_enough());
    std::size_t const helpers = std::min<std::size_t>(threads, ranges_.size());
    std::vector<std::thread> running;
    running.reserve(helpers);
    try {
      for (std::size_t i = 1; i < helpers; ++i) {
        running.emplace_back([this] { Help(); });
        ++started_;
      }
    } catch (std::system_error const&) {
      // Fewer threads suffice.
    }
    WorkOn(snapshot_, [this] { work_.AdvanceTo(checked_); });
    WatchHelpers();
    for (std::thread& thread : running) thread.join();
    if (failure_ != nullptr) std::rethrow_exception(failure_);
    for (KeptFindings& found : found_) found.PassOn(sink_);
  }

 private:
  // A helper needs its own snapshot, since only one thread reads a snapshot. If a commit came in
  // between, its snapshot has another state: the helper gives up, and the others do its work.
  void Help() noexcept {
    HelpWithOwnSnapshot();
    std::lock_guard const lock(mutex_);
    ++over_;
    one_is_over_.notify_one();
  }

  void HelpWithOwnSnapshot() noexcept {
    std::unique_ptr<Snapshot> own;
    try {
      own = store_.Begin();
    } catch (...) {
      return;
    }
    if (own->id() == snapshot_.id()) WorkOn(*own, [] {});
    store_.End(std::move(own));
  }

  // `look` is called every few objects.
  template <typename Look>
  void WorkOn(Snapshot const& snapshot, Look&& look) noexcept {
    auto const report = [&](std::uint64_t objects) {
      checked_ += objects;
      if (ended_) throw StopCheck();
      look();
    };
    try {
      for (std::size_t i = next_++; i < ranges_.size() && !ended_; i = next_++) {
        ObjectCheck own(snapshot, definitions_, found_[i], entries_);
        own.Run(ranges_[i], report);
        std::lock_guard const lock(mutex_);
        check_.Add(own);
      }
    } catch (StopCheck const&) {
      ended_ = true;
    } catch (...) {
      Fail();
    }
  }

  void Fail() noexcept {
    ended_ = true;
    std::lock_guard const lock(mutex_);
    failure_ = std::current_exception();
  }

  // The watch belongs to the calling thread, which has no ranges left.
  void WatchHelpers() noexcept {
    std::unique_lock lock(mutex_);
    while (!one_is_over_.wait_for(lock, kBetweenLooks, [this] { return over_ == started_; })) {
      lock.unlock();
      try {
        if (!ended_) work_.AdvanceTo(checked_);
      } catch (...) {
        Fail();
      }
      lock.lock();
    }
  }

  Store& store_;
  Snapshot const& snapshot_;
  CheckedDefinitions const& definitions_;
  FindingSink& sink_;
  bool const entries_;
  std::vector<ObjectRange> ranges_;
  std::deque<KeptFindings> found_;  // by range
  std::atomic<std::size_t> next_{0};
  std::atomic<bool> ended_{false};
  std::mutex mutex_;
  ObjectCheck& check_;
  std::exception_ptr failure_;
  std::atomic<std::uint64_t> checked_{0};
  WatchedWork work_;
  std::size_t started_ = 0;  // helpers
  std::size_t over_ = 0;     // helpers that have ended
  std::condition_variable one_is_over_;
};

}  // namespace

void CheckObjectsInThreads(Store& store, Snapshot const& snapshot,
                           CheckedDefinitions const& definitions, FindingSink& sink, bool entries,
                           ObjectCheck& check) {
  Workers(store, snapshot, definitions, sink, entries, check).Run();
}

}  // namespace lscore

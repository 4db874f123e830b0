#ifndef LSCOREDB_SRC_SHARED_ROW_CACHE_H
#define LSCOREDB_SRC_SHARED_ROW_CACHE_H

// The newest committed rows in memory, for all contexts of the process.
//
// A row is cached when a transaction first reads it, and is the newest version as long as it is
// cached: the commit that replaces it evicts it before becoming visible. So a reader of any state
// not older than the row's commit may use it. Evicted rows are retired: they are freed once every
// transaction that may use them has ended. While they make up more than a quarter of the memory, no
// row enters.
//
// Readers take no lock. A bucket is one line of the processor's cache with eight slots, usually for
// eight neighbours by id. The time of a random read is that of the lines it touches, so slots are
// small. When the memory or a bucket is full, another row of the bucket is evicted.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "bytes.h"
#include "cached_row_memory.h"
#include "foreign_commits.h"
#include "format.h"
#include "ids.h"
#include "layout.h"
#include "row.h"
#include "row_budget.h"

namespace lscore {

// A committed row. Its image follows in memory, then a link for when it is retired. A usual row
// fits into two lines of the processor's cache; the image's size is stored in place of its
// checksum.
struct CachedRow {
  ObjectId id{};
  Layout const* layout = nullptr;
  CommitId known{};  // a state in which it was the newest version

  std::uint32_t size() const { return Load<std::uint32_t>(image() + format::kCrcOffset); }
  char const* image() const { return reinterpret_cast<char const*>(this + 1); }
  std::string_view bytes() const { return {image(), size()}; }
  CommitId commit() const { return RowImage(bytes()).commit(); }  // that wrote it
};

struct CachedRowFree {
  void operator()(CachedRow* row) const noexcept;
  CachedRowMemory* memory = nullptr;
};
using CachedRowPtr = std::unique_ptr<CachedRow, CachedRowFree>;

class SharedRowCache {
 public:
  // A transaction's access to the cache. From Begin to End no row that it found is freed. One
  // thread at a time.
  class Reader {
   public:
    explicit Reader(SharedRowCache& table);
    ~Reader();
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;

    // `usable`: what ForeignCommits::Notice returned for the state.
    void Begin(CommitId state, bool usable);
    void End() noexcept { since_.store(kNotReading, std::memory_order_release); }

    // The row as of the state that is read; null if that is not cached. Valid until End.
    CachedRow const* Find(ObjectId id) const { return usable_ ? table_.Find(id, state_) : nullptr; }
    // The same for many, one after the other through each wait: `out` receives a row for each id.
    void FindMany(std::span<std::uint64_t const> ids, CachedRow const** out) const;
    // Prefetches rows that will soon be read: first their slots, then the rows.
    void PrefetchSlot(ObjectId id) const { table_.PrefetchSlot(id); }
    void FetchRow(ObjectId id) const {
      if (usable_) table_.FetchRow(id);
    }
    // Offers a row that was read from the store.
    void Keep(ObjectId id, Layout const& layout, std::string_view image) noexcept;

   private:
    friend class SharedRowCache;

    SharedRowCache& table_;
    CommitId state_{};
    bool usable_ = false;
    std::atomic<std::uint64_t> since_{kNotReading};
  };

  // `memory`: bytes for rows; 0: none are kept.
  SharedRowCache(ForeignCommits const& foreign_commits, std::uint64_t memory);
  ~SharedRowCache();
  SharedRowCache(SharedRowCache const&) = delete;
  SharedRowCache& operator=(SharedRowCache const&) = delete;

  // ---- for the committer
  // May return false positives.
  bool Holds(ObjectId id) const;
  // Evicts a row before the commit that replaces or deletes it becomes visible. For a commit of
  // another process: before ForeignCommits::Notice returns true for `state` or a later one.
  void TakeOut(ObjectId id, CommitId state) noexcept;
  // A row to be cached; null: it is too large, or there is no memory.
  CachedRowPtr Prepare(ObjectId id, Layout const& layout, std::string_view image,
                       CommitId state) noexcept;
  // Caches the new version, after its commit and before the next one begins.
  void PutBack(CachedRowPtr row) noexcept;

 private:
  static constexpr std::size_t kWays = 8;
  static constexpr std::size_t kStripes = 1024;
  static constexpr std::uint64_t kAddress = (std::uint64_t{1} << 48) - 1;
  static constexpr std::size_t kFirstRetired = 64;
  static constexpr std::size_t kRegions = 256;  // of buckets
  static constexpr std::uint64_t kNotReading = ~std::uint64_t{0};

  // The address of a row and, in the upper 16 bits, a mark computed from its id; 0: free. Accessed
  // through std::atomic_ref, since buckets are pages of zeros from the system.
  using Slot = std::uint64_t;
  struct alignas(64) Bucket {
    Slot slots[kWays];
  };
  // Buckets with equal numbers modulo kStripes share a stripe, whose mutex guards their changes.
  struct Stripe {
    std::mutex mutex;
    CommitId newest{};  // the newest commit that evicted a row
  };

  static Slot SlotOf(CachedRow* row);
  static CachedRow* RowAt(Slot slot) {
    return reinterpret_cast<CachedRow*>(static_cast<std::uintptr_t>(slot & kAddress));
  }
  static Slot Mark(ObjectId id);
  // The way that holds the row, or kWays. REQUIRES: the stripe's lock.
  static std::size_t WayOf(Bucket& bucket, ObjectId id);

  CachedRow const* Find(ObjectId id, CommitId state) const;
  void FindMany(std::span<std::uint64_t const> ids, CommitId state, CachedRow const** out) const;
  // Whether a reader of `state` may use the row.
  bool IsCurrent(CachedRow const& row, CommitId state) const {
    return row.commit() <= state && row.known >= foreign_commits_.unlisted();
  }
  void PrefetchSlot(ObjectId id) const;
  void FetchRow(ObjectId id) const;
  std::size_t BucketCount() const { return std::size_t{1} << bucket_bits_; }
  std::size_t RegionSize() const { return (BucketCount() + kRegions - 1) / kRegions; }
  std::size_t BucketOf(ObjectId id) const;
  Stripe& StripeOf(std::size_t bucket) { return stripes_[bucket % kStripes]; }
  Bucket* Buckets() noexcept;
  void NoteUsed(Bucket const& bucket) noexcept;
  void FreeRegion(Bucket const* first) noexcept;
  // These require the stripe's lock.
  void Put(Bucket& bucket, CachedRowPtr row) noexcept;
  void Remove(Bucket& bucket, std::size_t way) noexcept;
  bool MakeRoom(Bucket& bucket, std::uint64_t size) noexcept;
  bool HasRoom(std::uint64_t size) const {
    std::uint64_t const wanted = placed_.load() + size;
    return wanted <= memory_ && RowBudget::Allows(wanted, size);
  }
  void Retire(CachedRow* row) noexcept;
  void Free(CachedRow* row) noexcept { CachedRowFree{&row_memory_}(row); }
  // REQUIRES: retired_mutex_ is held.
  void FreeRetired() noexcept;
  void FreeRetiredBefore(std::uint64_t oldest) noexcept;

  ForeignCommits const& foreign_commits_;
  std::uint64_t const memory_;
  RowBudget::Share const share_;
  CachedRowMemory row_memory_;
  std::size_t bucket_bits_ = 0;  // the logarithm of the number of buckets
  std::atomic<Bucket*> buckets_{nullptr};
  std::array<std::atomic<bool>, kRegions> used_{};  // regions that ever held a row
  std::atomic<std::size_t> rows_put_{0};
  std::mutex buckets_mutex_;
  std::array<Stripe, kStripes> stripes_;

  std::atomic<std::uint64_t> placed_{0};         // bytes
  std::atomic<std::uint64_t> retired_bytes_{0};  // not freed yet
  std::atomic<std::uint64_t> clock_{1};          // counts retired rows
  std::mutex retired_mutex_;
  CachedRow* retired_ = nullptr;      // a list, the last one first
  std::uint64_t oldest_retired_ = 0;  // the time when the oldest of them was retired
  std::size_t retired_count_ = 0;
  std::size_t enough_retired_ = kFirstRetired;
  std::vector<Reader*> readers_;
};

}  // namespace lscore

#endif

#include "shared_row_cache.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace lscore {
namespace {

constexpr std::uint64_t kUsualRow = 128;  // bytes; says how many slots there are for the memory
constexpr std::size_t kManyRows = 20000;
// The way to a larger row is short beside what there is to read, and its copy would drive out many.
constexpr std::uint64_t kLargestRow = 64 * 1024;
constexpr std::size_t kLine = CachedRowMemory::kLine;

// What stands behind the image of a row.
struct Left {
  std::uint64_t at = 0;
  CachedRow* before = nullptr;
};

// Images are as long as they are.
Left LeftOf(CachedRow const& row) {
  Left left;
  std::memcpy(&left, row.image() + row.size(), sizeof left);
  return left;
}
void SetLeft(CachedRow& row, Left const& left) {
  std::memcpy(reinterpret_cast<char*>(&row + 1) + row.size(), &left, sizeof left);
}

std::uint64_t AllocatedSize(std::uint64_t image) {
  return (sizeof(CachedRow) + image + sizeof(Left) + kLine - 1) / kLine * kLine;
}

std::uint64_t Get(std::uint64_t& slot) {
  return std::atomic_ref(slot).load(std::memory_order_seq_cst);
}
void Set(std::uint64_t& slot, std::uint64_t value) {
  std::atomic_ref(slot).store(value, std::memory_order_seq_cst);
}

}  // namespace

void CachedRowFree::operator()(CachedRow* row) const noexcept {
  memory->Give(row, AllocatedSize(row->size()));
}

// ---- readers -----------------------------------------------------------------------------------

SharedRowCache::Reader::Reader(SharedRowCache& table) : table_(table) {
  std::lock_guard const lock(table_.retired_mutex_);
  table_.readers_.push_back(this);
}

SharedRowCache::Reader::~Reader() {
  std::lock_guard const lock(table_.retired_mutex_);
  std::erase(table_.readers_, this);
}

// A row that leaves before the clock is read here cannot be found any more; one that leaves later
// is not freed while the time stands here.
void SharedRowCache::Reader::Begin(CommitId state, bool usable) {
  state_ = state;
  usable_ = usable;
  if (usable) since_.exchange(table_.clock_.load(std::memory_order_seq_cst));
}

void SharedRowCache::Reader::Keep(ObjectId id, Layout const& layout,
                                  std::string_view image) noexcept {
  if (!usable_ || table_.memory_ == 0) return;
  Bucket* const buckets = table_.Buckets();
  if (buckets == nullptr) return;
  std::size_t const number = table_.BucketOf(id);
  Stripe& stripe = table_.StripeOf(number);
  std::unique_lock const lock(stripe.mutex, std::try_to_lock);
  // What took a row of this stripe out since may have been a newer version of this one.
  if (!lock.owns_lock() || state_ < stripe.newest) return;
  CachedRowPtr row = table_.Prepare(id, layout, image, state_);
  if (row != nullptr) table_.Put(buckets[number], std::move(row));
}

CachedRow const* SharedRowCache::Find(ObjectId id, CommitId state) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return nullptr;
  Bucket& bucket = buckets[BucketOf(id)];
  Slot const mark = Mark(id);
  for (std::size_t i = 0; i < kWays; ++i) {
    Slot const slot = Get(bucket.slots[(Raw(id) + i) % kWays]);
    if ((slot & ~kAddress) != mark || slot == 0) continue;
    CachedRow const* const row = RowAt(slot);
    // Where the value lies is known only when the first line has come: that would be two waits.
    __builtin_prefetch(reinterpret_cast<char const*>(row) + kLine);
    if (row->id != id) continue;
    return row->commit() <= state && row->known >= foreign_commits_.unlisted() ? row : nullptr;
  }
  return nullptr;
}

void SharedRowCache::PrefetchSlot(ObjectId id) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets != nullptr) __builtin_prefetch(&buckets[BucketOf(id)]);
}

void SharedRowCache::FetchRow(ObjectId id) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return;
  Slot const slot = Get(buckets[BucketOf(id)].slots[Raw(id) % kWays]);
  if (slot == 0 || (slot & ~kAddress) != Mark(id)) return;
  __builtin_prefetch(RowAt(slot));
  __builtin_prefetch(reinterpret_cast<char const*>(RowAt(slot)) + kLine);
}

// ---- the table ---------------------------------------------------------------------------------
//
// The life of a row in the table, beside commits 7 and 8 that both write it:
//
//   commit 7 takes the old row out | batch 7 is committed | puts the row of 7 in
//   a reader of state 7 finds it; a reader of state 6 finds nothing and asks the store
//   commit 8 takes the row of 7 out, and notes when: it is freed once no reader of before is left
//   a reader of state 7 that has it keeps it; one that comes now asks the store
//
// A reader puts in what it read from the store only if no commit younger than its state took a row
// out of that stripe: what it has might be an old version by now.

SharedRowCache::SharedRowCache(ForeignCommits const& foreign_commits, std::uint64_t memory)
    : foreign_commits_(foreign_commits),
      memory_(memory),
      share_(memory),
      row_memory_(memory + memory / 4) {
  std::uint64_t const slots = std::max<std::uint64_t>(memory / kUsualRow, kWays);
  bucket_bits_ = static_cast<std::size_t>(std::bit_width(slots / kWays) - 1);
}

SharedRowCache::~SharedRowCache() {
  RowBudget::Give(placed_);
  Bucket* const buckets = buckets_.load();
  if (buckets != nullptr) {
    for (std::size_t region = 0; region < kRegions; ++region) {
      if (used_[region]) FreeRegion(buckets + region * RegionSize());
    }
    munmap(buckets, BucketCount() * sizeof(Bucket));
  }
  for (CachedRow* row = retired_; row != nullptr;) {
    Free(std::exchange(row, LeftOf(*row).before));
  }
}

void SharedRowCache::FreeRegion(Bucket const* first) noexcept {
  for (Bucket const* bucket = first; bucket < first + RegionSize(); ++bucket) {
    for (Slot const slot : bucket->slots) {
      if (slot != 0) Free(RowAt(slot));
    }
  }
}

SharedRowCache::Slot SharedRowCache::Mark(ObjectId id) {
  return (Raw(id) * 0x9E3779B97F4A7C15) & ~kAddress;
}

SharedRowCache::Slot SharedRowCache::SlotOf(CachedRow* row) {
  auto const address = static_cast<Slot>(reinterpret_cast<std::uintptr_t>(row));
  return address | Mark(row->id);
}

SharedRowCache::Bucket* SharedRowCache::Buckets() noexcept {
  Bucket* buckets = buckets_.load(std::memory_order_acquire);
  if (buckets != nullptr) return buckets;
  std::lock_guard const lock(buckets_mutex_);
  buckets = buckets_.load(std::memory_order_acquire);
  if (buckets != nullptr) return buckets;
  void* const zeros = mmap(nullptr, BucketCount() * sizeof(Bucket), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (zeros == MAP_FAILED) return nullptr;
  buckets = static_cast<Bucket*>(zeros);
  buckets_.store(buckets, std::memory_order_release);
  return buckets;
}

// Ids come in runs, of which each fills its buckets evenly; runs far apart are spread.
std::size_t SharedRowCache::BucketOf(ObjectId id) const {
  std::uint64_t const line = Raw(id) / kWays;
  std::uint64_t const run = line >> bucket_bits_;
  return static_cast<std::size_t>((line + run * 0x9E3779B97F4A7C15) & (BucketCount() - 1));
}

std::size_t SharedRowCache::WayOf(Bucket& bucket, ObjectId id) {
  std::size_t way = 0;
  while (way < kWays) {
    Slot const slot = bucket.slots[way];
    if (slot != 0 && RowAt(slot)->id == id) return way;
    ++way;
  }
  return way;
}

bool SharedRowCache::Holds(ObjectId id) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return false;
  Bucket& bucket = buckets[BucketOf(id)];
  return std::any_of(std::begin(bucket.slots), std::end(bucket.slots), [id](Slot& slot) {
    Slot const found = Get(slot);
    return found != 0 && (found & ~kAddress) == Mark(id);
  });
}

CachedRowPtr SharedRowCache::Prepare(ObjectId id, Layout const& layout, std::string_view image,
                                     CommitId known) noexcept {
  std::uint64_t const size = AllocatedSize(image.size());
  if (size > std::min(memory_, kLargestRow)) return nullptr;
  void* const memory = row_memory_.Take(size);
  // No machine of today gives out addresses that the slots cannot hold.
  if (memory == nullptr || (reinterpret_cast<std::uintptr_t>(memory) & ~kAddress) != 0) {
    if (memory != nullptr) row_memory_.Give(memory, size);
    return nullptr;
  }
  auto* const row = new (memory) CachedRow{id, &layout, known};
  char* const copy = reinterpret_cast<char*>(row + 1);
  std::memcpy(copy, image.data(), image.size());
  StoreAt(copy + format::kCrcOffset, static_cast<std::uint32_t>(image.size()));
  return CachedRowPtr(row, {&row_memory_});
}

void SharedRowCache::TakeOut(ObjectId id, CommitId state) noexcept {
  if (memory_ == 0) return;
  std::size_t const number = BucketOf(id);
  Stripe& stripe = StripeOf(number);
  std::lock_guard const lock(stripe.mutex);
  stripe.newest = std::max(stripe.newest, state);
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return;
  std::size_t const way = WayOf(buckets[number], id);
  if (way < kWays) Remove(buckets[number], way);
}

void SharedRowCache::PutBack(CachedRowPtr row) noexcept {
  std::size_t const number = BucketOf(row->id);
  Stripe& stripe = StripeOf(number);
  std::lock_guard const lock(stripe.mutex);
  if (row->known < stripe.newest) return;  // another process has committed meanwhile
  Put(buckets_.load(std::memory_order_acquire)[number], std::move(row));
}

void SharedRowCache::Put(Bucket& bucket, CachedRowPtr row) noexcept {
  std::size_t const there = WayOf(bucket, row->id);
  if (there < kWays) Remove(bucket, there);
  if (!MakeRoom(bucket, AllocatedSize(row->size()))) return;
  std::size_t way = Raw(row->id) % kWays;
  for (std::size_t i = 0; i < kWays && bucket.slots[way] != 0; ++i) way = (way + 1) % kWays;
  if (bucket.slots[way] != 0) Remove(bucket, way);
  placed_ += AllocatedSize(row->size());
  RowBudget::Take(AllocatedSize(row->size()));
  NoteUsed(bucket);
  Set(bucket.slots[way], SlotOf(row.get()));
  static_cast<void>(row.release());
}

// Large pages are a wish: everything works without them. For a few rows they would cost more than
// they bring.
void SharedRowCache::NoteUsed(Bucket const& bucket) noexcept {
  Bucket* const buckets = buckets_.load(std::memory_order_relaxed);
  auto const number = static_cast<std::size_t>(&bucket - buckets);
  used_[number / RegionSize()].store(true, std::memory_order_relaxed);
  if (rows_put_.fetch_add(1, std::memory_order_relaxed) + 1 != kManyRows) return;
  madvise(buckets, BucketCount() * sizeof(Bucket), MADV_HUGEPAGE);
  row_memory_.UseChunks();
}

bool SharedRowCache::MakeRoom(Bucket& bucket, std::uint64_t size) noexcept {
  if (retired_bytes_ > memory_ / 4) {
    std::lock_guard const lock(retired_mutex_);
    FreeRetired();
    if (retired_bytes_ > memory_ / 4) return false;
  }
  for (std::size_t way = 0; way < kWays && !HasRoom(size); ++way) {
    if (bucket.slots[way] != 0) Remove(bucket, way);
  }
  return HasRoom(size);
}

void SharedRowCache::Remove(Bucket& bucket, std::size_t way) noexcept {
  CachedRow* const row = RowAt(bucket.slots[way]);
  Set(bucket.slots[way], 0);
  placed_ -= AllocatedSize(row->size());
  RowBudget::Give(AllocatedSize(row->size()));
  Retire(row);
}

// ---- rows that left ----------------------------------------------------------------------------

void SharedRowCache::Retire(CachedRow* row) noexcept {
  std::lock_guard const lock(retired_mutex_);
  retired_bytes_ += AllocatedSize(row->size());
  std::uint64_t const now = clock_.fetch_add(1);
  if (retired_ == nullptr) first_left_ = now;
  SetLeft(*row, {now, std::exchange(retired_, row)});
  if (++retired_count_ >= enough_retired_) FreeRetired();
}

// Does not look at rows as long as a reader may have the first of them.
void SharedRowCache::FreeRetired() noexcept {
  std::uint64_t oldest = clock_.load();
  for (Reader const* const reader : readers_) oldest = std::min(oldest, reader->since_.load());
  if (first_left_ < oldest) FreeRetiredBefore(oldest);
  enough_retired_ = std::max(kFirstRetired, 2 * retired_count_);
}

void SharedRowCache::FreeRetiredBefore(std::uint64_t oldest) noexcept {
  CachedRow* row = std::exchange(retired_, nullptr);
  retired_count_ = 0;
  first_left_ = kNotReading;
  while (row != nullptr) {
    Left const left = LeftOf(*row);
    if (left.at < oldest) {
      retired_bytes_ -= AllocatedSize(row->size());
      Free(row);
    } else {
      SetLeft(*row, {left.at, std::exchange(retired_, row)});
      first_left_ = std::min(first_left_, left.at);
      ++retired_count_;
    }
    row = left.before;
  }
}

}  // namespace lscore

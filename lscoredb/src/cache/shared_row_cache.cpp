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
// Finding a larger row in the store takes little beside reading it, and a copy would evict many.
constexpr std::uint64_t kLargestRow = 64 * 1024;
constexpr std::size_t kLine = CachedRowMemory::kLine;

// Follows the image of a row in memory, and is set when the row is retired.
struct RetiredLink {
  std::uint64_t at = 0;  // the time by clock_
  CachedRow* next = nullptr;
};

// Copied, since the end of an image has no alignment.
RetiredLink LinkOf(CachedRow const& row) {
  RetiredLink link;
  std::memcpy(&link, row.image() + row.size(), sizeof link);
  return link;
}
void SetLink(CachedRow& row, RetiredLink const& link) {
  std::memcpy(reinterpret_cast<char*>(&row + 1) + row.size(), &link, sizeof link);
}

std::uint64_t AllocatedSize(std::uint64_t image) {
  return (sizeof(CachedRow) + image + sizeof(RetiredLink) + kLine - 1) / kLine * kLine;
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

// Epoch-based reclamation. A row that was retired before the clock is read here cannot be found any
// more; one that is retired later has a time not below since_ and is not freed until End.
void SharedRowCache::Reader::Begin(CommitId state, bool usable) {
  state_ = state;
  usable_ = usable;
  if (usable) since_.exchange(table_.clock_.load(std::memory_order_seq_cst));
}

// Tries the lock only: caching a row is optional, and a reader does not wait for a committer.
void SharedRowCache::Reader::Keep(ObjectId id, Layout const& layout,
                                  std::string_view image) noexcept {
  if (!usable_ || table_.memory_ == 0) return;
  Bucket* const buckets = table_.Buckets();
  if (buckets == nullptr) return;
  std::size_t const number = table_.BucketOf(id);
  Stripe& stripe = table_.StripeOf(number);
  std::unique_lock const lock(stripe.mutex, std::try_to_lock);
  // A younger commit evicted a row of this stripe, and it may have written a new version of this
  // one.
  if (!lock.owns_lock() || state_ < stripe.newest) return;
  CachedRowPtr row = table_.Prepare(id, layout, image, state_);
  if (row != nullptr) table_.Put(buckets[number], std::move(row));
}

// Begins with the slot where Put prefers to store the id. A mark can match another row's, so the id
// in the row decides. The row is of no use to a reader of an older state, nor when another process
// has committed changes since that this one could not list.
CachedRow const* SharedRowCache::Find(ObjectId id, CommitId state) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return nullptr;
  Bucket& bucket = buckets[BucketOf(id)];
  Slot const mark = Mark(id);
  for (std::size_t i = 0; i < kWays; ++i) {
    Slot const slot = Get(bucket.slots[(Raw(id) + i) % kWays]);
    if ((slot & ~kAddress) != mark || slot == 0) continue;
    CachedRow const* const row = RowAt(slot);
    // The second line too: the offset of the value is known only after the first line has arrived,
    // and fetching it then would be a second wait.
    __builtin_prefetch(reinterpret_cast<char const*>(row) + kLine);
    if (row->id != id) continue;
    return IsCurrent(*row, state) ? row : nullptr;
  }
  return nullptr;
}

// A random row costs two waits, for its bucket and for itself. Here all buckets of a group are
// asked for before the first is read, and then all rows.
void SharedRowCache::FindMany(std::span<std::uint64_t const> ids, CommitId state,
                              CachedRow const** out) const {
  constexpr std::size_t kGroup = 32;
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  std::array<Bucket*, kGroup> places;
  for (std::size_t from = 0; buckets != nullptr && from < ids.size(); from += kGroup) {
    auto const group = ids.subspan(from, std::min(kGroup, ids.size() - from));
    for (std::size_t i = 0; i < group.size(); ++i) {
      places[i] = &buckets[BucketOf(ObjectId{group[i]})];
      __builtin_prefetch(places[i]);
    }
    for (std::size_t i = 0; i < group.size(); ++i) {
      Slot const slot = Get(places[i]->slots[group[i] % kWays]);
      bool const likely = slot != 0 && (slot & ~kAddress) == Mark(ObjectId{group[i]});
      out[from + i] = likely ? RowAt(slot) : nullptr;
      if (!likely) continue;
      __builtin_prefetch(out[from + i]);
      __builtin_prefetch(reinterpret_cast<char const*>(out[from + i]) + kLine);
    }
    for (std::size_t i = 0; i < group.size(); ++i) {
      CachedRow const* const row = out[from + i];
      bool const found = row != nullptr && row->id == ObjectId{group[i]} && IsCurrent(*row, state);
      if (!found) out[from + i] = Find(ObjectId{group[i]}, state);
    }
  }
  if (buckets == nullptr) std::fill_n(out, ids.size(), nullptr);
}

void SharedRowCache::Reader::FindMany(std::span<std::uint64_t const> ids,
                                      CachedRow const** out) const {
  if (usable_) return table_.FindMany(ids, state_, out);
  std::fill_n(out, ids.size(), nullptr);
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
// The versions of a row in the table while commits 7 and 8 write it:
//
//   commit 7 evicts the old version | batch 7 is committed | version 7 is cached
//   a reader of state 7 uses it; a reader of state 6 may not, and reads the store
//   commit 8 evicts version 7, which is retired at the current time of the clock
//   a reader of state 7 that has found it may go on using it; any other reads the store
//   the last reader that began before that time ends: version 7 can be freed
//
// A reader caches what it read from the store only if no commit younger than its state has evicted
// a row of that stripe: its version may be old by now.

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
    Free(std::exchange(row, LinkOf(*row).next));
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

// Reserves address space for all buckets on first use; pages are allocated when they are touched.
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

// Ids are mostly consecutive. Eight neighbours share a bucket and the next eight take the next one,
// so a run of ids fills the table evenly. The factor spreads runs that are a table's size apart.
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
  // Slots hold 48 bits of address, which is all that a process gets by default.
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

// Raises the stripe's newest commit even if the row is not cached: a reader of an older state may
// be about to cache it.
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

// Takes the slot of its id modulo 8 or, if that is taken, the next free one. When all are taken,
// the row in its own slot is evicted.
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

// Counts rows and asks for huge pages once there are many: for few rows they cost more than they
// gain. Notes the region of the bucket, so that the destructor touches only those with rows.
void SharedRowCache::NoteUsed(Bucket const& bucket) noexcept {
  Bucket* const buckets = buckets_.load(std::memory_order_relaxed);
  auto const number = static_cast<std::size_t>(&bucket - buckets);
  used_[number / RegionSize()].store(true, std::memory_order_relaxed);
  if (rows_put_.fetch_add(1, std::memory_order_relaxed) + 1 != kManyRows) return;
  madvise(buckets, BucketCount() * sizeof(Bucket), MADV_HUGEPAGE);
  row_memory_.UseChunks();
}

// Evicts rows of the same bucket until there is room. There is no global order of use: a reader
// that kept one would write to shared memory at each read.
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

// ---- retired rows ------------------------------------------------------------------------------

void SharedRowCache::Retire(CachedRow* row) noexcept {
  std::lock_guard const lock(retired_mutex_);
  retired_bytes_ += AllocatedSize(row->size());
  std::uint64_t const now = clock_.fetch_add(1);
  if (retired_ == nullptr) oldest_retired_ = now;
  SetLink(*row, {now, std::exchange(retired_, row)});
  if (++retired_count_ >= enough_retired_) FreeRetired();
}

// Frees the rows that were retired before the oldest reader began. The list is not even scanned
// while that reader may use its oldest row. The next attempt comes when the list has doubled, so
// the cost for each row is constant.
void SharedRowCache::FreeRetired() noexcept {
  std::uint64_t oldest = clock_.load();
  for (Reader const* const reader : readers_) oldest = std::min(oldest, reader->since_.load());
  if (oldest_retired_ < oldest) FreeRetiredBefore(oldest);
  enough_retired_ = std::max(kFirstRetired, 2 * retired_count_);
}

void SharedRowCache::FreeRetiredBefore(std::uint64_t oldest) noexcept {
  CachedRow* row = std::exchange(retired_, nullptr);
  retired_count_ = 0;
  oldest_retired_ = kNotReading;
  while (row != nullptr) {
    RetiredLink const link = LinkOf(*row);
    if (link.at < oldest) {
      retired_bytes_ -= AllocatedSize(row->size());
      Free(row);
    } else {
      SetLink(*row, {link.at, std::exchange(retired_, row)});
      oldest_retired_ = std::min(oldest_retired_, link.at);
      ++retired_count_;
    }
    row = link.next;
  }
}

}  // namespace lscore

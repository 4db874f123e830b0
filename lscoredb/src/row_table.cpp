#include "row_table.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "row.h"

namespace lscore {
namespace {

constexpr std::uint64_t kUsualRow = 128;  // bytes; says how many places there are for the memory

template <typename Word>
Word Get(Word& word) {
  return std::atomic_ref(word).load(std::memory_order_seq_cst);
}
template <typename Word>
void Set(Word& word, Word value) {
  std::atomic_ref(word).store(value, std::memory_order_seq_cst);
}

}  // namespace

void KeptRowFree::operator()(KeptRow* row) const noexcept { std::free(row); }

// ---- readers -----------------------------------------------------------------------------------

RowTable::Reader::Reader(RowTable& table) : table_(table) {
  std::lock_guard const lock(table_.retired_mutex_);
  table_.readers_.push_back(this);
}

RowTable::Reader::~Reader() {
  std::lock_guard const lock(table_.retired_mutex_);
  std::erase(table_.readers_, this);
}

// A row that leaves before the clock is read here cannot be found any more; one that leaves later
// is not freed while the time stands here.
void RowTable::Reader::Begin(CommitId state, bool usable) {
  state_ = state;
  usable_ = usable;
  if (usable) since_.exchange(table_.clock_.load(std::memory_order_seq_cst));
}

void RowTable::Reader::Keep(ObjectId id, Layout const& layout, std::string_view image) noexcept {
  if (!usable_ || table_.memory_ == 0) return;
  Bucket* const buckets = table_.Buckets();
  if (buckets == nullptr) return;
  std::size_t const number = table_.BucketOf(id);
  Stripe& stripe = table_.StripeOf(number);
  std::unique_lock const lock(stripe.mutex, std::try_to_lock);
  // What took a row of this stripe out since may have been a newer version of this one.
  if (!lock.owns_lock() || state_ < stripe.newest) return;
  KeptRowPtr row = table_.Prepare(id, layout, image, state_);
  if (row != nullptr) table_.Place(buckets[number], std::move(row));
}

KeptRow const* RowTable::Find(ObjectId id, CommitId state) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return nullptr;
  Bucket& bucket = buckets[BucketOf(id)];
  for (std::size_t way = 0; way < kWays; ++way) {
    if (Get(bucket.ids[way]) != Raw(id)) continue;
    KeptRow const* const row = Get(bucket.rows[way]);
    if (row == nullptr || row->id != id) continue;
    return row->commit <= state && row->known >= watch_.foreign() ? row : nullptr;
  }
  return nullptr;
}

// ---- the table ---------------------------------------------------------------------------------

RowTable::RowTable(StateWatch const& watch, std::uint64_t memory) : watch_(watch), memory_(memory) {
  std::uint64_t const places = std::max<std::uint64_t>(memory / kUsualRow, kWays);
  bucket_count_ = static_cast<std::size_t>(std::bit_ceil(places / kWays));
}

RowTable::~RowTable() {
  Bucket* const buckets = buckets_.load();
  if (buckets != nullptr) {
    for (std::size_t i = 0; i < bucket_count_; ++i) {
      for (KeptRow* const row : buckets[i].rows) KeptRowFree()(row);
    }
    munmap(buckets, bucket_count_ * sizeof(Bucket));
  }
  for (KeptRow* row = retired_; row != nullptr;)
    KeptRowFree()(std::exchange(row, row->left_before));
}

RowTable::Bucket* RowTable::Buckets() noexcept {
  Bucket* buckets = buckets_.load(std::memory_order_acquire);
  if (buckets != nullptr) return buckets;
  std::lock_guard const lock(buckets_mutex_);
  buckets = buckets_.load(std::memory_order_acquire);
  if (buckets != nullptr) return buckets;
  void* const zeros = mmap(nullptr, bucket_count_ * sizeof(Bucket), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (zeros == MAP_FAILED) return nullptr;
  buckets = static_cast<Bucket*>(zeros);
  buckets_.store(buckets, std::memory_order_release);
  return buckets;
}

// Ids come in runs, of which each fills its buckets evenly; runs far apart are spread.
std::size_t RowTable::BucketOf(ObjectId id) const {
  std::uint64_t const line = Raw(id) / kWays;
  std::uint64_t const run = line / bucket_count_;
  return static_cast<std::size_t>((line + run * 0x9E3779B97F4A7C15) & (bucket_count_ - 1));
}

bool RowTable::Holds(ObjectId id) const {
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return false;
  Bucket& bucket = buckets[BucketOf(id)];
  return std::any_of(std::begin(bucket.ids), std::end(bucket.ids),
                     [id](std::uint64_t& place) { return Get(place) == Raw(id); });
}

KeptRowPtr RowTable::Prepare(ObjectId id, Layout const& layout, std::string_view image,
                             CommitId known) noexcept {
  std::uint64_t const size = sizeof(KeptRow) + image.size();
  if (size > memory_) return nullptr;
  void* const memory = std::malloc(size);
  if (memory == nullptr) return nullptr;
  CommitId const commit = RowImage(image.data()).commit();
  KeptRowPtr row(new (memory) KeptRow{id, &layout, commit, known, size});
  std::memcpy(row.get() + 1, image.data(), image.size());
  return row;
}

void RowTable::TakeOut(ObjectId id, CommitId state) noexcept {
  if (memory_ == 0) return;
  std::size_t const number = BucketOf(id);
  Stripe& stripe = StripeOf(number);
  std::lock_guard const lock(stripe.mutex);
  stripe.newest = std::max(stripe.newest, state);
  Bucket* const buckets = buckets_.load(std::memory_order_acquire);
  if (buckets == nullptr) return;
  Bucket& bucket = buckets[number];
  for (std::size_t way = 0; way < kWays; ++way) {
    if (bucket.ids[way] == Raw(id)) Remove(bucket, way);
  }
}

void RowTable::PutBack(KeptRowPtr row) noexcept {
  std::size_t const number = BucketOf(row->id);
  std::lock_guard const lock(StripeOf(number).mutex);
  Place(buckets_.load(std::memory_order_acquire)[number], std::move(row));
}

void RowTable::Place(Bucket& bucket, KeptRowPtr row) noexcept {
  std::size_t way = 0;
  while (way < kWays && bucket.ids[way] != Raw(row->id)) ++way;
  if (way < kWays) Remove(bucket, way);
  if (!MakeRoom(bucket, row->size)) return;
  way = 0;
  while (way < kWays && bucket.rows[way] != nullptr) ++way;
  if (way == kWays) {
    way = clock_.load(std::memory_order_relaxed) % kWays;
    Remove(bucket, way);
  }
  placed_ += row->size;
  Set(bucket.ids[way], Raw(row->id));
  Set(bucket.rows[way], row.release());
}

bool RowTable::MakeRoom(Bucket& bucket, std::uint64_t size) noexcept {
  if (retired_bytes_ > memory_ / 4) {
    std::lock_guard const lock(retired_mutex_);
    FreeRetired();
    if (retired_bytes_ > memory_ / 4) return false;
  }
  for (std::size_t way = 0; way < kWays && !HasRoom(size); ++way) {
    if (bucket.rows[way] != nullptr) Remove(bucket, way);
  }
  return HasRoom(size);
}

void RowTable::Remove(Bucket& bucket, std::size_t way) noexcept {
  KeptRow* const row = bucket.rows[way];
  Set(bucket.rows[way], static_cast<KeptRow*>(nullptr));
  Set(bucket.ids[way], std::uint64_t{0});
  if (row == nullptr) return;
  placed_ -= row->size;
  Retire(row);
}

// ---- rows that left ----------------------------------------------------------------------------

void RowTable::Retire(KeptRow* row) noexcept {
  std::lock_guard const lock(retired_mutex_);
  retired_bytes_ += row->size;
  row->left_at = clock_.fetch_add(1);
  row->left_before = std::exchange(retired_, row);
  if (++retired_count_ >= enough_retired_) FreeRetired();
}

void RowTable::FreeRetired() noexcept {
  std::uint64_t oldest = clock_.load();
  for (Reader const* const reader : readers_) oldest = std::min(oldest, reader->since_.load());
  KeptRow* row = std::exchange(retired_, nullptr);
  retired_count_ = 0;
  while (row != nullptr) {
    KeptRow* const next = row->left_before;
    if (row->left_at < oldest) {
      retired_bytes_ -= row->size;
      KeptRowFree()(row);
    } else {
      row->left_before = std::exchange(retired_, row);
      ++retired_count_;
    }
    row = next;
  }
  enough_retired_ = std::max(kFirstRetired, 2 * retired_count_);
}

}  // namespace lscore

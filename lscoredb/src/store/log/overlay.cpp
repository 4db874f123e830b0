#include "overlay.h"

#include <algorithm>
#include <functional>
#include <new>

#include "bytes.h"

namespace lscore {
namespace {

// The first eight bytes; zeros stand for those that are missing.
std::uint64_t BigPrefix(std::string_view bytes) {
  if (bytes.size() >= 8) return LoadBig<std::uint64_t>(bytes.data());
  char padded[8] = {};
  std::copy(bytes.begin(), bytes.end(), padded);
  return LoadBig<std::uint64_t>(padded);
}

std::uint64_t PrefixOf(Tree tree, std::string_view bytes) {
  return tree == Tree::kRows ? Load<std::uint64_t>(bytes.data()) : BigPrefix(bytes);
}

std::uint64_t SecondOf(Tree tree, std::string_view bytes) {
  return tree == Tree::kRows || bytes.size() <= 8 ? 0 : BigPrefix(bytes.substr(8));
}

}  // namespace

// Rows are keyed by a number in the byte order of the machine, so the prefix is that number itself:
// it alone gives the order, and equal numbers have equal bytes. Other keys are in byte order.
OrderedKey::OrderedKey(Tree its_tree, std::string_view its_bytes)
    : tree(its_tree),
      prefix(PrefixOf(its_tree, its_bytes)),
      second(SecondOf(its_tree, its_bytes)),
      bytes(its_bytes) {}

Overlay::Overlay() {
  static constexpr std::uint64_t kZero = 0;
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    Tree const tree{static_cast<std::uint8_t>(i)};
    heads_[i] =
        NewNode({tree, tree == Tree::kRows ? BytesOf(kZero) : std::string_view()}, kMaxHeight);
    predecessors_[i].fill(heads_[i]);
  }
  tables_.push_back(std::make_unique<Table>(kFirstSlots));
  table_ = tables_.back().get();
}

// ---- nodes -------------------------------------------------------------------------------------

OverlayNode* Overlay::NewNode(OrderedKey const& key, int height) {
  std::size_t const extra = static_cast<std::size_t>(height - 1) * sizeof(OverlayNode::next_[0]);
  std::size_t const size = sizeof(OverlayNode) + extra;
  auto* const node = new (arena_.Allocate(size)) OverlayNode(key, height);
  for (int level = 0; level < height; ++level) {
    new (&node->next_[level]) std::atomic<OverlayNode*>(nullptr);
  }
  Count(size);
  return node;
}

// Each further level has a quarter of the nodes of the one below it. xorshift, with a fixed seed.
int Overlay::RandomHeight() {
  random_ ^= random_ << 13;
  random_ ^= random_ >> 7;
  random_ ^= random_ << 17;
  int height = 1;
  for (std::uint64_t bits = random_; height < kMaxHeight && (bits & 3) == 0; bits >>= 2) ++height;
  return height;
}

// Finds the last node below the key on each level. A finger search: starts where the last insert
// was, climbs while the key lies beyond the gap on that level, then descends. Commits insert keys
// in order, so most searches stay on the lowest levels. A key before the last one starts at the
// top.
void Overlay::FindPredecessors(OrderedKey const& key) {
  auto const tree = static_cast<std::size_t>(key.tree);
  std::array<OverlayNode*, kMaxHeight>& before = predecessors_[tree];
  int level = 0;
  OverlayNode* at = before[0];
  if (at != heads_[tree] && !(at->key() < key)) {
    level = kMaxHeight - 1;
    at = heads_[tree];
  } else {
    auto const beyond = [&](int there) {
      OverlayNode const* const next = before[static_cast<std::size_t>(there)]->NextAt(there);
      return next != nullptr && next->key() < key;
    };
    while (level < kMaxHeight - 1 && beyond(level)) ++level;
    at = before[static_cast<std::size_t>(level)];
  }
  for (; level >= 0; --level) {
    for (OverlayNode* next = at->NextAt(level); next != nullptr && next->key() < key;
         next = at->NextAt(level)) {
      at = next;
    }
    before[static_cast<std::size_t>(level)] = at;
  }
}

// Whether the key lies in the gap behind the last node inserted, and thus has no node.
bool Overlay::FollowsLast(OrderedKey const& key) const {
  auto const tree = static_cast<std::size_t>(key.tree);
  OverlayNode const* const last = predecessors_[tree][0];
  if (last != heads_[tree] && !(last->key() < key)) return false;
  OverlayNode const* const next = last->Next();
  return next == nullptr || key < next->key();
}

// Keys that come in order are mostly new, and the hash table, which is nowhere in the processor's
// cache, is not searched for them.
OverlayNode* Overlay::FindOrInsert(OrderedKey const& key) {
  if (!IsHashed(key.tree)) {
    FindPredecessors(key);
    OverlayNode* const next = predecessors_[static_cast<std::size_t>(key.tree)][0]->NextAt(0);
    return next != nullptr && next->key() == key ? next : Insert(key);
  }
  std::uint32_t const hash = HashOf(key);
  __builtin_prefetch(&tables_.back()->slot[hash & tables_.back()->mask], 1);
  if (!FollowsLast(key)) {
    if (OverlayNode* const there = FindNode(key, hash)) return there;
    FindPredecessors(key);
  }
  OverlayNode* const node = Insert(key);
  node->hash_ = hash;
  if (2 * (hashed_ + 1) > tables_.back()->mask) Grow();
  Link(*tables_.back(), node);
  ++hashed_;
  return node;
}

// Inserts the key behind its predecessors. Links bottom up with release stores: a reader that finds
// the node on any level finds it complete and on all levels below.
OverlayNode* Overlay::Insert(OrderedKey const& key) {
  int const height = RandomHeight();
  OverlayNode* const node = NewNode(key, height);
  auto& predecessors = predecessors_[static_cast<std::size_t>(key.tree)];
  for (int level = 0; level < height; ++level) {
    OverlayNode*& before = predecessors[static_cast<std::size_t>(level)];
    node->next_[level].store(before->NextAt(level), std::memory_order_relaxed);
    before->next_[level].store(node, std::memory_order_release);
    before = node;
  }
  nodes_.fetch_add(1, std::memory_order_relaxed);
  if (key.tree == Tree::kIndex) CountEntry();
  return node;
}

// ---- the sparse index --------------------------------------------------------------------------

void Overlay::CountEntry() {
  if (++entries_ < next_sampling_) return;
  auto samples = std::make_unique<SparseIndex>();
  samples->reserve(entries_ / 3);
  OverlayNode const* node = &HeadOf(Tree::kIndex);
  while ((node = node->NextAt(kSampledHeight - 1)) != nullptr) {
    samples->push_back({node->key().prefix, node->key().second, node});
  }
  Count(samples->capacity() * sizeof(Sample));
  sparse_indexes_.push_back(std::move(samples));
  sparse_index_.store(sparse_indexes_.back().get(), std::memory_order_release);
  next_sampling_ = 2 * entries_;
}

// The last node of the sparse index that is below the key; the list's head if none is.
OverlayNode const* Overlay::SampleBelow(OrderedKey const& key) const {
  OverlayNode const* const head = &HeadOf(key.tree);
  SparseIndex const* const samples = sparse_index_.load(std::memory_order_acquire);
  if (samples == nullptr || key.tree != Tree::kIndex) return head;
  auto const is_below = [](Sample const& sample, OrderedKey const& wanted) {
    if (sample.prefix != wanted.prefix) return sample.prefix < wanted.prefix;
    if (sample.second != wanted.second) return sample.second < wanted.second;
    return sample.node->key().bytes < wanted.bytes;
  };
  auto const not_below = std::lower_bound(samples->begin(), samples->end(), key, is_below);
  return not_below == samples->begin() ? head : std::prev(not_below)->node;
}

// ---- the hash table ----------------------------------------------------------------------------

std::uint32_t Overlay::HashOf(OrderedKey const& key) {
  constexpr std::size_t kMix = 0x9E3779B97F4A7C15;
  std::size_t const hash =
      key.tree == Tree::kRows ? key.prefix * kMix : std::hash<std::string_view>()(key.bytes);
  std::size_t const mixed = (hash + static_cast<std::size_t>(key.tree)) * kMix;
  return static_cast<std::uint32_t>(mixed ^ (mixed >> 32));
}

void Overlay::Link(Table& table, OverlayNode* node) {
  std::size_t at = node->hash_ & table.mask;
  while (table.slot[at].load(std::memory_order_relaxed) != nullptr) at = (at + 1) & table.mask;
  table.slot[at].store(node, std::memory_order_release);
}

// A reader of the old table misses only nodes that are inserted from now on, which belong to
// commits after its state. Old tables are kept until the overlay is destroyed.
void Overlay::Grow() {
  Table const& old = *tables_.back();
  auto grown = std::make_unique<Table>(4 * (old.mask + 1));
  for (std::size_t i = 0; i <= old.mask; ++i) {
    OverlayNode* const node = old.slot[i].load(std::memory_order_relaxed);
    if (node != nullptr) Link(*grown, node);
  }
  Count((grown->mask + 1) * sizeof(grown->slot[0]));
  table_.store(grown.get(), std::memory_order_release);
  tables_.push_back(std::move(grown));
}

OverlayNode* Overlay::FindNode(OrderedKey const& key, std::uint32_t hash) const {
  Table const& table = *table_.load(std::memory_order_acquire);
  for (std::size_t at = hash & table.mask;; at = (at + 1) & table.mask) {
    OverlayNode* const node = table.slot[at].load(std::memory_order_acquire);
    if (node == nullptr || (node->hash_ == hash && node->key() == key)) return node;
  }
}

// ---- writing -----------------------------------------------------------------------------------

// A second write in the same commit changes the version in place: nobody reads it yet.
void Overlay::Write(OrderedKey const& key, std::string_view value, bool deleted, CommitId commit) {
  if (key.tree == Tree::kIndex && !deleted) deleted_runs_.Break(key.bytes, commit);
  OverlayNode* const node = FindOrInsert(key);
  OverlayVersion* const newest = node->newest_.load(std::memory_order_relaxed);
  if (newest != nullptr && newest->commit == commit) {
    newest->value = value;
    newest->deleted = deleted;
    return;
  }
  changed_.push_back(node);
  auto* const version =
      new (arena_.Allocate(sizeof(OverlayVersion))) OverlayVersion{newest, commit, value, deleted};
  Count(sizeof(OverlayVersion));
  node->newest_.store(version, std::memory_order_release);
}

// Unlinks the newest versions. Their nodes stay, without a version for any reader.
void Overlay::RollBack(CommitId commit) {
  for (OverlayNode* const node : changed_) {
    OverlayVersion* const newest = node->newest_.load(std::memory_order_relaxed);
    if (newest == nullptr || newest->commit != commit) continue;
    node->newest_.store(newest->older, std::memory_order_release);
  }
  changed_.clear();
}

char* Overlay::TakeBytes(std::size_t size) {
  if (size > free_size_) {
    std::size_t const taken = std::max(size, next_size_);
    std::unique_ptr<char[]> bytes(new char[taken]);
    char* const at = bytes.get();
    Keep(std::move(bytes), taken);
    free_bytes_ = at;
    free_size_ = taken;
    next_size_ = std::min(2 * next_size_, kMostBytes);
  }
  char* const at = free_bytes_;
  free_bytes_ += size;
  free_size_ -= size;
  return at;
}

void Overlay::Keep(std::unique_ptr<char[]> bytes, std::size_t size) {
  kept_.push_back(std::move(bytes));
  Count(size);
}

// ---- reading -----------------------------------------------------------------------------------

OverlayNode const* Overlay::Lookup(OrderedKey const& key) const {
  if (IsHashed(key.tree)) return FindNode(key, HashOf(key));
  OverlayNode const* const node = NotBelow(key);
  return node != nullptr && node->key() == key ? node : nullptr;
}

OverlayVersion const* Overlay::Find(OrderedKey const& key, CommitId state) const {
  OverlayNode const* const node = Lookup(key);
  return node == nullptr ? nullptr : node->VersionAt(state);
}

// From the sample on it takes the tallest steps that there are, which soon become tall where many
// nodes came since; then it descends. While a node is compared, the next one on the level below is
// fetched.
OverlayNode const* Overlay::Below(OrderedKey const& key) const {
  OverlayNode const* at = SampleBelow(key);
  int level = at->top();
  auto const next_below = [&]() -> OverlayNode const* {
    if (level > 0) __builtin_prefetch(at->NextAt(level - 1));
    OverlayNode const* const next = at->NextAt(level);
    return next != nullptr && next->key() < key ? next : nullptr;
  };
  while (OverlayNode const* const next = next_below()) {
    at = next;
    level = at->top();
  }
  while (level-- > 0) {
    while (OverlayNode const* const next = next_below()) at = next;
  }
  return at == &HeadOf(key.tree) ? nullptr : at;
}

OverlayNode const* Overlay::NotBelow(OrderedKey const& key) const {
  OverlayNode const* const below = Below(key);
  return below == nullptr ? First(key.tree) : below->Next();
}

OverlayNode const* Overlay::Last(Tree tree) const {
  OverlayNode const* const head = &HeadOf(tree);
  OverlayNode const* at = head;
  for (int level = kMaxHeight - 1; level >= 0; --level) {
    while (OverlayNode const* const next = at->NextAt(level)) at = next;
  }
  return at == head ? nullptr : at;
}

}  // namespace lscore

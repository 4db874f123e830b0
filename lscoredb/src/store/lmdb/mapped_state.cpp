#include "mapped_state.h"

#include <algorithm>

#include "bytes.h"
#include "status.h"

namespace lscore {
namespace {

using namespace pages;

[[noreturn, gnu::cold]] void ThrowDamaged() { Throw(LSCOREDB_DAMAGED); }

constexpr std::size_t kLine = 64;  // of the processor's cache

// ---- pages and nodes ---------------------------------------------------------------------------

// The page with that number, which must be of that kind. Writes its number of nodes.
char const* PageAt(char const* map, std::size_t page_size, std::uint64_t pages,
                   std::uint64_t number, std::uint16_t kind, std::size_t* count) {
  if (number < kHeaderPages || number >= pages) [[unlikely]]
    ThrowDamaged();
  char const* const page = map + number * page_size;
  std::size_t const end = Load<std::uint16_t>(page + kSlotsEndOffset);
  bool const holds = Load<std::uint64_t>(page) == number &&
                     Load<std::uint16_t>(page + kKindOffset) == kind && end >= kPageHead + 2 &&
                     end <= page_size;
  if (!holds) [[unlikely]]
    ThrowDamaged();
  *count = (end - kPageHead) / 2;
  return page;
}

// A node; checks that its head lies inside the page. REQUIRES: the page has more than `i` nodes.
[[gnu::always_inline]] inline char const* NodeAt(char const* page, std::size_t page_size,
                                                 std::size_t i) {
  std::size_t const offset = Load<std::uint16_t>(page + kPageHead + 2 * i);
  if (offset + kNodeHead > page_size) [[unlikely]]
    ThrowDamaged();
  return page + offset;
}

// The key of a node; checks that it lies inside the page.
[[gnu::always_inline]] inline std::string_view KeyOf(char const* page, std::size_t page_size,
                                                     char const* node) {
  std::size_t const size = Load<std::uint16_t>(node + 6);
  if (size > page_size - kNodeHead - static_cast<std::size_t>(node - page)) [[unlikely]] {
    ThrowDamaged();
  }
  return {node + kNodeHead, size};
}

[[gnu::always_inline]] inline std::string_view KeyAt(char const* page, std::size_t page_size,
                                                     std::size_t i) {
  return KeyOf(page, page_size, NodeAt(page, page_size, i));
}

std::uint64_t ChildAt(char const* page, std::size_t page_size, std::size_t i) {
  char const* const node = NodeAt(page, page_size, i);
  return Load<std::uint32_t>(node) | std::uint64_t{Load<std::uint16_t>(node + 4)} << 32;
}

// ---- orders of keys ----------------------------------------------------------------------------

struct ByteKeys {
  using Key = std::string_view;
  static Key Of(std::string_view key) { return key; }
  // By hand, eight bytes at a time: a scan does this for each entry. Behind bytes that are equal
  // the last eight of the shorter key may be compared with those already seen.
  static bool IsBelow(Key a, Key b) {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    std::size_t const both = std::min(a.size(), b.size());
    if (both < kWord) return a < b;
    for (std::size_t at = 0;; at = std::min(at + kWord, both - kWord)) {
      auto const left = LoadBig<std::uint64_t>(a.data() + at);
      auto const right = LoadBig<std::uint64_t>(b.data() + at);
      if (left != right) return left < right;
      if (at == both - kWord) return a.size() < b.size();
    }
  }
};

struct IntegerKeys {
  using Key = std::uint64_t;
  static Key Of(std::string_view key) {
    if (key.size() != sizeof(std::uint64_t)) [[unlikely]]
      ThrowDamaged();
    return Load<std::uint64_t>(key.data());
  }
  static bool IsBelow(Key a, Key b) { return a < b; }
};

// Runs `work` with the order that the tree's record names.
template <typename Work>
auto WithKeys(TreeRecord const& record, Work&& work) {
  return record.key_kind == kIntegerKeys ? work(IntegerKeys{}) : work(ByteKeys{});
}

// The first node in [low, high) whose key is not below `key`, or with `or_equal` above it; `high`
// if there is none.
template <typename Keys>
std::size_t FirstNode(char const* page, std::size_t page_size, std::size_t low, std::size_t high,
                      typename Keys::Key key, bool or_equal) {
  while (low < high) {
    std::size_t const middle = (low + high) / 2;
    typename Keys::Key const there = Keys::Of(KeyAt(page, page_size, middle));
    if (there < key || (or_equal && there == key)) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// `first`: the first node that has a key.
template <typename Keys>
void CheckOrder(char const* page, std::size_t page_size, std::size_t first, std::size_t count) {
  if (first >= count) return;
  typename Keys::Key before = Keys::Of(KeyAt(page, page_size, first));
  for (std::size_t i = first + 1; i < count; ++i) {
    typename Keys::Key const key = Keys::Of(KeyAt(page, page_size, i));
    if (!Keys::IsBelow(before, key)) ThrowDamaged();
    before = key;
  }
}

// The node of a branch to follow for the key. The first has everything below the second one's key.
template <typename Keys>
std::size_t NodeFor(char const* page, std::size_t page_size, std::size_t count,
                    typename Keys::Key key) {
  return FirstNode<Keys>(page, page_size, 1, count, key, true) - 1;
}

}  // namespace

// ---- the state ---------------------------------------------------------------------------------

void MappedState::CopyHeader(char const* map, std::size_t page_size, std::uint64_t state) {
  char const* const head = map + state % 2 * page_size + kPageHead;
  map_ = map;
  page_size_ = page_size;
  names_ = ReadTree(head + 72);
  last_page_ = Load<std::uint64_t>(head + 120);
  state_ = Load<std::uint64_t>(head + 128);
}

// The five names fit on one leaf, the root of the tree of trees.
bool MappedState::OpenTrees(std::uint64_t file_pages) {
  pages_ = std::min(last_page_ + 1, file_pages);
  trees_ = {};
  if (names_.root == kNoPage) return false;
  if (names_.depth != 1) ThrowDamaged();
  std::size_t count = 0;
  std::size_t found = 0;
  char const* const page = PageAt(map_, page_size_, pages_, names_.root, kLeaf, &count);
  for (std::size_t i = 0; i < count; ++i) {
    char const* const node = NodeAt(page, page_size_, i);
    std::string_view const name = KeyOf(page, page_size_, node);
    auto const known = std::find(kTreeNames.begin(), kTreeNames.end(), name);
    if (known == kTreeNames.end()) continue;
    char const* const value = name.data() + name.size();
    bool const is_tree = Load<std::uint16_t>(node + 4) == kValueIsTree &&
                         Load<std::uint32_t>(node) == kTreeSize &&
                         value + kTreeSize <= page + page_size_;
    if (!is_tree) ThrowDamaged();
    auto const tree = static_cast<std::size_t>(known - kTreeNames.begin());
    trees_[tree] = ReadTree(value);
    bool const rows = tree == static_cast<std::size_t>(Tree::kRows);
    if (trees_[tree].key_kind == (rows ? kIntegerKeys : kByteKeys)) ++found;
  }
  return found == kTreeCount;
}

// The fast path of a read: a descent that checks only what it follows. A key that it finds is the
// right one, since its bytes were compared; that it finds none proves nothing (Get).
template <typename Keys>
bool MappedState::Find(TreeRecord const& record, std::string_view key,
                       std::string_view* value) const {
  typename Keys::Key const wanted = Keys::Of(key);
  std::uint64_t number = record.root;
  std::size_t count = 0;
  for (std::size_t level = record.depth; level > 1; --level) {
    char const* const page = PageAt(map_, page_size_, pages_, number, kBranch, &count);
    number = ChildAt(page, page_size_, NodeFor<Keys>(page, page_size_, count, wanted));
  }
  char const* const page = PageAt(map_, page_size_, pages_, number, kLeaf, &count);
  std::size_t const at = FirstNode<Keys>(page, page_size_, 0, count, wanted, false);
  if (at == count) return false;
  char const* const node = NodeAt(page, page_size_, at);
  std::string_view const there = KeyOf(page, page_size_, node);
  if (Keys::Of(there) != wanted) return false;
  *value = ValueOf(page, node, there);
  return true;
}

std::string_view MappedState::ValueOf(char const* page, char const* node,
                                      std::string_view key) const {
  char const* const value = key.data() + key.size();
  std::size_t const room = page_size_ - static_cast<std::size_t>(value - page);
  std::size_t const size = Load<std::uint32_t>(node);
  auto const kind = Load<std::uint16_t>(node + 4);
  if (kind == kPlainValue && size <= room) [[likely]]
    return {value, size};
  if (kind != kValueOnOverflow || room < sizeof(std::uint64_t)) ThrowDamaged();
  return ValueBeside(Load<std::uint64_t>(value), size);
}

// A value on a run of overflow pages, of which only the first has a head.
std::string_view MappedState::ValueBeside(std::uint64_t number, std::uint64_t size) const {
  if (number < kHeaderPages || number >= pages_) ThrowDamaged();
  char const* const page = map_ + number * page_size_;
  std::uint64_t const needed = (kPageHead - 1 + size) / page_size_ + 1;
  std::uint64_t const count = Load<std::uint32_t>(page + kSlotsEndOffset);
  bool const holds = Load<std::uint64_t>(page) == number &&
                     Load<std::uint16_t>(page + kKindOffset) == kOverflow && count >= needed &&
                     needed <= pages_ - number;
  if (!holds) ThrowDamaged();
  return {page + kPageHead, size};
}

// A damaged branch can lead past a key that exists. So a key that was not found is looked for again
// on a path whose pages keep to the bounds of their parents and have their keys in order.
bool MappedState::Get(Tree tree, std::string_view key, std::string_view* value) const {
  TreeRecord const& record = trees_[static_cast<std::size_t>(tree)];
  if (record.root == kNoPage) return false;
  if (record.depth == 0 || record.depth > kMaxDepth) [[unlikely]]
    ThrowDamaged();
  bool const found = tree == Tree::kRows ? Find<IntegerKeys>(record, key, value)
                                         : Find<ByteKeys>(record, key, value);
  return found || FindWithinBounds(tree, key, value);
}

bool MappedState::FindWithinBounds(Tree tree, std::string_view key, std::string_view* value) const {
  TreePath path;
  path.Open(*this, tree);
  if (!path.Find(key)) return false;
  *value = path.entry().value;
  return true;
}

// ---- paths -------------------------------------------------------------------------------------

void TreePath::Open(MappedState const& state, Tree tree) {
  state_ = &state;
  record_ = &state.trees_[static_cast<std::size_t>(tree)];
  if (record_->root == kNoPage) {
    depth_ = 0;
    return;
  }
  if (record_->depth == 0 || record_->depth > kMaxDepth) ThrowDamaged();
  depth_ = record_->depth;
}

std::string_view TreePath::KeyAt(Step const& step, std::size_t i) const {
  return lscore::KeyAt(step.page, state_->page_size_, i);
}

void TreePath::Enter(std::size_t level) {
  Step& step = steps_[level];
  std::uint16_t const kind = level + 1 == depth_ ? kLeaf : kBranch;
  std::uint64_t number = record_->root;
  if (level > 0) {
    Step const& above = steps_[level - 1];
    number = ChildAt(above.page, state_->page_size_, above.at);
  }
  step.page = PageAt(state_->map_, state_->page_size_, state_->pages_, number, kind, &step.count);
  WithKeys(*record_, [&](auto keys) { CheckBounds<decltype(keys)>(level); });
}

// The keys of a child page must lie from the key of its node on and below that of the next node.
// The bound on a side comes from the lowest page above that has a node on that side. The first key
// of a branch page is not compared, since its value does not matter.
template <typename Keys>
void TreePath::CheckBounds(std::size_t level) const {
  Step const& step = steps_[level];
  std::size_t const first = level + 1 == depth_ ? 0 : 1;
  if (first == step.count) return;
  std::size_t low = level;
  std::size_t high = level;
  while (low > 0 && steps_[low - 1].at == 0) --low;
  while (high > 0 && steps_[high - 1].at + 1 == steps_[high - 1].count) --high;
  if (low > 0) {
    Step const& above = steps_[low - 1];
    if (Keys::Of(KeyAt(step, first)) < Keys::Of(KeyAt(above, above.at))) ThrowDamaged();
  }
  if (high > 0) {
    Step const& above = steps_[high - 1];
    if (!(Keys::Of(KeyAt(step, step.count - 1)) < Keys::Of(KeyAt(above, above.at + 1)))) {
      ThrowDamaged();
    }
  }
}

void TreePath::CheckOrderOf(std::size_t level) const {
  Step const& step = steps_[level];
  std::size_t const first = level + 1 == depth_ ? 0 : 1;
  WithKeys(*record_, [&](auto keys) {
    CheckOrder<decltype(keys)>(step.page, state_->page_size_, first, step.count);
  });
}

template <typename Keys>
void TreePath::LeadTo(typename Keys::Key key) {
  std::size_t const page_size = state_->page_size_;
  for (std::size_t level = 0; level + 1 < depth_; ++level) {
    Enter(level);
    Step& step = steps_[level];
    step.at = NodeFor<Keys>(step.page, page_size, step.count, key);
  }
  Enter(depth_ - 1);
  Step& step = leaf();
  step.at = FirstNode<Keys>(step.page, page_size, 0, step.count, key, false);
}

// When all keys of the leaf are below, the entry wanted is the first one of the next leaf.
bool TreePath::Seek(std::string_view key) {
  if (depth_ == 0) return false;
  WithKeys(*record_, [&](auto keys) { LeadTo<decltype(keys)>(keys.Of(key)); });
  if (leaf().at < leaf().count) return true;
  --leaf().at;
  return Next();
}

bool TreePath::Find(std::string_view key) {
  if (depth_ == 0) return false;
  WithKeys(*record_, [&](auto keys) { LeadTo<decltype(keys)>(keys.Of(key)); });
  if (leaf().at < leaf().count && KeyAt(leaf(), leaf().at) == key) return true;
  for (std::size_t level = 0; level < depth_; ++level) CheckOrderOf(level);
  return false;
}

bool TreePath::Descend(bool first) {
  if (depth_ == 0) return false;
  DescendFrom(0, first);
  return true;
}

void TreePath::DescendFrom(std::size_t level, bool first) {
  for (; level < depth_; ++level) {
    Enter(level);
    if (level > 0 && level + 1 == depth_) PrefetchNeighbour(first);
    CheckOrderOf(level);
    steps_[level].at = first ? 0 : steps_[level].count - 1;
  }
}

// A scan will be on the leaf beside this one soon. A number that leads nowhere does no harm here.
void TreePath::PrefetchNeighbour(bool next) const {
  Step const& above = steps_[depth_ - 2];
  std::size_t const at = next ? above.at + 1 : above.at - 1;
  if (at >= above.count) return;
  std::uint64_t const number = ChildAt(above.page, state_->page_size_, at);
  if (number >= state_->pages_) return;
  char const* const page = state_->map_ + number * state_->page_size_;
  for (std::size_t line = 0; line < state_->page_size_; line += kLine) {
    __builtin_prefetch(page + line);
  }
}

bool TreePath::Next() {
  if (++leaf().at < leaf().count) return true;
  --leaf().at;
  std::size_t level = depth_ - 1;
  while (level > 0 && steps_[level - 1].at + 1 == steps_[level - 1].count) --level;
  if (level == 0) return false;
  ++steps_[level - 1].at;
  DescendFrom(level, true);
  return true;
}

bool TreePath::Previous() {
  if (leaf().at > 0) {
    --leaf().at;
    return true;
  }
  std::size_t level = depth_ - 1;
  while (level > 0 && steps_[level - 1].at == 0) --level;
  if (level == 0) return false;
  --steps_[level - 1].at;
  DescendFrom(level, false);
  return true;
}

KeyValue TreePath::entry() const {
  Step const& step = leaf();
  char const* const node = NodeAt(step.page, state_->page_size_, step.at);
  std::string_view const key = KeyOf(step.page, state_->page_size_, node);
  if (record_->key_kind == kIntegerKeys) IntegerKeys::Of(key);
  return {key, state_->ValueOf(step.page, node, key)};
}

bool TreePath::StepTo(char const* key) {
  Step& step = leaf();
  auto const is_at = [&](std::size_t i) {
    return i < step.count && NodeAt(step.page, state_->page_size_, i) + kNodeHead == key;
  };
  for (std::size_t away = 0; away < step.count; ++away) {
    for (std::size_t const i : {step.at + away, step.at - away}) {
      if (!is_at(i)) continue;
      step.at = i;
      return true;
    }
  }
  return false;
}

// ---- cursors -----------------------------------------------------------------------------------

void MappedCursor::Open(MappedState const& state, Tree tree) {
  path_.Open(state, tree);
  page_size_ = state.page_size();
  fixed_keys_ = tree == Tree::kRows;
  given_ = nullptr;
}

bool MappedCursor::Give(bool found, KeyValue* entry) {
  given_ = nullptr;
  if (!found) return false;
  *entry = path_.entry();
  given_ = entry->key.data();
  return true;
}

// A caller that stepped inside an entered page is ahead of the path, which is moved to its entry.
void MappedCursor::Follow(KeyValue const& entry) {
  if (given_ != entry.key.data() && !path_.StepTo(entry.key.data())) ThrowDamaged();
}

bool MappedCursor::Next(KeyValue* entry) {
  Follow(*entry);
  return Give(path_.Next(), entry);
}

bool MappedCursor::Previous(KeyValue* entry) {
  Follow(*entry);
  return Give(path_.Previous(), entry);
}

// Pages of the file have the layout of entry_page.h. Steps inside a page do not check the sizes of
// keys, on which readers of rows rely, so pages of rows are not entered.
bool MappedCursor::EnterPage(KeyValue const& entry, EntryPage* page) {
  if (fixed_keys_) return false;
  auto const offset = static_cast<std::size_t>(entry.key.data() - path_.page());
  return page->Enter(path_.page(), page_size_, kPageHead, path_.count(), offset - kNodeHead,
                     path_.at());
}

}  // namespace lscore

#include "page_guard.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "bytes.h"
#include "status.h"
#include "store_pages.h"

namespace lscore {
namespace {

using namespace pages;

[[noreturn]] void ThrowDamaged() { Throw(LSCOREDB_DAMAGED); }

// The node of a branch that leads to the key.
std::size_t ChildOf(Page const& page, std::uint16_t key_kind, std::string_view key) {
  std::size_t low = 0;
  std::size_t high = page.count();
  while (high - low > 1) {
    std::size_t const middle = (low + high) / 2;
    (IsBelow(key_kind, key, page.At(middle).key) ? high : low) = middle;
  }
  return low;
}

// The first node of a leaf whose key is not below `key`, or the number of nodes.
std::size_t FirstFrom(Page const& page, std::uint16_t key_kind, std::string_view key) {
  std::size_t low = 0;
  std::size_t high = page.count();
  while (low < high) {
    std::size_t const middle = (low + high) / 2;
    if (IsBelow(key_kind, page.At(middle).key, key)) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// Keys that are below and above all others of any tree.
constexpr std::string_view LowestKey(std::uint16_t key_kind) {
  constexpr std::string_view kZeros("\0\0\0\0\0\0\0\0", 8);
  return kZeros.substr(0, key_kind == kIntegerKeys ? 8 : 1);
}
std::string HighestKey(std::uint16_t key_kind) {
  return std::string(key_kind == kIntegerKeys ? 8 : kMaxKey, '\xFF');
}

// Whether a list is a count and as many page numbers, in descending order. Writes the count.
bool ListHolds(char const* list, std::uint64_t room, std::uint64_t last_page,
               std::uint64_t* count) {
  *count = room == 0 ? 0 : Load<std::uint64_t>(list);
  if (*count >= room) return false;
  std::uint64_t above = last_page + 1;
  for (std::uint64_t i = 1; i <= *count; ++i) {
    auto const number = Load<std::uint64_t>(list + i * sizeof(std::uint64_t));
    if (number >= above || number < kHeaderPages) return false;
    above = number;
  }
  return true;
}

Bounds BoundsOf(Page const& page, std::size_t at, Bounds outer) {
  return {at == 0 ? outer.low : page.At(at).key,
          at + 1 == page.count() ? outer.high : page.At(at + 1).key};
}

}  // namespace

void PageGuard::Open(int file, char const* map, std::size_t page_size) {
  file_ = file;
  map_ = map;
  page_size_ = page_size;
}

// Forgets what was checked in the last batch, since its commit has reused pages. The leaf of the
// oldest list is checked at once with its neighbours: every commit works on it.
void PageGuard::Begin(std::uint64_t state) {
  Forget();
  if (!free_pages_hold_) {
    std::optional<Header> const header = FindHeader(file_, state);
    if (!header) ThrowDamaged();
    ScanPages(file_, *header, PageDepth::kFreePages, [](auto const&) { ThrowDamaged(); });
    free_pages_hold_ = true;
  }
  ReadHeader(state);
  next_list_ = 0;
  lists_ = in_lists_ = may_take_ = may_read_ = 0;
  if (free_.record.root == kNoPage) return;
  Descend(free_, HighestKey(kIntegerKeys));
  CheckBeside(free_);
  Descend(free_, LowestKey(kIntegerKeys));
  CheckBeside(free_);
}

// The library reads the next list when it has no page left. For a run of pages it reads further
// lists even if it has some, up to kListsForPage for each page of the run.
void PageGuard::CheckLists(std::uint64_t pages, std::uint64_t run) {
  constexpr std::uint64_t kListsForPage = 64;
  may_take_ += pages;
  if (run > 1) may_read_ = std::max(may_read_, lists_) + run * kListsForPage;
  while ((in_lists_ < may_take_ || lists_ < may_read_) && CheckNextList()) {
  }
}

// Returns whether there was a next list. Moves `free_` from leaf to leaf; the library deletes the
// lists that it used up, so it may merge a leaf with its neighbours.
bool PageGuard::CheckNextList() {
  if (free_.record.root == kNoPage) return false;
  if (next_list_ == free_.last.leaf().page.count()) {
    std::string const next(free_.last.leaf().bounds.high);
    if (next.empty()) return false;
    Descend(free_, next);
    CheckBeside(free_);
    next_list_ = 0;
  }
  Node const node = free_.last.leaf().page.At(next_list_++);
  std::uint64_t count = 0;
  CheckValue(node);
  char const* const list = node.value_kind == kPlainValue
                               ? node.value
                               : BytesOf(Load<std::uint64_t>(node.value)).data() + kPageHead;
  if (!ListHolds(list, node.value_size / sizeof(std::uint64_t), last_page_, &count)) ThrowDamaged();
  ++lists_;
  in_lists_ += count;
  return true;
}

// At most, a write copies each page of its path, splits each, and creates a new root.
std::uint64_t PageGuard::PagesOfWrite(KnownTree const& tree) const {
  return std::uint64_t{2} * tree.record.depth + 3;
}

void PageGuard::ReadHeader(std::uint64_t state) {
  struct stat status {};
  if (fstat(file_, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  char const* const head = map_ + state % 2 * page_size_ + kPageHead;
  if (Load<std::uint64_t>(head + 128) != state) ThrowDamaged();
  free_.record = ReadTree(head + 24);
  free_.known = true;
  trees_ = ReadTree(head + 72);
  last_page_ = Load<std::uint64_t>(head + 120);
  pages_ = std::min(last_page_ + 1, static_cast<std::uint64_t>(status.st_size) / page_size_);
  if (looked_at_.size() < pages_) looked_at_.resize(pages_ + pages_ / 8);
}

void PageGuard::Forget() {
  for (std::uint64_t const number : to_forget_) looked_at_[number] = false;
  to_forget_.clear();
  for (KnownTree& tree : known_) tree.known = false;
  for (KnownTree& tree : known_) tree.last.size = 0;
  free_.last.size = 0;
}

// The record of a tree, found in the tree of trees once in a batch.
PageGuard::KnownTree& PageGuard::Find(Tree tree) {
  KnownTree& found = known_[static_cast<std::size_t>(tree)];
  if (found.known) return found;
  std::string_view const name = kTreeNames[static_cast<std::size_t>(tree)];
  found.record = {};
  if (trees_.root != kNoPage) {
    KnownTree names;
    names.record = trees_;
    Descend(names, name);
    Page const& leaf = names.last.leaf().page;
    std::size_t const at = FirstFrom(leaf, kByteKeys, name);
    if (at == leaf.count() || leaf.At(at).key != name || leaf.At(at).value_size != kTreeSize) {
      ThrowDamaged();
    }
    found.record = ReadTree(leaf.At(at).value);
  }
  found.known = true;
  return found;
}

void PageGuard::Check(Tree tree, std::string_view key) {
  KnownTree& known = Find(tree);
  if (known.record.root == kNoPage) return;
  if (!IsOnLeaf(known, key)) Descend(known, key);
  Page const& leaf = known.last.leaf().page;
  std::size_t const at = FirstFrom(leaf, known.record.key_kind, key);
  if (at < leaf.count() && leaf.At(at).key == key) CheckValue(leaf.At(at));
}

void PageGuard::CheckAround(Tree tree, std::string_view key) {
  Check(tree, key);
  KnownTree& known = Find(tree);
  if (known.record.root != kNoPage && !known.beside) CheckBeside(known);
}

void PageGuard::CheckEnd(Tree tree, bool first) {
  std::uint16_t const kind = tree == Tree::kRows ? kIntegerKeys : kByteKeys;
  Check(tree, first ? std::string(LowestKey(kind)) : HighestKey(kind));
}

void PageGuard::CheckPut(Tree tree, std::string_view key, std::size_t value_size) {
  Check(tree, key);
  std::uint64_t const run = (kPageHead - 1 + value_size) / page_size_ + 1;
  bool const beside = kNodeHead + key.size() + value_size > page_size_ / 2 - kPageHead;
  CheckLists(PagesOfWrite(Find(tree)) + (beside ? run : 0), beside ? run : 1);
}

void PageGuard::CheckDelete(Tree tree, std::string_view key) {
  CheckAround(tree, key);
  CheckLists(PagesOfWrite(Find(tree)), 1);
}

// At the commit the library writes a list of the pages that the batch freed, at most as many as it
// took, and what is left of the lists that it read; large ones are runs of overflow pages. These
// writes take pages themselves.
void PageGuard::CheckCommit() {
  std::uint64_t const bytes = (may_take_ + in_lists_ + 1) * sizeof(std::uint64_t);
  std::uint64_t const run = bytes / page_size_ + 1;
  CheckLists(PagesOfWrite(free_) * 4 + 4 * run + kTreeCount * 8, run);
}

// Whether the key belongs on the leaf of the last path, so that nothing has to be checked again.
bool PageGuard::IsOnLeaf(KnownTree& tree, std::string_view key) const {
  if (tree.last.size == 0) return false;
  Bounds const bounds = tree.last.leaf().bounds;
  std::uint16_t const kind = tree.record.key_kind;
  return (bounds.low.empty() || !IsBelow(kind, key, bounds.low)) &&
         (bounds.high.empty() || IsBelow(kind, key, bounds.high));
}

// Checks the pages from the root to the leaf of the key. Each node narrows the bounds of its child.
void PageGuard::Descend(KnownTree& tree, std::string_view key) {
  TreeRecord const& record = tree.record;
  if (record.depth == 0 || record.depth > kMaxDepth) ThrowDamaged();
  Path& path = tree.last;
  path.size = 0;
  tree.beside = false;
  std::uint64_t number = record.root;
  Bounds bounds;
  for (std::size_t level = 0; level < record.depth; ++level) {
    bool const leaf = level + 1u == record.depth;
    Step& step = path.steps[level];
    step.bounds = bounds;
    Enter(number, leaf, record.key_kind, step);
    if (leaf) break;
    step.at = ChildOf(step.page, record.key_kind, key);
    number = step.page.At(step.at).child;
    bounds = BoundsOf(step.page, step.at, bounds);
  }
  path.size = record.depth;
}

// A page that was checked in this batch is only loaded. Its kind is compared all the same, since
// two damaged nodes may lead to one page on different levels.
void PageGuard::Enter(std::uint64_t number, bool leaf, std::uint16_t key_kind, Step& step) {
  step.number = number;
  std::string_view const bytes = BytesOf(number);
  bool const of_kind = Load<std::uint16_t>(bytes.data() + 10) == (leaf ? kLeaf : kBranch);
  if (of_kind && looked_at_[number]) return step.page.Reload(leaf, bytes);
  if (step.page.Load(number, page_size_, leaf, bytes) != nullptr || step.page.count() == 0 ||
      !KeysHold(step.page, leaf, key_kind, step.bounds)) {
    ThrowDamaged();
  }
  to_forget_.push_back(number);
  looked_at_[number] = true;
}

std::string_view PageGuard::BytesOf(std::uint64_t number) const {
  if (number < kHeaderPages || number >= pages_) ThrowDamaged();
  return {map_ + number * page_size_, page_size_};
}

// The library merges a page that has become nearly empty with a neighbour, on each level, and looks
// up the lowest key below a page that it moves.
void PageGuard::CheckBeside(KnownTree& tree) {
  for (std::size_t level = 1; level < tree.last.size; ++level) {
    CheckNeighbour(tree, level, true);
    CheckNeighbour(tree, level, false);
  }
  tree.beside = true;
}

// The page to the left or right of the path on a level: up to the first step that has a node on
// that side, over to that node, and down again along its nearer edge; below `level` along its left
// edge.
void PageGuard::CheckNeighbour(KnownTree& tree, std::size_t level, bool left) {
  Path const& path = tree.last;
  std::size_t turn = level;
  auto const ends = [&](Step const& step) {
    return left ? step.at == 0 : step.at + 1 == step.page.count();
  };
  while (turn > 0 && ends(path.steps[turn - 1])) --turn;
  if (turn == 0) return;
  Step step = path.steps[turn - 1];
  step.at = left ? step.at - 1 : step.at + 1;
  for (std::size_t below = turn; below < path.size; ++below) {
    bool const leaf = below + 1 == path.size;
    std::uint64_t const number = step.page.At(step.at).child;
    step.bounds = BoundsOf(step.page, step.at, step.bounds);
    Enter(number, leaf, tree.record.key_kind, step);
    step.at = left && below < level ? step.page.count() - 1 : 0;
  }
}

// A value on overflow pages must be a run that begins where the node says and is long enough.
void PageGuard::CheckValue(Node const& node) {
  if (node.value_kind == kPlainValue) return;
  if (node.value_kind != kValueOnOverflow) ThrowDamaged();
  auto const first = Load<std::uint64_t>(node.value);
  std::uint64_t const needed = (kPageHead - 1 + node.value_size) / page_size_ + 1;
  std::string_view const head = BytesOf(first);
  auto const count = Load<std::uint32_t>(head.data() + 12);
  bool const holds = Load<std::uint64_t>(head.data()) == first &&
                     Load<std::uint16_t>(head.data() + 10) == kOverflow && count >= needed &&
                     count <= pages_ - first;
  if (!holds) ThrowDamaged();
}

}  // namespace lscore

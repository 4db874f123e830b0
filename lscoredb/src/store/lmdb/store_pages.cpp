#include "store_pages.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <vector>

#include "bytes.h"
#include "status.h"
#include "store_page.h"
#include "watched_work.h"

namespace lscore {
namespace {

using namespace pages;

struct KnownTree {
  std::string_view name;
  std::uint16_t key_kind;
};
constexpr KnownTree kKnownTrees[] = {{"rows", kIntegerKeys},
                                     {"parts", kByteKeys},
                                     {"index", kByteKeys},
                                     {"definitions", kByteKeys},
                                     {"meta", kByteKeys}};

// The number of pages in the file. Free pages beyond its end are possible: they were never written.
std::uint64_t PagesOf(int file, Header const& header) {
  struct stat status {};
  if (fstat(file, &status) != 0) Throw(LSCOREDB_IO_ERROR);
  std::uint64_t const whole = static_cast<std::uint64_t>(status.st_size) / header.page_size + 1;
  return std::min(whole, header.last_page + 1);
}

// A depth-first scan from the roots. Three conditions together show that nothing is lost or hidden:
//
//   - every page is of the expected kind, and its keys ascend within the bounds of its parent,
//   - no page is used twice, in trees, runs of overflow pages and lists of free pages (a bit for
//     each page),
//   - each tree has as many pages and entries as its record says.
//
// A page that fails is reported with the bounds of its keys, and the scan continues beside it.
class PageScan {
 public:
  PageScan(int file, Header const& header, PageDepth depth, PageReport const& report)
      : file_(file),
        header_(header),
        depth_(depth),
        report_(report),
        seen_(PagesOf(file, header)),
        work_(kPageShare, header.last_page) {}

  void Run();

 private:
  // What the scan of one tree has counted, to be compared with the tree's record.
  struct Met {
    std::uint64_t branch_pages = 0;
    std::uint64_t leaf_pages = 0;
    std::uint64_t overflow_pages = 0;
    std::uint64_t entries = 0;
  };

  void ScanTree(std::string_view name, TreeRecord const& tree);
  void ScanPage(std::uint64_t number, std::uint16_t levels, Bounds bounds);
  bool LoadPage(std::uint64_t number, std::uint16_t levels, Bounds bounds, std::string& bytes,
                Page& page);
  void ScanChildren(Page const& page, std::uint16_t levels, Bounds bounds);
  void ScanLeaf(Page const& page, Bounds bounds);
  void ScanValue(Node const& node);
  // The value's bytes, wherever they are; false when they cannot be read.
  bool ScanOverflow(Node const& node, std::string* bytes);
  void ScanFreePages(std::string_view key, std::string_view list);
  void ScanNamedTree(Node const& node);
  bool Take(std::uint64_t first, std::uint64_t count);
  bool TakeFree(std::uint64_t number);
  // A new file ends with its headers.
  bool IsTaken(std::uint64_t number) const {
    if (number < kHeaderPages) return true;
    return number < seen_.size() ? seen_[number] : seen_behind_.contains(number);
  }
  void Report(char const* what, Bounds bounds = {}) {
    ++faults_;
    report_({name_, bounds.low, bounds.high, what});
  }

  int file_;
  Header const& header_;
  PageDepth depth_;
  PageReport const& report_;
  std::vector<bool> seen_;
  std::set<std::uint64_t> seen_behind_;
  std::uint64_t faults_ = 0;
  std::string_view name_;
  TreeRecord const* tree_ = nullptr;
  Met met_;
  std::vector<std::pair<std::string, TreeRecord>> named_;
  WatchedWork work_;
};

// The tree of trees comes first, since it has the roots of the others, and the free pages last,
// since they must not be in use.
void PageScan::Run() {
  if (depth_ == PageDepth::kFreePages) return ScanTree(pages::kFreeTreeName, header_.free);
  ScanTree("trees", header_.trees);
  for (KnownTree const& known : kKnownTrees) {
    auto const at = std::find_if(named_.begin(), named_.end(),
                                 [&](auto const& one) { return one.first == known.name; });
    name_ = known.name;
    if (at == named_.end()) {
      bool const fresh = header_.commit == 0;  // its creation is still to be committed
      if (depth_ == PageDepth::kAll && !fresh) Report("it is missing");
    } else if (at->second.key_kind != known.key_kind) {
      Report("its record has keys of another kind");
    } else {
      ScanTree(known.name, at->second);
    }
  }
  ScanTree(pages::kFreeTreeName, header_.free);
  if (depth_ == PageDepth::kAll && faults_ == 0 && !IsTaken(header_.last_page)) {
    name_ = {};
    Report("nothing uses its last page");
  }
}

// The counts are compared only if no page of the tree failed: then they would differ anyway.
void PageScan::ScanTree(std::string_view name, TreeRecord const& tree) {
  name_ = name;
  tree_ = &tree;
  met_ = {};
  if (tree.root == kNoPage) {
    if (tree.depth != 0 || tree.entries != 0) Report("its record contradicts itself");
    return;
  }
  if (tree.depth == 0 || tree.depth > kMaxDepth) return Report("its record contradicts itself");
  std::uint64_t const before = faults_;
  ScanPage(tree.root, tree.depth, {});
  if (depth_ == PageDepth::kRoots && (name != "trees" || tree.depth > 1)) return;
  bool const same = met_.branch_pages == tree.branch_pages && met_.leaf_pages == tree.leaf_pages &&
                    met_.overflow_pages == tree.overflow_pages && met_.entries == tree.entries;
  if (faults_ == before && !same) Report("its size differs from its record");
}

// `levels`: the height of the tree from this page down.
void PageScan::ScanPage(std::uint64_t number, std::uint16_t levels, Bounds bounds) {
  std::string bytes;
  Page page;
  if (!LoadPage(number, levels, bounds, bytes, page)) return;
  bool const leaf = levels == 1;
  ++(leaf ? met_.leaf_pages : met_.branch_pages);
  if (!KeysHold(page, leaf, tree_->key_kind, bounds))
    return Report("its keys are out of order", bounds);
  if (leaf) {
    ScanLeaf(page, bounds);
  } else if (depth_ != PageDepth::kRoots) {
    ScanChildren(page, levels, bounds);
  }
}

// Taking the page first keeps a cycle of pages from being followed for ever.
bool PageScan::LoadPage(std::uint64_t number, std::uint16_t levels, Bounds bounds,
                        std::string& bytes, Page& page) {
  if (!Take(number, 1)) {
    Report("it is outside the file, or used twice", bounds);
    return false;
  }
  ReadAt(file_, number * header_.page_size, header_.page_size, bytes);
  char const* const broken = page.Load(number, header_.page_size, levels == 1, bytes);
  std::size_t const fewest = levels == 1 || name_ == pages::kFreeTreeName ? 1 : 2;
  if (broken == nullptr && page.count() >= fewest) return true;
  Report(broken != nullptr ? broken : "it has too few entries", bounds);
  return false;
}

void PageScan::ScanChildren(Page const& page, std::uint16_t levels, Bounds bounds) {
  for (std::size_t i = 0; i < page.count(); ++i) {
    Bounds const own{i == 0 ? bounds.low : page.At(i).key,
                     i + 1 == page.count() ? bounds.high : page.At(i + 1).key};
    ScanPage(page.At(i).child, static_cast<std::uint16_t>(levels - 1), own);
  }
}

void PageScan::ScanLeaf(Page const& page, Bounds bounds) {
  met_.entries += page.count();
  for (std::size_t i = 0; i < page.count(); ++i) {
    Node const node = page.At(i);
    bool const names = name_ == "trees";
    if (names && node.value_kind == kValueIsTree && node.value_size == kTreeSize) {
      ScanNamedTree(node);
    } else if (node.value_kind > kValueOnOverflow) {
      return Report("an entry is of another kind", bounds);
    } else if (depth_ != PageDepth::kRoots || (!names && name_ != pages::kFreeTreeName)) {
      ScanValue(node);
    }
  }
}

void PageScan::ScanNamedTree(Node const& node) {
  bool const known = std::any_of(std::begin(kKnownTrees), std::end(kKnownTrees),
                                 [&](KnownTree const& tree) { return tree.name == node.key; });
  if (!known && depth_ == PageDepth::kAll) Report("it holds a tree of another name");
  named_.emplace_back(std::string(node.key), ReadTree(node.value));
}

void PageScan::ScanValue(Node const& node) {
  bool const free = name_ == pages::kFreeTreeName;
  std::string overflow;
  std::string_view value(node.value, node.value_kind == kPlainValue ? node.value_size : 0);
  if (name_ == "trees") return Report("it holds something other than a tree");
  if (node.value_kind == kValueOnOverflow) {
    if (!ScanOverflow(node, free ? &overflow : nullptr)) {
      return Report("an overflow value cannot be read", {node.key, node.key});
    }
    value = overflow;
  }
  if (free) ScanFreePages(node.key, value);
}

// Of a run only the head and the last byte are read: its bytes are checked by the record's own
// checksum when they are used. The lists of free pages are read as a whole.
bool PageScan::ScanOverflow(Node const& node, std::string* bytes) {
  auto const first = Load<std::uint64_t>(node.value);
  std::uint64_t const needed = (kPageHead - 1 + node.value_size) / header_.page_size + 1;
  if (first < kHeaderPages || first > header_.last_page) return false;
  std::string head;
  ReadAt(file_, first * header_.page_size, kPageHead, head);
  if (head.size() < kPageHead || Load<std::uint64_t>(head.data()) != first) return false;
  if (Load<std::uint16_t>(head.data() + 10) != kOverflow) return false;
  auto const count = Load<std::uint32_t>(head.data() + 12);
  if (count < needed || !Take(first, count)) return false;
  met_.overflow_pages += count;
  std::string last;
  std::uint64_t const end = first * header_.page_size + kPageHead + node.value_size;
  ReadAt(file_, end - 1, 1, last);
  if (last.empty()) return false;
  if (bytes != nullptr) {
    ReadAt(file_, first * header_.page_size + kPageHead, node.value_size, *bytes);
  }
  return true;
}

// A list of free pages: a count and as many page numbers, in descending order, that were freed by
// the commit which the key names.
void PageScan::ScanFreePages(std::string_view key, std::string_view list) {
  auto const commit = Load<std::uint64_t>(key.data());
  std::size_t const room = list.size() / sizeof(std::uint64_t);
  std::uint64_t const count = room == 0 ? 0 : Load<std::uint64_t>(list.data());
  if (room == 0 || count >= room || commit == 0 || commit > header_.commit) {
    return Report("a list of free pages contradicts itself");
  }
  std::uint64_t above = kNoPage;
  for (std::uint64_t i = 1; i <= count; ++i) {
    auto const number = Load<std::uint64_t>(list.data() + i * sizeof(std::uint64_t));
    if (number >= above || !TakeFree(number)) {
      return Report("a list of free pages names a page in use");
    }
    above = number;
  }
}

// Marks the pages as used. Returns whether they are in the file and were not used before.
bool PageScan::Take(std::uint64_t first, std::uint64_t count) {
  if (first < kHeaderPages || first > header_.last_page) return false;
  if (first >= seen_.size() || count > seen_.size() - first) return false;
  for (std::uint64_t number = first; number < first + count; ++number) {
    if (seen_[number]) return false;
    seen_[number] = true;
  }
  if (depth_ == PageDepth::kAll) work_.Advance(count);
  return true;
}

// A free page may lie beyond the end of the file, where the bits do not reach.
bool PageScan::TakeFree(std::uint64_t number) {
  if (number < seen_.size()) return Take(number, 1);
  return number <= header_.last_page && seen_behind_.insert(number).second;
}

}  // namespace

void ScanPages(int file, Header const& header, PageDepth depth, PageReport const& report) {
  PageScan(file, header, depth, report).Run();
}

}  // namespace lscore

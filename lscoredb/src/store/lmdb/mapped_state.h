#ifndef LSCOREDB_SRC_MAPPED_STATE_H
#define LSCOREDB_SRC_MAPPED_STATE_H

// Reads the trees of one committed state in the memory map of the file.
//
// Nothing in the file is trusted: each number is checked before it is followed, so that a read of
// arbitrary bytes ends with an entry of the file or with LSCOREDB_DAMAGED and never leaves the
// file. A key that is found is not checked further. Before a key counts as missing, the pages of
// its path must keep to the bounds of their parents and their keys must be in order; so must the
// pages that a scan steps to, so that neither swapped pages nor swapped keys deliver an entry
// twice. The pages that a seek passes must keep to their bounds only: checking their order would
// double the cost of a seek.
//
// store_header.h draws the pages. Owns nothing; the snapshot keeps the pages from being reused.
// Reads are const: any number of threads.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "store.h"
#include "store_header.h"

namespace lscore {

class MappedState {
 public:
  // Copies the state's description from its header. The copy is consistent if the state is still
  // one of the two newest afterwards.
  void CopyHeader(char const* map, std::size_t page_size, std::uint64_t state);
  // Looks the trees up. Returns whether all exist. `file_pages`: the pages of the file. Throws
  // LSCOREDB_DAMAGED. REQUIRES: a consistent copy.
  bool OpenTrees(std::uint64_t file_pages);

  // The library's number of the state, of the copy; and the number of pages that it speaks of.
  std::uint64_t state() const { return state_; }
  std::uint64_t claimed_pages() const { return last_page_ + 1; }
  char const* map() const { return map_; }
  std::size_t page_size() const { return page_size_; }

  bool Get(Tree tree, std::string_view key, std::string_view* value) const;

 private:
  friend class TreePath;

  template <typename Keys>
  bool Find(pages::TreeRecord const& record, std::string_view key, std::string_view* value) const;
  // As Find, but checks the bounds of all pages of the path, and their order if the key is missing.
  bool FindWithinBounds(Tree tree, std::string_view key, std::string_view* value) const;
  // Of a node of a leaf that has that key.
  std::string_view ValueOf(char const* page, char const* node, std::string_view key) const;
  std::string_view ValueBeside(std::uint64_t number, std::uint64_t size) const;

  char const* map_ = nullptr;
  std::size_t page_size_ = 0;
  std::uint64_t pages_ = 0;  // that can be read
  std::uint64_t state_ = 0;
  std::uint64_t last_page_ = 0;
  pages::TreeRecord names_;
  std::array<pages::TreeRecord, kTreeCount> trees_;
};

// A path from the root of a tree to an entry of one of its leaves.
class TreePath {
 public:
  void Open(MappedState const& state, Tree tree);

  // Each returns whether there is such an entry; the path leads to it iff there is. Throw
  // LSCOREDB_DAMAGED.
  bool Seek(std::string_view key);  // the first not below `key`
  bool Find(std::string_view key);  // that of `key`
  bool First() { return Descend(true); }
  bool Last() { return Descend(false); }
  // REQUIRES: the path leads to an entry.
  bool Next();
  bool Previous();

  KeyValue entry() const;
  // The leaf, and how many entries it has.
  char const* page() const { return leaf().page; }
  std::size_t count() const { return leaf().count; }
  std::size_t at() const { return leaf().at; }
  // Moves to the entry of the leaf whose key is at that address. Returns whether there is one.
  bool StepTo(char const* key);

 private:
  struct Step {
    char const* page = nullptr;
    std::size_t count = 0;
    std::size_t at = 0;  // the node whose child is the next step
  };

  Step const& leaf() const { return steps_[depth_ - 1]; }
  Step& leaf() { return steps_[depth_ - 1]; }
  std::string_view KeyAt(Step const& step, std::size_t i) const;
  // Moves onto the page of that level and checks its bounds.
  void Enter(std::size_t level);
  template <typename Keys>
  void CheckBounds(std::size_t level) const;
  // Every key of the page of that level but the last is below the next one.
  void CheckOrderOf(std::size_t level) const;
  // To the first entry of the leaf for the key that is not below it, or behind the last one.
  template <typename Keys>
  void LeadTo(typename Keys::Key key);
  bool Descend(bool first);
  void DescendFrom(std::size_t level, bool first);
  void PrefetchNeighbour(bool next) const;

  MappedState const* state_ = nullptr;
  pages::TreeRecord const* record_ = nullptr;
  std::size_t depth_ = 0;
  std::array<Step, pages::kMaxDepth> steps_;
};

// Over the tree of a snapshot.
class MappedCursor final : public TreeCursor {
 public:
  MappedCursor(Store const& store, MappedState const& state, Tree tree) : TreeCursor(store) {
    Open(state, tree);
  }
  void Open(MappedState const& state, Tree tree);

  bool Seek(std::string_view key, KeyValue* entry) override { return Give(path_.Seek(key), entry); }
  bool First(KeyValue* entry) override { return Give(path_.First(), entry); }
  bool Last(KeyValue* entry) override { return Give(path_.Last(), entry); }
  bool Next(KeyValue* entry) override;
  bool Previous(KeyValue* entry) override;
  bool EnterPage(KeyValue const& entry, EntryPage* page) override;

 private:
  bool Give(bool found, KeyValue* entry);
  void Follow(KeyValue const& entry);

  TreePath path_;
  std::size_t page_size_ = 0;
  bool fixed_keys_ = false;
  char const* given_ = nullptr;  // the key that the path leads to
};

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_SORTED_ENTRIES_H
#define LSCOREDB_SRC_SORTED_ENTRIES_H

// The entries of a new index for the objects that are there, in the order of the store. However
// many there are, they take as much memory as the sorter was given: what is more lies in files.
//
//   added, in any order -> runs that fit into memory, each sorted -> one sorted sequence
//
// Runs are written to one temporary file and merged into another, which is read through a map. When
// all of it fits into memory no file is made. One thread at a time.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"
#include "temporary_file.h"
#include "watched_work.h"

namespace lscore {

// A record of a sequence: a head, then key and value. `back` is the size of the record before.
struct SortedRecord {
  struct Head {
    std::uint32_t value_size;
    std::uint32_t key_size;
    std::uint64_t back;
  };
  std::string_view key;
  std::string_view value;
  std::uint64_t back = 0;

  std::uint64_t size() const { return sizeof(Head) + key.size() + value.size(); }
  void AppendTo(std::string& out) const;
  // REQUIRES: `bytes` holds a head, and a whole record where more than the size is looked at.
  static SortedRecord At(char const* bytes);
};

// The sequence, as the view of a store whose tree kIndex holds nothing else. The bytes of its
// entries stay as long as it does.
class SortedEntries final : public View {
 public:
  bool Get(Tree tree, std::string_view key, std::string_view* value) const override;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;

 private:
  friend class EntrySorter;
  class Scan;
  class Writer;

  SortedEntries() = default;
  SortedRecord RecordAt(std::uint64_t at) const { return SortedRecord::At(content_.data() + at); }
  // The first record that is not below the key, or the end.
  std::uint64_t LowerBound(std::string_view key) const;

  std::string memory_;
  std::unique_ptr<TemporaryFile> file_;
  std::string_view content_;          // of one or the other
  std::vector<std::uint64_t> marks_;  // where each kMarkedth record begins
  std::uint64_t last_ = 0;            // where the last one does
};

class EntrySorter {
 public:
  static constexpr std::size_t kUsualMemory = std::size_t{32} << 20;

  // All keys begin with `prefix_size` bytes that are the same. Files are made in `directory`;
  // empty: none are, and all is kept in memory.
  EntrySorter(std::string directory, std::size_t prefix_size, std::size_t memory = kUsualMemory);

  // Each key once.
  void Add(std::string_view key, std::string_view value);
  // Null when nothing was added. Afterwards the sorter is of no use any more. Lingers for each
  // entry that is moved.
  std::unique_ptr<SortedEntries const> Finish(WatchedWork& work);

 private:
  // Mostly the first bytes behind the prefix tell which is lower.
  struct Slot {
    std::uint64_t begins;
    std::uint64_t at;
  };
  struct Run {
    std::uint64_t begin;
    std::uint64_t end;
  };
  class RunReader;

  void Sort();
  void WriteRun();
  void Merge(SortedEntries& sorted, WatchedWork& work);

  std::string const directory_;
  std::size_t const prefix_size_;
  std::size_t const memory_;
  std::string records_;
  std::vector<Slot> slots_;
  std::unique_ptr<TemporaryFile> spilled_;
  std::vector<Run> runs_;
};

}  // namespace lscore

#endif

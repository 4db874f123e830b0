#ifndef LSCOREDB_SRC_SORTED_ENTRIES_H
#define LSCOREDB_SRC_SORTED_ENTRIES_H

// An external merge sort for the entries that fill a new index, in the order of the store, and the
// sorted result. Memory is bounded by what the sorter was given; the rest goes to temporary files.
//
//   added in any order -> runs that fit into memory, each sorted -> one sorted sequence
//
// Runs are written to one temporary file and merged into another, which is read through a memory
// map. No file is made when everything fits into memory. One thread at a time.

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

// A record of a sequence: a head, then key and value. `back` is the size of the previous record.
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
  // REQUIRES: `bytes` holds a head; a whole record if more than size() is used.
  static SortedRecord At(char const* bytes);
};

// The sorted sequence, as a view whose tree kIndex has these entries and whose other trees are
// empty. The bytes of its entries stay valid as long as it exists.
class SortedEntries final : public View {
 public:
  bool Get(Tree tree, std::string_view key, std::string_view* value) const override;
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override;
  // They were too many for the sorter's memory.
  bool in_file() const { return file_ != nullptr; }

 private:
  friend class EntrySorter;
  class Scan;
  class Writer;

  SortedEntries() = default;
  SortedRecord RecordAt(std::uint64_t at) const { return SortedRecord::At(content_.data() + at); }
  // The offset of the first record that is not below the key, or of the end.
  std::uint64_t LowerBound(std::string_view key) const;

  std::string memory_;
  std::unique_ptr<TemporaryFile> file_;
  std::string_view content_;          // of either
  std::vector<std::uint64_t> marks_;  // offsets of every kMarked-th record
  std::uint64_t last_ = 0;            // offset of the last record
};

class EntrySorter {
 public:
  static constexpr std::size_t kUsualMemory = std::size_t{32} << 20;

  // All keys begin with the same `prefix_size` bytes. Files are made in `directory`; if it is
  // empty, everything is kept in memory.
  EntrySorter(std::string directory, std::size_t prefix_size, std::size_t memory = kUsualMemory);

  // REQUIRES: no key is added twice.
  void Add(std::string_view key, std::string_view value);
  // Null when nothing was added. The sorter must not be used afterwards. Calls work.Linger for each
  // entry that it moves.
  std::unique_ptr<SortedEntries const> Finish(WatchedWork& work);

 private:
  // The first bytes after the prefix, which mostly decide a comparison, and the record's offset.
  struct Slot {
    std::uint64_t begins;
    std::uint64_t at;
  };
  struct Run {
    std::uint64_t begin;
    std::uint64_t end;
  };
  class RunReader;

  bool HasRoomFor(SortedRecord const& record) const;
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

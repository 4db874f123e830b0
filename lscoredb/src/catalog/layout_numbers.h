#ifndef LSCOREDB_SRC_LAYOUT_NUMBERS_H
#define LSCOREDB_SRC_LAYOUT_NUMBERS_H

// Layout numbers: which are taken. Any thread, and any process that has the database open.
//
// What knows a number by its meaning, in the caches of a process, knows it until the process ends.
// So a number that was handed out is taken, whatever became of its transaction, and its layout
// stays, until no process lives that has had the database open. That is found out by a lock on a
// file beside the data: shared by every process that opened the directory, from its first opening
// to its end, and exclusive for the short time in which one finds itself alone. The file is mapped
// and holds one bit a number, which makes the processes take different ones. It means nothing once
// they are gone: whoever is alone begins it anew.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ids.h"
#include "store.h"

namespace lscore {

class LayoutNumbers {
 public:
  // Of a database in memory, which no other process can know.
  LayoutNumbers();
  // Of the database in `directory`, which exists. Waits while another process is alone with it.
  // Throws LSCOREDB_CANNOT_OPEN, LSCOREDB_DISK_FULL or LSCOREDB_NO_MEMORY.
  explicit LayoutNumbers(std::string const& directory);
  ~LayoutNumbers();
  LayoutNumbers(LayoutNumbers const&) = delete;
  LayoutNumbers& operator=(LayoutNumbers const&) = delete;

  // Whether no other process knows a number of this database. Until Share none comes to know one.
  bool alone() const { return alone_; }
  void Share();

  // Whether the file was removed, and the database with it.
  bool orphaned() const;

  // Numbers of layouts that were taken away while this process was alone, rising.
  void Offer(std::vector<LayoutNumber> numbers);

  // A number that is not taken; takes it. Among few layouts it is the lowest. Among many, which it
  // would take long to look through, those on offer come first, then those above all that were ever
  // committed, and the rest when these run out. Throws LSCOREDB_LAYOUTS_EXHAUSTED.
  LayoutNumber Take(View const& view);

 private:
  static constexpr std::size_t kWords = kLayoutNumbers / 64;

  // The content of the file.
  struct Board {
    // Below this number there may be layouts that were there at first and are not marked; 0: it is
    // not known yet, 1: all are marked.
    std::atomic<std::uint64_t> unmarked_below;
    std::array<std::atomic<std::uint64_t>, kWords> taken;
  };
  static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "processes share the words");
  static_assert(sizeof(Board) == (1 + kWords) * sizeof(std::uint64_t));
  using Words = std::array<std::uint64_t, 1 + kWords>;  // of a board as it stands in the file

  void Lock();
  bool TryLockAlone() const;
  bool IsWhole() const;
  void BeginAnew() const;
  static constexpr Words FreshWords();
  Words ReadWords() const;
  void Map();
  std::uint64_t FindUnmarked(View const& view);
  void MarkAll(View const& view);
  // Returns whether it was not marked before.
  bool Mark(LayoutNumber number);
  LayoutNumber TakeOffered();
  // The lowest one that is not marked, from a number on; kNoLayout: none.
  LayoutNumber TakeFrom(std::size_t first);

  std::string const path_;
  int file_ = -1;
  bool alone_ = false;
  std::unique_ptr<Board> own_;
  Board* board_ = nullptr;
  std::mutex mutex_;
  std::vector<LayoutNumber> offered_;  // falling
};

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_LOG_BOARD_H
#define LSCOREDB_SRC_LOG_BOARD_H

// What the processes that have a log open share: a few words of mapped memory and three locks, both
// on the file "log.lock". The system releases the locks of a process that dies. The words mean
// nothing while no process has the log open: one that is alone resets them.
//
//   lock      held
//   presence  shared by each process as long as it has the log open, exclusively by one that is
//             alone while it recovers or closes the log
//   door      exclusively while a process opens or closes the log
//   commit    exclusively while a process has a batch open
//
// Any thread; each lock is taken by one thread of the process at a time.

#include <atomic>
#include <cstdint>
#include <string>

#include "ids.h"

namespace lscore {

class LogBoard {
 public:
  enum class Lock : std::int64_t { kPresence, kDoor, kCommit };

  LogBoard() = default;
  ~LogBoard();
  LogBoard(LogBoard const&) = delete;
  LogBoard& operator=(LogBoard const&) = delete;

  // Leaves the door locked. Throws what ThrowCannotOpen does.
  void Open(std::string const& directory);
  // Words of this process alone, and locks that are always free.
  void OpenPrivately();

  // Waits for an exclusive lock.
  void Take(Lock lock);
  void Release(Lock lock) noexcept;
  // Returns whether no other process is present, and if so keeps others out until Share or the
  // destructor.
  bool TryBeAlone();
  void Share();

  // REQUIRES: alone.
  void Reset();

  // The last commit that readers may see.
  CommitId Published() const { return CommitId{words_->published.load()}; }
  void SetPublished(CommitId commit) { words_->published = Raw(commit); }
  // The last commit that is known to be on disk. Never decreases.
  CommitId Synced() const { return CommitId{words_->synced.load()}; }
  void RaiseSynced(CommitId commit);
  // The generation that commits are appended to.
  std::uint64_t Generation() const { return words_->generation; }
  void SetGeneration(std::uint64_t generation) { words_->generation = generation; }
  // Makes the file change, which those who watch it notice (WatchCommits).
  void ReportCommit() const noexcept;
  // A file that becomes readable with each report, and on creation. Throws if the system has no
  // more of them. Belongs to the caller; CloseKept.
  int WatchCommits() const;

  // Whether the holder of the commit lock is writing a commit. Set although the lock was free: the
  // last holder died during a commit.
  bool Writing() const { return words_->writing != 0; }
  void SetWriting(bool writing) { words_->writing = writing ? 1 : 0; }

 private:
  struct Words {
    std::atomic<std::uint64_t> published;
    std::atomic<std::uint64_t> synced;
    std::atomic<std::uint64_t> generation;
    std::atomic<std::uint64_t> writing;
  };
  static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "processes share the words");

  void Map(int flags);
  bool Set(Lock lock, int kind, bool wait) const;

  std::string path_;
  int file_ = -1;
  Words* words_ = nullptr;
};

}  // namespace lscore

#endif

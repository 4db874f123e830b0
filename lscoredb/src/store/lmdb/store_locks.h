#ifndef LSCOREDB_SRC_STORE_LOCKS_H
#define LSCOREDB_SRC_STORE_LOCKS_H

// The locks among the processes that have one directory open.
//
// The store's library marks its lock file with POSIX record locks: one while it is open, one to
// show that the process lives. Those belong to the process and vanish when any part of it closes
// any descriptor of that file, for example a backup that copies the directory. The next opener
// would then reset the table of readers while it is in use. So the locks are taken over: once the
// library has set them, the same bytes are locked through an open file description of our own,
// which only its own close unlocks. The library of another process tests these bytes as before and
// finds them locked.
//
//   lock.mdb   byte 0       shared      has the directory open
//              byte PID     exclusive   the process PID lives, and so do its readers
//              kDurable     shared      wants every commit synced, those of other processes too
//              kWriting     exclusive   writes; WriteTurn
//              kReaders     exclusive   changes the table of readers; ReadersTurn
//   data.mdb   kWriters     shared      may write
//              kFrozen      shared      reads without a slot in the table of readers
//   directory  flock        exclusive   opens the directory, one process at a time
//
// kWriters and kFrozen exclude each other among processes. For this folder's own sources.

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

struct MDB_env;

namespace lscore {

class StoreLocks {
 public:
  StoreLocks();
  ~StoreLocks();
  StoreLocks(StoreLocks const&) = delete;
  StoreLocks& operator=(StoreLocks const&) = delete;

  // Waits until nobody else is opening the directory. Then opens or creates the lock file, with
  // disk space reserved for the table of readers: the library writes it through the map, where a
  // full disk would end the process. Throws what ThrowCannotOpen does.
  void LineUp(std::string const& directory, std::uint32_t max_readers);

  // Whether nobody else has the directory open. REQUIRES: lined up.
  bool alone() const;
  // Lines up a process that may not write the directory. It reads without a slot in the table of
  // readers, so nobody may write until it ends: throws LSCOREDB_CANNOT_OPEN if a process may.
  void LineUpWithoutSlot(std::string const& directory);
  // Marks this process as one that may write, through a descriptor of the data file. Throws
  // LSCOREDB_CANNOT_OPEN while a process reads without a slot. REQUIRES: lined up.
  void BecomeWriter(std::string const& directory, int data_file);
  // Called before the library closes that descriptor.
  void CeaseWriting() noexcept;

  // Takes the library's locks over. REQUIRES: `env` was opened after LineUp and alone().
  void TakeOver(MDB_env* env);
  // Lets the next process open the directory.
  void LeaveLine() noexcept;

  // From now on every process that writes the files syncs every commit.
  void RequireSync();
  bool OthersRequireSync() const;

  int lock_file() const { return lock_file_; }

 private:
  friend class Turn;
  friend class WriteTurn;
  friend class ReadersTurn;

  // A lock on one byte of the lock file, which a mutex extends to the threads of the process.
  struct Queue {
    off_t byte;
    std::mutex threads;
  };

  void TakeTurn(Queue& queue);
  void LeaveTurn(Queue& queue) noexcept;
  void Enter(std::string const& directory);
  void MakeRoom(std::string const& path, std::uint32_t max_readers) const;

  int directory_ = -1;
  int lock_file_ = -1;
  int data_file_ = -1;     // opened by a process without a slot
  int written_file_ = -1;  // the library's descriptor
  Queue writing_;
  Queue readers_;
};

// A lock of the system in front of one of the library's own two mutexes, so that nobody waits at
// the mutex for long. The library's unlock wakes one waiter. If that one is killed before it takes
// the mutex, while the last holder takes it again, the other waiters sleep on and nobody wakes
// them. The system's locks wake every waiter. Belongs to the thread that took it.
class Turn {
 public:
  Turn() = default;  // none
  Turn(StoreLocks& locks, StoreLocks::Queue& queue) : locks_(&locks), queue_(&queue) {
    locks.TakeTurn(queue);
  }
  Turn(Turn&& other) noexcept
      : locks_(std::exchange(other.locks_, nullptr)), queue_(other.queue_) {}
  Turn& operator=(Turn&&) = delete;
  ~Turn() { End(); }
  void End() noexcept {
    if (locks_ != nullptr) std::exchange(locks_, nullptr)->LeaveTurn(*queue_);
  }

 private:
  StoreLocks* locks_ = nullptr;
  StoreLocks::Queue* queue_ = nullptr;
};

class WriteTurn : public Turn {
 public:
  WriteTurn() = default;
  explicit WriteTurn(StoreLocks& locks) : Turn(locks, locks.writing_) {}
};

// A process that reads without a slot takes none. May be taken inside a WriteTurn, not the other
// way round.
class ReadersTurn : public Turn {
 public:
  explicit ReadersTurn(StoreLocks& locks)
      : Turn(locks.lock_file() < 0 ? Turn() : Turn(locks, locks.readers_)) {}
};

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_STORE_LOCKS_H
#define LSCOREDB_SRC_STORE_LOCKS_H

// The locks by which processes that have one directory open know of each other.
//
// The store's library marks its lock file with POSIX record locks: one for having it open, one that
// says that the process lives. Those belong to the process and vanish when any part of it closes
// any descriptor of that file, a backup that copies the directory for one. Then the next opener
// would begin the table of readers anew under those who use it. So the locks are taken over: once
// the library has set them, the same bytes are locked through an open file description of our own,
// which only its own end unlocks. The library of another process asks for these bytes as before and
// sees them taken.
//
//   lock.mdb   byte 0       shared      who has the directory open
//              byte PID     exclusive   the process PID lives, and so do its readers
//              kDurable     shared      who wants every commit synced, of whatever process
//              kWriting     exclusive   who writes; WriteTurn
//              kPlaces      exclusive   who changes the table of readers; PlacesTurn
//   data.mdb   kWriters     shared      who may write
//              kFrozen      shared      who reads without a slot in the table of readers
//   directory  flock        exclusive   who is opening it, one at a time
//
// No one holds both kWriters and kFrozen while another holds the other one. For the store's own
// source files.

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

  // Waits until no one else is opening the directory. Then opens the lock file, or makes it, with
  // room on the disk for the table of readers: the library writes it through memory, where a full
  // disk would end the process. Throws what ThrowCannotOpen does.
  void LineUp(std::string const& directory, std::uint32_t max_readers);

  // Whether no one else has the directory open. REQUIRES: lined up.
  bool alone() const;
  // Lines up one who may not write the directory. He reads without a slot in the table of readers,
  // so no one writes until his end: throws LSCOREDB_CANNOT_OPEN when someone may do so.
  void LineUpWithoutSlot(std::string const& directory);
  // Says that this process may write, through a descriptor of the data file. Throws
  // LSCOREDB_CANNOT_OPEN while someone reads without a slot. REQUIRES: lined up.
  void BecomeWriter(std::string const& directory, int data_file);
  // Before the library closes that descriptor.
  void CeaseWriting() noexcept;

  // Takes the library's locks over. REQUIRES: `env` was opened since, and `alone` asked before.
  void TakeOver(MDB_env* env);
  // Lets the next one open the directory.
  void LeaveLine() noexcept;

  // From now on everyone who writes the files syncs every commit.
  void RequireSync();
  bool OthersRequireSync() const;

  int lock_file() const { return lock_file_; }

 private:
  friend class Turn;
  friend class WriteTurn;
  friend class PlacesTurn;

  // For one byte of the lock file.
  struct Queue {
    off_t byte;
    std::mutex threads;  // of the process
  };

  void TakeTurn(Queue& queue);
  void LeaveTurn(Queue& queue) noexcept;
  void Enter(std::string const& directory);
  void MakeRoom(std::string const& path, std::uint32_t max_readers) const;

  int directory_ = -1;
  int lock_file_ = -1;
  int data_file_ = -1;     // of one without a slot
  int written_file_ = -1;  // the library's
  Queue writing_;
  Queue places_;
};

// Stands before one of the library's own two locks, so that no one ever waits for that one for
// long. The library wakes one of those who wait; when that one is killed before it takes the lock,
// while the one before takes it again, the others sleep on and nobody knows of them. The system's
// locks leave no one behind. Belongs to the thread that took it.
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

// None for one who reads without a slot. It may be taken in a WriteTurn, not the other way round.
class PlacesTurn : public Turn {
 public:
  explicit PlacesTurn(StoreLocks& locks)
      : Turn(locks.lock_file() < 0 ? Turn() : Turn(locks, locks.places_)) {}
};

}  // namespace lscore

#endif

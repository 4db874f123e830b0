#include "store_locks.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fork.h"
#include "open_error.h"
#include "status.h"
#include "store_errors.h"

namespace lscore {
namespace {

constexpr mode_t kFileMode = 0640;
// Bytes after those of all process numbers.
constexpr off_t kOpen = 0;
constexpr off_t kDurable = off_t{1} << 40;
constexpr off_t kWriting = kDurable + 1;
constexpr off_t kReaders = kDurable + 2;
// Bytes of the data file far beyond all pages.
constexpr off_t kWriters = off_t{1} << 60;
constexpr off_t kFrozen = kWriters + 1;

struct flock LockOf(short kind, off_t byte) {
  struct flock lock {};
  lock.l_type = kind;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

void Lock(int file, short kind, off_t byte) {
  struct flock lock = LockOf(kind, byte);
  while (fcntl(file, F_OFD_SETLKW, &lock) != 0) {
    if (errno != EINTR) Throw(LSCOREDB_IO_ERROR);
  }
}

// Whether another open file description, or a process, has a lock on the byte.
bool IsLockedByOthers(int file, off_t byte) {
  struct flock lock = LockOf(F_WRLCK, byte);
  if (fcntl(file, F_OFD_GETLK, &lock) != 0) Throw(LSCOREDB_IO_ERROR);
  return lock.l_type != F_UNLCK;
}

// `command`: F_SETLK for locks of the process, F_OFD_SETLK for those of the open file description.
int Unlock(int file, int command) {
  struct flock all = LockOf(F_UNLCK, 0);
  all.l_len = 0;
  return fcntl(file, command, &all);
}

}  // namespace

StoreLocks::StoreLocks() : writing_{kWriting, {}}, readers_{kReaders, {}} {}

StoreLocks::~StoreLocks() {
  LeaveLine();
  CeaseWriting();
  if (data_file_ >= 0) CloseKept(data_file_);
  if (lock_file_ < 0) return;
  Unlock(lock_file_, F_OFD_SETLK);  // a forked child may still have the description open
  CloseKept(lock_file_);
}

void StoreLocks::Enter(std::string const& directory) {
  directory_ = OpenKept(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (directory_ < 0) ThrowCannotOpen(directory, errno);
  while (flock(directory_, LOCK_EX) != 0) {
    if (errno != EINTR) ThrowCannotOpen(directory, errno);
  }
}

void StoreLocks::LineUp(std::string const& directory, std::uint32_t max_readers) {
  Enter(directory);
  std::string const path = directory + "/lock.mdb";
  lock_file_ = OpenKept(path.c_str(), O_RDWR | O_CREAT, kFileMode);
  if (lock_file_ < 0) ThrowCannotOpen(path, errno);
  MakeRoom(path, max_readers);
}

// Keeps the file's size, from which the library computes the number of reader slots. A file system
// that cannot reserve space is used without.
void StoreLocks::MakeRoom(std::string const& path, std::uint32_t max_readers) const {
  constexpr off_t kLine = 64;  // bytes of a slot, and as much as three before the first
  struct stat status {};
  if (fstat(lock_file_, &status) != 0) ThrowCannotOpen(path, errno);
  off_t const needed = std::max(status.st_size, (off_t{max_readers} + 3) * kLine);
  while (fallocate(lock_file_, FALLOC_FL_KEEP_SIZE, 0, needed) != 0) {
    if (errno == EOPNOTSUPP) return;
    if (errno != EINTR) ThrowCannotOpen(path, errno);
  }
}

void StoreLocks::LineUpWithoutSlot(std::string const& directory) {
  std::string const refused = OpenError();
  std::string const path = directory + "/data.mdb";
  Enter(directory);
  data_file_ = OpenKept(path.c_str(), O_RDONLY);
  if (data_file_ < 0) ThrowCannotOpen(path, errno);
  if (IsLockedByOthers(data_file_, kWriters)) {
    NoteOpenError(refused, "another process has the database open for writing");
    Throw(LSCOREDB_CANNOT_OPEN);
  }
  Lock(data_file_, F_RDLCK, kFrozen);
}

void StoreLocks::BecomeWriter(std::string const& directory, int data_file) {
  if (IsLockedByOthers(data_file, kFrozen)) {
    NoteOpenError(directory + "/data.mdb", "a process that may not write here is reading it");
    Throw(LSCOREDB_CANNOT_OPEN);
  }
  Lock(data_file, F_RDLCK, kWriters);
  written_file_ = data_file;
}

void StoreLocks::CeaseWriting() noexcept {
  if (written_file_ >= 0) Unlock(written_file_, F_OFD_SETLK);
  written_file_ = -1;
}

bool StoreLocks::alone() const { return !IsLockedByOthers(lock_file_, kOpen); }

// The library sets its lock for a living process once, with the first reader, so a reader is begun
// and ended first.
void StoreLocks::TakeOver(MDB_env* env) {
  {
    MDB_txn* txn = nullptr;
    ReadersTurn const turn(*this);
    int const code = mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
    if (code == 0) mdb_txn_abort(txn);
    if (code != MDB_READERS_FULL) CheckStore(code);
  }
  Lock(lock_file_, F_RDLCK, kOpen);
  if (Unlock(lock_file_, F_SETLK) != 0) Throw(LSCOREDB_IO_ERROR);
  Lock(lock_file_, F_WRLCK, getpid());
}

void StoreLocks::LeaveLine() noexcept {
  if (directory_ < 0) return;
  flock(directory_, LOCK_UN);
  CloseKept(directory_);
  directory_ = -1;
}

void StoreLocks::TakeTurn(Queue& queue) {
  queue.threads.lock();
  try {
    Lock(lock_file_, F_WRLCK, queue.byte);
  } catch (...) {
    queue.threads.unlock();
    throw;
  }
}

void StoreLocks::LeaveTurn(Queue& queue) noexcept {
  struct flock lock = LockOf(F_UNLCK, queue.byte);
  fcntl(lock_file_, F_OFD_SETLK, &lock);
  queue.threads.unlock();
}

void StoreLocks::RequireSync() { Lock(lock_file_, F_RDLCK, kDurable); }

bool StoreLocks::OthersRequireSync() const { return IsLockedByOthers(lock_file_, kDurable); }

}  // namespace lscore

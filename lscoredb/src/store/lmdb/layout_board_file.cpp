#include "layout_board_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fork.h"
#include "open_error.h"
#include "status.h"

namespace lscore {
namespace {

constexpr char const* kFileName = "/layouts.lock";
constexpr mode_t kFileMode = 0640;
constexpr int kAttempts = 1000;

// Closes the file unless the constructor that opened it succeeds.
class Descriptor {
 public:
  explicit Descriptor(std::string const& path)
      : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode)) {
    if (file_ < 0) ThrowCannotOpen(path, errno);
  }
  ~Descriptor() {
    if (file_ >= 0) close(file_);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;

  int get() const { return file_; }
  void Release() { file_ = -1; }

 private:
  int file_;
};

// Waits while others hold conflicting locks.
void LockFile(std::string const& path, int file, int kind) {
  while (flock(file, kind) != 0) {
    if (errno != EINTR) ThrowCannotOpen(path, errno);
  }
}

}  // namespace

FileReservations::FileReservations(std::string const& directory) : path_(directory + kFileName) {
  Descriptor opened(path_);
  file_ = opened.get();
  Lock();
  if (alone_) BeginAnew();
  Map();
  KeepFromChildren(file_);
  opened.Release();
}

FileReservations::~FileReservations() {
  ForgetFile(file_);
  munmap(board(), sizeof(LayoutBoard));
  close(file_);
}

// Locks the file exclusively if this process is alone, otherwise shared. The process that is alone
// writes the file and may die before it is complete, so the others check it and otherwise try to be
// alone themselves. A file that stays incomplete while others hold it is not ours.
void FileReservations::Lock() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    alone_ = TryLockAlone();
    if (alone_) return;
    LockFile(path_, file_, LOCK_SH);
    if (IsWhole()) return;
    LockFile(path_, file_, LOCK_UN);
  }
  NoteOpenError(path_, "it is held by a process that has not made it");
  Throw(LSCOREDB_CANNOT_OPEN);
}

bool FileReservations::TryLockAlone() const {
  while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    if (errno != EINTR) ThrowCannotOpen(path_, errno);
  }
  return true;
}

bool FileReservations::IsWhole() const {
  struct stat status {};
  if (fstat(file_, &status) != 0) ThrowCannotOpen(path_, errno);
  return status.st_size == sizeof(LayoutBoard);
}

constexpr FileReservations::Words FileReservations::FreshWords() {
  Words words{};
  words[1 + Raw(kNoLayout) / 64] = std::uint64_t{1} << (Raw(kNoLayout) % 64);
  return words;
}

// Written instead of only extended, since a store into the map of a hole would end the process on a
// full disk. The catalogue's word comes first and is zero, which invalidates the rest if the write
// is interrupted. A file that is unused since is left alone: writing could wait for write-back.
void FileReservations::BeginAnew() const {
  static constexpr Words kFresh = FreshWords();
  if (IsWhole() && ReadWords() == kFresh) return;
  ssize_t const written = pwrite(file_, kFresh.data(), sizeof kFresh, 0);
  if (written < 0) ThrowCannotOpen(path_, errno);
  if (static_cast<std::size_t>(written) != sizeof kFresh) ThrowCannotOpen(path_, ENOSPC);
  if (!IsWhole() && ftruncate(file_, sizeof(LayoutBoard)) != 0) ThrowCannotOpen(path_, errno);
}

FileReservations::Words FileReservations::ReadWords() const {
  Words words{};
  if (pread(file_, words.data(), sizeof words, 0) < 0) ThrowCannotOpen(path_, errno);
  return words;
}

void FileReservations::Map() {
  void* const mapped =
      mmap(nullptr, sizeof(LayoutBoard), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  if (mapped == MAP_FAILED) ThrowCannotOpen(path_, errno);
  Use(*static_cast<LayoutBoard*>(mapped));
}

// Between the two locks another process may be alone for a moment. That is harmless: this process
// has not read anything yet that the other could change.
void FileReservations::Share() {
  LockFile(path_, file_, LOCK_SH);
  alone_ = false;
}

bool FileReservations::orphaned() const {
  struct stat status {};
  return fstat(file_, &status) == 0 && status.st_nlink == 0;
}

}  // namespace lscore

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

// A file that is closed again unless its owner came into being.
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

// Waits as long as others hold locks that stand against this one.
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

// Who is alone makes the file, and may die over it: then another one has to. A file that stays
// unfit though others hold it is not ours.
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

// Written, not only made long: a write into the map must not meet a full disk. The word that is
// zeroed first says that the others cannot be relied on. A file that nobody took a number from is
// left as it is, since a write may have to wait for one that is on its way to the disk.
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

// On the way from one lock to the other a second process may be alone for a moment. That does no
// harm: nothing was read yet that it could change.
void FileReservations::Share() {
  LockFile(path_, file_, LOCK_SH);
  alone_ = false;
}

bool FileReservations::orphaned() const {
  struct stat status {};
  return fstat(file_, &status) == 0 && status.st_nlink == 0;
}

}  // namespace lscore

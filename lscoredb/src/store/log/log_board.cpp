#include "log_board.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>

#include "directory.h"
#include "fork.h"
#include "log_format.h"
#include "open_error.h"
#include "system_call.h"

namespace lscore {
namespace {

constexpr mode_t kFileMode = 0640;

}  // namespace

LogBoard::~LogBoard() {
  if (words_ != nullptr) munmap(words_, sizeof(Words));
  if (file_ < 0) return;
  CloseKept(file_);
}

// New words are written as zeros instead of only extending the file: a store into the map of a hole
// would end the process with SIGBUS on a full disk.
void LogBoard::Open(std::string const& directory) {
  path_ = directory + logformat::kBoardName;
  file_ = OpenKept(path_.c_str(), O_RDWR | O_CREAT, kFileMode);
  if (file_ < 0) ThrowCannotOpen(path_, errno);
  Take(Lock::kDoor);
  off_t const size = Retry([&] { return lseek(file_, 0, SEEK_END); });
  if (size < static_cast<off_t>(sizeof(Words))) {
    CopyPermissions(directory + logformat::kImageName, file_);
    std::array<char, sizeof(Words)> const zeros{};
    auto const written = Retry([&] { return pwrite(file_, zeros.data(), zeros.size(), 0); });
    if (static_cast<std::size_t>(written) != zeros.size()) Throw(LSCOREDB_DISK_FULL);
  }
  Map(MAP_SHARED);
}

void LogBoard::OpenPrivately() { Map(MAP_PRIVATE | MAP_ANONYMOUS); }

void LogBoard::Map(int flags) {
  void* const mapped = mmap(nullptr, sizeof(Words), PROT_READ | PROT_WRITE, flags, file_, 0);
  if (mapped == MAP_FAILED) ThrowErrno();
  words_ = static_cast<Words*>(mapped);
}

// Open file description locks, one byte of the file for each: unlike POSIX record locks they belong
// to this opening of the file, not to the process, and so survive the closing of another one.
bool LogBoard::Set(Lock lock, int kind, bool wait) const {
  if (file_ < 0) return true;
  struct flock region {};
  region.l_type = static_cast<short>(kind);
  region.l_whence = SEEK_SET;
  region.l_start = static_cast<off_t>(lock);
  region.l_len = 1;
  while (fcntl(file_, wait ? F_OFD_SETLKW : F_OFD_SETLK, &region) != 0) {
    if (!wait && (errno == EAGAIN || errno == EACCES)) return false;
    if (errno != EINTR) ThrowErrno();
  }
  return true;
}

void LogBoard::Take(Lock lock) { Set(lock, F_WRLCK, true); }

void LogBoard::Release(Lock lock) noexcept {
  static_cast<void>(Guarded([&] {
    Set(lock, F_UNLCK, true);
    return LORV_STATUS_OK;
  }));
}

bool LogBoard::TryBeAlone() { return Set(Lock::kPresence, F_WRLCK, false); }

void LogBoard::Share() { Set(Lock::kPresence, F_RDLCK, true); }

void LogBoard::RaiseSynced(CommitId commit) {
  std::uint64_t now = words_->synced;
  while (now < Raw(commit) && !words_->synced.compare_exchange_weak(now, Raw(commit))) {
  }
}

// The byte behind the words, which nobody reads.
void LogBoard::ReportCommit() const noexcept {
  char const report = 0;
  static_cast<void>(pwrite(file_, &report, sizeof report, sizeof(Words)) == sizeof report);
}

int LogBoard::WatchCommits() const {
  int const watch = Retry([] { return inotify_init1(IN_CLOEXEC | IN_NONBLOCK); });
  KeepFromChildren(watch);
  if (inotify_add_watch(watch, path_.c_str(), IN_MODIFY) < 0) {
    Status const status = StatusOfSystem(errno);
    CloseKept(watch);
    Throw(status);
  }
  ReportCommit();
  return watch;
}

void LogBoard::Reset() {
  words_->published = 0;
  words_->synced = 0;
  words_->generation = 0;
  words_->writing = 0;
}

}  // namespace lscore

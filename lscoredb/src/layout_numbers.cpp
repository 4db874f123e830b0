#include "layout_numbers.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>

#include "definitions.h"
#include "status.h"

namespace lscore {
namespace {

constexpr char const* kFileName = "/layouts.lock";
constexpr mode_t kFileMode = 0640;
constexpr int kAttempts = 1000;

[[noreturn]] void ThrowErrno() {
  switch (errno) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      Throw(LSCOREDB_DISK_FULL);
    case ENOMEM:
      Throw(LSCOREDB_NO_MEMORY);
    default:
      Throw(LSCOREDB_CANNOT_OPEN);
  }
}

// A file that is closed again unless its owner came into being.
class Descriptor {
 public:
  explicit Descriptor(std::string const& path)
      : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode)) {
    if (file_ < 0) ThrowErrno();
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
void LockFile(int file, int kind) {
  while (flock(file, kind) != 0) {
    if (errno != EINTR) ThrowErrno();
  }
}

}  // namespace

LayoutNumbers::LayoutNumbers() : own_(std::make_unique<Board>()), board_(own_.get()) {
  Mark(kNoLayout);
}

LayoutNumbers::LayoutNumbers(std::string const& directory) {
  Descriptor opened(directory + kFileName);
  file_ = opened.get();
  Lock();
  if (alone_) BeginAnew();
  Map();
  opened.Release();
  Mark(kNoLayout);
}

LayoutNumbers::~LayoutNumbers() {
  if (file_ < 0) return;
  munmap(board_, sizeof(Board));
  close(file_);
}

// Who is alone makes the file, and may die over it: then another one has to. A file that stays
// unfit though others hold it is not ours.
void LayoutNumbers::Lock() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    alone_ = TryLockAlone();
    if (alone_) return;
    LockFile(file_, LOCK_SH);
    if (IsWhole()) return;
    LockFile(file_, LOCK_UN);
  }
  Throw(LSCOREDB_CANNOT_OPEN);
}

bool LayoutNumbers::TryLockAlone() const {
  while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    if (errno != EINTR) ThrowErrno();
  }
  return true;
}

bool LayoutNumbers::IsWhole() const {
  struct stat status {};
  if (fstat(file_, &status) != 0) ThrowErrno();
  return status.st_size == sizeof(Board);
}

constexpr LayoutNumbers::Words LayoutNumbers::FreshWords() {
  Words words{};
  words[1 + Raw(kNoLayout) / 64] = std::uint64_t{1} << (Raw(kNoLayout) % 64);
  return words;
}

// Written, not only made long: a write into the map must not meet a full disk. The word that is
// zeroed first says that the others cannot be relied on. A file that nobody took a number from is
// left as it is, since a write may have to wait for one that is on its way to the disk.
void LayoutNumbers::BeginAnew() const {
  static constexpr Words kFresh = FreshWords();
  if (IsWhole() && ReadWords() == kFresh) return;
  ssize_t const written = pwrite(file_, kFresh.data(), sizeof kFresh, 0);
  if (written < 0) ThrowErrno();
  if (static_cast<std::size_t>(written) != sizeof kFresh) Throw(LSCOREDB_DISK_FULL);
  if (!IsWhole() && ftruncate(file_, sizeof(Board)) != 0) ThrowErrno();
}

LayoutNumbers::Words LayoutNumbers::ReadWords() const {
  Words words{};
  if (pread(file_, words.data(), sizeof words, 0) < 0) ThrowErrno();
  return words;
}

void LayoutNumbers::Map() {
  void* const mapped = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  if (mapped == MAP_FAILED) ThrowErrno();
  board_ = static_cast<Board*>(mapped);
}

// On the way from one lock to the other a second process may be alone for a moment. That does no
// harm: nothing was read yet that it could change.
void LayoutNumbers::Share() {
  LockFile(file_, LOCK_SH);
  alone_ = false;
}

bool LayoutNumbers::orphaned() const {
  struct stat status {};
  return file_ >= 0 && fstat(file_, &status) == 0 && status.st_nlink == 0;
}

void LayoutNumbers::Mark(LayoutNumber number) {
  board_->taken[Raw(number) / 64].fetch_or(std::uint64_t{1} << (Raw(number) % 64));
}

// Layouts that were committed later than the snapshot have numbers that were taken here.
void LayoutNumbers::Complete(View const& view) {
  for (LayoutNumber const number : AllLayouts(view)) Mark(number);
  board_->complete = 1;
}

LayoutNumber LayoutNumbers::Take(View const& view) {
  if (board_->complete == 0) Complete(view);
  for (std::size_t i = 0; i < kWords; ++i) {
    std::uint64_t taken = board_->taken[i];
    while (~taken != 0) {
      int const free = std::countr_one(taken);
      if (board_->taken[i].compare_exchange_weak(taken, taken | std::uint64_t{1} << free)) {
        return LayoutNumber{static_cast<std::uint16_t>(i * 64 + static_cast<std::size_t>(free))};
      }
    }
  }
  Throw(LSCOREDB_LAYOUTS_EXHAUSTED);
}

}  // namespace lscore

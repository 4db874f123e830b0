#include "layout_numbers.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>

#include "definitions.h"
#include "fork.h"
#include "open_error.h"
#include "status.h"

namespace lscore {
namespace {

constexpr char const* kFileName = "/layouts.lock";
constexpr mode_t kFileMode = 0640;
constexpr int kAttempts = 1000;
// Fewer are looked through for numbers between them, which takes less than creating one.
constexpr std::uint64_t kManyLayouts = 256;

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

LayoutNumbers::LayoutNumbers() : own_(std::make_unique<Board>()), board_(own_.get()) {
  Mark(kNoLayout);
}

LayoutNumbers::LayoutNumbers(std::string const& directory) : path_(directory + kFileName) {
  Descriptor opened(path_);
  file_ = opened.get();
  Lock();
  if (alone_) BeginAnew();
  Map();
  KeepFromChildren(file_);
  opened.Release();
  Mark(kNoLayout);
}

LayoutNumbers::~LayoutNumbers() {
  if (file_ < 0) return;
  ForgetFile(file_);
  munmap(board_, sizeof(Board));
  close(file_);
}

// Who is alone makes the file, and may die over it: then another one has to. A file that stays
// unfit though others hold it is not ours.
void LayoutNumbers::Lock() {
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

bool LayoutNumbers::TryLockAlone() const {
  while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return false;
    if (errno != EINTR) ThrowCannotOpen(path_, errno);
  }
  return true;
}

bool LayoutNumbers::IsWhole() const {
  struct stat status {};
  if (fstat(file_, &status) != 0) ThrowCannotOpen(path_, errno);
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
  if (written < 0) ThrowCannotOpen(path_, errno);
  if (static_cast<std::size_t>(written) != sizeof kFresh) ThrowCannotOpen(path_, ENOSPC);
  if (!IsWhole() && ftruncate(file_, sizeof(Board)) != 0) ThrowCannotOpen(path_, errno);
}

LayoutNumbers::Words LayoutNumbers::ReadWords() const {
  Words words{};
  if (pread(file_, words.data(), sizeof words, 0) < 0) ThrowCannotOpen(path_, errno);
  return words;
}

void LayoutNumbers::Map() {
  void* const mapped = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
  if (mapped == MAP_FAILED) ThrowCannotOpen(path_, errno);
  board_ = static_cast<Board*>(mapped);
}

// On the way from one lock to the other a second process may be alone for a moment. That does no
// harm: nothing was read yet that it could change.
void LayoutNumbers::Share() {
  LockFile(path_, file_, LOCK_SH);
  alone_ = false;
}

bool LayoutNumbers::orphaned() const {
  struct stat status {};
  return file_ >= 0 && fstat(file_, &status) == 0 && status.st_nlink == 0;
}

bool LayoutNumbers::Mark(LayoutNumber number) {
  std::uint64_t const bit = std::uint64_t{1} << (Raw(number) % 64);
  return (board_->taken[Raw(number) / 64].fetch_or(bit) & bit) == 0;
}

void LayoutNumbers::Offer(std::vector<LayoutNumber> numbers) {
  std::lock_guard const lock(mutex_);
  offered_.assign(numbers.rbegin(), numbers.rend());
}

// What was committed later than the snapshot, or is going to be, has a number that was taken here.
std::uint64_t LayoutNumbers::FindUnmarked(View const& view) {
  std::uint64_t below = board_->unmarked_below;
  if (below != 0) return below;
  std::uint64_t const found = std::uint64_t{Raw(HighestLayout(view))} + 1;
  if (found < kManyLayouts) {
    MarkAll(view);
    return 1;
  }
  return board_->unmarked_below.compare_exchange_strong(below, found) ? found : below;
}

void LayoutNumbers::MarkAll(View const& view) {
  for (LayoutNumber const number : AllLayouts(view)) Mark(number);
  board_->unmarked_below = 1;
}

LayoutNumber LayoutNumbers::TakeOffered() {
  std::lock_guard const lock(mutex_);
  while (!offered_.empty()) {
    LayoutNumber const number = offered_.back();
    offered_.pop_back();
    if (Mark(number)) return number;
  }
  return kNoLayout;
}

LayoutNumber LayoutNumbers::TakeFrom(std::size_t first) {
  std::uint64_t below = (std::uint64_t{1} << (first % 64)) - 1;  // bits that are not to be taken
  for (std::size_t i = first / 64; i < kWords; ++i, below = 0) {
    std::uint64_t taken = board_->taken[i];
    while (~(taken | below) != 0) {
      int const free = std::countr_one(taken | below);
      if (board_->taken[i].compare_exchange_weak(taken, taken | std::uint64_t{1} << free)) {
        return LayoutNumber{static_cast<std::uint16_t>(i * 64 + static_cast<std::size_t>(free))};
      }
    }
  }
  return kNoLayout;
}

LayoutNumber LayoutNumbers::Take(View const& view) {
  LayoutNumber number = TakeOffered();
  if (number == kNoLayout) number = TakeFrom(FindUnmarked(view));
  if (number != kNoLayout) return number;
  if (board_->unmarked_below != 1) MarkAll(view);
  number = TakeFrom(0);
  if (number == kNoLayout) Throw(LSCOREDB_LAYOUTS_EXHAUSTED);
  return number;
}

}  // namespace lscore

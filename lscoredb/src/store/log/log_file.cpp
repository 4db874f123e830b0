#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "directory.h"
#include "fork.h"
#include "open_error.h"
#include "system_call.h"

namespace lscore {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::uint64_t kLeastRoom = 256 * 1024;

// Removes the first `written` bytes of the pieces, after a write that stopped short.
void Skip(std::span<iovec>& pieces, std::size_t written) {
  while (!pieces.empty() && written >= pieces.front().iov_len) {
    written -= pieces.front().iov_len;
    pieces = pieces.subspan(1);
  }
  if (written == 0) return;
  pieces.front().iov_base = static_cast<char*>(pieces.front().iov_base) + written;
  pieces.front().iov_len -= written;
}

}  // namespace

bool LogFile::Open(std::string const& path, Access access) {
  constexpr int kFlags[] = {O_RDONLY, O_RDWR, O_RDWR | O_CREAT};
  int const file = OpenKept(path.c_str(), kFlags[static_cast<int>(access)], kFileMode);
  if (file < 0 && errno == ENOENT && access != Access::kCreate) return false;
  if (file < 0) ThrowCannotOpen(path, errno);
  file_ = file;
  room_ = 0;
  return true;
}

void LogFile::TakePermissionsOf(std::string const& path) noexcept { CopyPermissions(path, file_); }

void LogFile::Close() noexcept {
  if (file_ < 0) return;
  CloseKept(file_);
  file_ = -1;
}

std::uint64_t LogFile::Size() const {
  struct stat status {};
  Retry([&] { return fstat(file_, &status); });
  return static_cast<std::uint64_t>(status.st_size);
}

// Doubles the file, within `most`. A failure, of a full disk for example, restores its length.
void LogFile::MakeRoom(std::uint64_t end, std::uint64_t most) {
  if (end <= room_) return;
  room_ = Size();
  if (end <= room_) return;
  std::uint64_t const wanted = std::max(end, std::min(most, std::max(2 * room_, kLeastRoom)));
  try {
    FillWithZeros(room_, wanted);
  } catch (Failure const&) {
    static_cast<void>(ftruncate(file_, static_cast<off_t>(room_)) == 0);
    throw;
  }
  room_ = wanted;
}

void LogFile::FillWithZeros(std::uint64_t from, std::uint64_t to) const {
  static constexpr std::array<char, 64 * 1024> kZeros{};
  while (from < to) {
    std::size_t const size = std::min<std::uint64_t>(to - from, kZeros.size());
    from += static_cast<std::uint64_t>(
        Retry([&] { return pwrite(file_, kZeros.data(), size, static_cast<off_t>(from)); }));
  }
}

void LogFile::Write(std::uint64_t offset, std::span<iovec> pieces) {
  while (!pieces.empty()) {
    auto const count = static_cast<int>(std::min<std::size_t>(pieces.size(), IOV_MAX));
    auto const written = static_cast<std::size_t>(
        Retry([&] { return pwritev(file_, pieces.data(), count, static_cast<off_t>(offset)); }));
    offset += written;
    Skip(pieces, written);
  }
}

void LogFile::Sync() {
  Retry([&] { return fdatasync(file_); });
}

std::size_t LogFile::Read(std::uint64_t offset, char* to, std::size_t size) const {
  std::size_t filled = 0;
  while (filled < size) {
    auto const got = static_cast<std::size_t>(Retry([&] {
      return pread(file_, to + filled, size - filled, static_cast<off_t>(offset + filled));
    }));
    if (got == 0) break;
    filled += got;
  }
  return filled;
}

}  // namespace lscore

#include "temporary_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "fork.h"
#include "system_call.h"

namespace lscore {
namespace {

constexpr mode_t kFileMode = 0600;

// For file systems without nameless files.
int OpenNamed(std::string const& directory) {
  std::string path = directory + "/sort-XXXXXX";
  int const file = mkostemp(path.data(), O_CLOEXEC);
  if (file >= 0) unlink(path.c_str());
  return file;
}

bool KnowsNoNameless(int error) {
  return error == EOPNOTSUPP || error == EISDIR || error == ENOENT || error == EINVAL;
}

}  // namespace

TemporaryFile::TemporaryFile(std::string const& directory)
    : file_(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kFileMode)) {
  if (file_ < 0 && KnowsNoNameless(errno)) file_ = OpenNamed(directory);
  if (file_ < 0) ThrowErrno();
  try {
    KeepFromChildren(file_);
  } catch (...) {
    close(file_);
    throw;
  }
}

TemporaryFile::~TemporaryFile() {
  if (map_ != nullptr) munmap(map_, size_);
  CloseKept(file_);
}

void TemporaryFile::Append(std::string_view bytes) {
  while (!bytes.empty()) {
    auto const written = static_cast<std::size_t>(Retry(
        [&] { return pwrite(file_, bytes.data(), bytes.size(), static_cast<off_t>(size_)); }));
    size_ += written;
    bytes.remove_prefix(written);
  }
}

void TemporaryFile::Read(std::uint64_t at, char* to, std::size_t size) const {
  while (size > 0) {
    auto const got = static_cast<std::size_t>(
        Retry([&] { return pread(file_, to, size, static_cast<off_t>(at)); }));
    if (got == 0) Throw(LSCOREDB_IO_ERROR);
    at += got;
    to += got;
    size -= got;
  }
}

std::string_view TemporaryFile::Map() {
  if (size_ == 0) return {};
  if (map_ == nullptr) {
    void* const mapped = mmap(nullptr, size_, PROT_READ, MAP_SHARED, file_, 0);
    if (mapped == MAP_FAILED) ThrowErrno();
    map_ = mapped;
  }
  return {static_cast<char const*>(map_), size_};
}

}  // namespace lscore

#ifndef LSCOREDB_SRC_LOG_FILE_H
#define LSCOREDB_SRC_LOG_FILE_H

// One file of a log. It is preallocated: filled with zeros ahead of the records, so that a sync
// writes only data and no metadata. It never shrinks. One thread of one process writes at a time;
// any may read. Failures are thrown as statuses.

#include <sys/uio.h>

#include <cstdint>
#include <span>
#include <string>

namespace lscore {

class LogFile {
 public:
  LogFile() = default;
  ~LogFile() { Close(); }
  LogFile(LogFile const&) = delete;
  LogFile& operator=(LogFile const&) = delete;

  enum class Access { kRead, kWrite, kCreate };

  // Returns false when there is no such file; kCreate makes one. Throws what ThrowCannotOpen does.
  bool Open(std::string const& path, Access access);
  // After kCreate.
  void TakePermissionsOf(std::string const& path) noexcept;
  void Close() noexcept;
  bool is_open() const { return file_ >= 0; }

  // REQUIRES, of all below: the file is open.
  std::uint64_t Size() const;
  // Preallocates up to `end`, and more up to `most`. Leaves the file unchanged when that fails.
  void MakeRoom(std::uint64_t end, std::uint64_t most);
  // REQUIRES: there is room. Uses up the pieces.
  void Write(std::uint64_t offset, std::span<iovec> pieces);
  void Sync();
  // Reads up to `size` bytes; returns how many the file had.
  std::size_t Read(std::uint64_t offset, char* to, std::size_t size) const;

 private:
  void FillWithZeros(std::uint64_t from, std::uint64_t to) const;

  int file_ = -1;
  std::uint64_t room_ = 0;  // the size of the file as last seen
};

}  // namespace lscore

#endif

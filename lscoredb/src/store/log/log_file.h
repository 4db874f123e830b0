#ifndef LSCOREDB_SRC_LOG_FILE_H
#define LSCOREDB_SRC_LOG_FILE_H

// One file of a log. It is as long as it was ever needed, and filled with zeros ahead of what is
// written, so that a sync has only bytes to write. One thread and one process at a time writes; any
// may read. Failures are thrown as statuses.

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

  // Returns false when there is no such file. With `create` there is one then.
  bool Open(std::string const& path, bool create);
  void Close() noexcept;
  bool is_open() const { return file_ >= 0; }

  // REQUIRES, of all below: the file is open.
  std::uint64_t Size() const;
  // Makes room up to `end`, and some more up to `most`. Leaves the file as it was when that fails.
  void MakeRoom(std::uint64_t end, std::uint64_t most);
  // REQUIRES: there is room. The pieces change.
  void Write(std::uint64_t offset, std::span<iovec> pieces);
  void Sync();
  // Reads up to `size` bytes; returns how many there were.
  std::size_t Read(std::uint64_t offset, char* to, std::size_t size) const;

 private:
  void FillWithZeros(std::uint64_t from, std::uint64_t to) const;

  int file_ = -1;
  std::uint64_t room_ = 0;  // that is known to be there
};

}  // namespace lscore

#endif

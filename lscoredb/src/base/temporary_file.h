#ifndef LSCOREDB_SRC_TEMPORARY_FILE_H
#define LSCOREDB_SRC_TEMPORARY_FILE_H

// A nameless file, for data that does not fit into memory. It is written once from beginning to
// end, and vanishes with the object or the process. One thread at a time; several may read.
//
// Failures are thrown: LSCOREDB_DISK_FULL, LSCOREDB_IO_ERROR, LSCOREDB_NO_MEMORY.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace lscore {

class TemporaryFile {
 public:
  explicit TemporaryFile(std::string const& directory);
  ~TemporaryFile();
  TemporaryFile(TemporaryFile const&) = delete;
  TemporaryFile& operator=(TemporaryFile const&) = delete;

  void Append(std::string_view bytes);
  std::uint64_t size() const { return size_; }
  // REQUIRES: the file is that long.
  void Read(std::uint64_t at, char* to, std::size_t size) const;
  // All of the file, until the object ends. REQUIRES: nothing is appended any more.
  std::string_view Map();

 private:
  int file_ = -1;
  std::uint64_t size_ = 0;
  void* map_ = nullptr;
};

}  // namespace lscore

#endif

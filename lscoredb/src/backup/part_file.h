#ifndef LSCOREDB_SRC_PART_FILE_H
#define LSCOREDB_SRC_PART_FILE_H

// The file of a part of a backup, from beginning to end, with its checksum. One thread.

#include <cstdint>
#include <string>
#include <string_view>

#include "backup_folder.h"
#include "log_file.h"

namespace lscore {

inline constexpr std::size_t kPartBuffer = std::size_t{1} << 20;

class PartWriter {
 public:
  // A file of that name is replaced.
  explicit PartWriter(std::string const& path);

  void Append(std::string_view bytes);
  // Writes zeros up to a place where a record may begin.
  void Align();
  // Writes the rest, and syncs.
  void Finish();

  std::uint64_t size() const { return size_; }
  std::uint32_t checksum() const { return checksum_; }

 private:
  void Flush();

  LogFile file_;
  std::string buffer_;
  std::uint64_t size_ = 0;
  std::uint32_t checksum_;
};

// Throws LSCOREDB_BACKUP_DAMAGED, with the reason, if the file is missing or is not what the
// manifest says.
class PartReader {
 public:
  PartReader(BackupFolder const& folder, BackupPart const& part);

  std::uint64_t left() const { return size_ - taken_; }
  // The next bytes, valid until the next call. REQUIRES, of both: that many are left.
  std::string_view Peek(std::size_t size);
  std::string_view Take(std::size_t size);
  // Reads the rest and compares the checksum.
  void Finish();
  [[noreturn]] void Refuse(std::string const& reason) const;

 private:
  std::string const path_;
  LogFile file_;
  std::string buffer_;
  std::size_t begin_ = 0;  // of what is left in the buffer
  std::uint64_t taken_ = 0;
  std::uint64_t const size_;
  std::uint32_t const expected_;
  std::uint32_t checksum_;
};

}  // namespace lscore

#endif

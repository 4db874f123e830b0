#include "part_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "crc32c.h"
#include "log_format.h"
#include "status.h"

namespace lscore {

PartWriter::PartWriter(std::string const& path) : checksum_(Crc32c({})) {
  unlink(path.c_str());
  file_.Open(path, LogFile::Access::kCreate);
}

void PartWriter::Append(std::string_view bytes) {
  checksum_ = Crc32cExtend(checksum_, bytes);
  buffer_.append(bytes);
  if (buffer_.size() >= kPartBuffer) Flush();
}

void PartWriter::Align() {
  constexpr std::array<char, logformat::kAlignment> kZeros{};
  std::uint64_t const end = size_ + buffer_.size();
  Append({kZeros.data(), logformat::Aligned(end) - end});
}

void PartWriter::Flush() {
  std::array<iovec, 1> piece{{{buffer_.data(), buffer_.size()}}};
  file_.Write(size_, piece);
  size_ += buffer_.size();
  buffer_.clear();
}

void PartWriter::Finish() {
  Flush();
  file_.Sync();
}

PartReader::PartReader(BackupFolder const& folder, BackupPart const& part)
    : path_(folder.PathOf(part)),
      size_(part.size),
      expected_(part.checksum),
      checksum_(Crc32c({})) {
  if (!file_.Open(path_, LogFile::Access::kRead)) Refuse("the file is missing");
  if (std::uint64_t const size = file_.Size(); size != size_) {
    Refuse("it has " + std::to_string(size) + " bytes instead of " + std::to_string(size_));
  }
}

void PartReader::Refuse(std::string const& reason) const {
  RefuseBackup(LSCOREDB_BACKUP_DAMAGED, path_, reason);
}

std::string_view PartReader::Peek(std::size_t size) {
  std::size_t const ready = buffer_.size() - begin_;
  if (ready < size) {
    buffer_.erase(0, begin_);
    begin_ = 0;
    std::uint64_t const wanted = std::min<std::uint64_t>(left(), std::max(size, kPartBuffer));
    buffer_.resize(wanted);
    std::size_t const got = file_.Read(taken_ + ready, buffer_.data() + ready, wanted - ready);
    if (got < wanted - ready) Refuse("it ends early");
  }
  return std::string_view(buffer_).substr(begin_, size);
}

std::string_view PartReader::Take(std::size_t size) {
  std::string_view const bytes = Peek(size);
  checksum_ = Crc32cExtend(checksum_, bytes);
  begin_ += size;
  taken_ += size;
  return bytes;
}

void PartReader::Finish() {
  while (left() > 0) Take(std::min<std::uint64_t>(left(), kPartBuffer));
  if (checksum_ != expected_) Refuse("its bytes are damaged");
}

}  // namespace lscore

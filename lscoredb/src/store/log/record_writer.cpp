#include "record_writer.h"

#include <cstring>
#include <limits>
#include <utility>

#include "crc32c.h"
#include "status.h"

namespace lscore {

using logformat::kChangeHead;
using logformat::kHeadSize;

// Memory of the overlay is mostly contiguous, so a record is one piece, or a few of them.
char* RecordWriter::Take(std::size_t size) {
  char* const at = overlay_.TakeBytes(size);
  bool const adjoins = !pieces_.empty() &&
                       static_cast<char*>(pieces_.back().iov_base) + pieces_.back().iov_len == at;
  if (adjoins) {
    pieces_.back().iov_len += size;
  } else {
    pieces_.push_back({at, size});
  }
  size_ += size;
  return at;
}

void RecordWriter::Begin() {
  if (empty()) Take(kHeadSize);
}

KeyValue RecordWriter::Add(logformat::Change const& change) {
  if (change.value.size() > std::numeric_limits<std::uint32_t>::max()) Throw(LSCOREDB_TOO_LARGE);
  Begin();
  char* at = Take(kChangeHead + change.key.size() + change.value.size());
  auto const kind = static_cast<std::uint8_t>(change.tree);
  StoreAt(at, static_cast<std::uint32_t>(change.value.size()));
  StoreAt(at + 4, static_cast<std::uint16_t>(change.key.size()));
  StoreAt(at + 6, static_cast<std::uint8_t>(change.deleted ? kind | logformat::kDeleted : kind));
  StoreAt(at + 7, std::uint8_t{0});
  at += kChangeHead;
  if (!change.key.empty()) std::memcpy(at, change.key.data(), change.key.size());
  char* const value = at + change.key.size();
  if (!change.value.empty()) std::memcpy(value, change.value.data(), change.value.size());
  return {{at, change.key.size()}, {value, change.value.size()}};
}

std::vector<iovec>& RecordWriter::Finish(logformat::Head& head,
                                         logformat::Identity const& identity) {
  char* const first = static_cast<char*>(pieces_.front().iov_base);
  head.size = size_;
  std::memcpy(first, &head, kHeadSize);
  std::uint32_t checksum = Crc32c(logformat::BytesOf(identity));
  std::size_t skipped = logformat::kCheckedFrom;
  for (iovec const& piece : pieces_) {
    std::string_view const bytes(static_cast<char const*>(piece.iov_base), piece.iov_len);
    checksum = Crc32cExtend(checksum, bytes.substr(std::exchange(skipped, 0)));
  }
  head.checksum = checksum;
  StoreAt(first, checksum);
  return pieces_;
}

}  // namespace lscore

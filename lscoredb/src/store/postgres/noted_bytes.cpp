#include "noted_bytes.h"

#include <cstdint>

#include "bytes.h"
#include "crc32c.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::size_t kChecksumSize = 4;

std::uint32_t ChecksumOf(CommitId commit, std::string_view rest) {
  std::uint64_t const number = Raw(commit);
  return Crc32c(BytesOf(number), rest);
}

}  // namespace

void NotedBytes::Add(std::string_view note) {
  if (bytes_.empty()) bytes_.assign(kChecksumSize, '\0');
  Append(bytes_, static_cast<std::uint32_t>(note.size()));
  bytes_ += note;
}

std::string_view NotedBytes::Finish(CommitId commit) {
  if (!bytes_.empty()) {
    StoreAt(bytes_.data(), ChecksumOf(commit, std::string_view(bytes_).substr(kChecksumSize)));
  }
  return bytes_;
}

std::vector<std::string_view> NotesIn(std::string_view bytes, CommitId commit) {
  std::vector<std::string_view> notes;
  if (bytes.empty()) return notes;
  FieldReader fields(bytes);
  auto const checksum = fields.Next<std::uint32_t>();
  if (!fields.ok()) Throw(LSCOREDB_DAMAGED);
  std::string_view const rest = bytes.substr(kChecksumSize);
  bool const intact =
      checksum == ChecksumOf(commit, rest) || checksum == ChecksumOf(CommitId{0}, rest);
  if (!intact) Throw(LSCOREDB_DAMAGED);
  while (!fields.at_end()) {
    auto const size = fields.Next<std::uint32_t>();
    notes.push_back(fields.Bytes(size));
    if (!fields.ok()) Throw(LSCOREDB_DAMAGED);
  }
  return notes;
}

}  // namespace lscore

#include "log_format.h"

#include "checksummed_record.h"
#include "crc32c.h"
#include "format.h"
#include "status.h"

namespace lscore::logformat {
namespace {

constexpr std::size_t kPositionSize = kIdentitySize + 8 + 8 + 4 + 1;
constexpr std::size_t kVersionAt = format::kMagic.size();

// 0: it has no format.
std::uint32_t VersionOf(View const& image) {
  std::string_view record;
  if (!image.Get(Tree::kMeta, format::kFormatKey, &record)) return 0;
  if (record.size() < kVersionAt + sizeof(std::uint32_t)) return 0;
  return Load<std::uint32_t>(record.data() + kVersionAt);
}

bool FormatSaysLog(View const& image) {
  std::uint32_t const version = VersionOf(image);
  return version == format::kLogVersion || version == format::kChangesVersion;
}

std::string WithVersion(std::uint32_t version, std::string_view content_format) {
  std::string record = format::FormatRecord(version);
  record.append(content_format.substr(kVersionAt));
  return record;
}

bool KeyFits(Tree tree, std::size_t size) {
  if (tree == kNote) return size == 0;
  if (tree > kNote) return false;
  return tree == Tree::kRows ? size == sizeof(std::uint64_t) : size > 0 && size <= kMaxKeySize;
}

}  // namespace

std::string TitleOf(Identity const& identity) {
  std::string title(kTitleMark);
  title.append(BytesOf(identity));
  Append(title, Crc32c(title));
  title.resize(kTitleSize, '\0');
  return title;
}

std::optional<ImagePosition> FindPosition(View const& image) {
  std::string_view record;
  bool const there = GetChecked(image, Tree::kMeta, kImageKey, &record);
  if (there != FormatSaysLog(image)) Throw(LSCOREDB_DAMAGED);
  if (!there) return std::nullopt;
  if (record.size() != kPositionSize) Throw(LSCOREDB_DAMAGED);
  ImagePosition position;
  FieldReader fields(record);
  std::string_view const identity = fields.Bytes(kIdentitySize);
  std::copy(identity.begin(), identity.end(), position.identity.begin());
  position.generation = Generation{fields.Next<std::uint64_t>()};
  position.commit = CommitId{fields.Next<std::uint64_t>()};
  position.before = fields.Next<std::uint32_t>();
  position.clean = fields.Next<std::uint8_t>() != 0;
  return position;
}

ImagePosition ReadPosition(View const& image) {
  std::optional<ImagePosition> const position = FindPosition(image);
  if (!position.has_value()) Throw(LSCOREDB_DAMAGED);
  return *position;
}

void WritePosition(Batch& image, ImagePosition const& position) {
  std::string record(BytesOf(position.identity));
  Append(record, Raw(position.generation));
  Append(record, Raw(position.commit));
  Append(record, position.before);
  record.push_back(position.clean ? 1 : 0);
  PutChecked(image, Tree::kMeta, kImageKey, record);
}

bool RefusesLog(View const& image) {
  std::string_view nothing;
  return GetChecked(image, Tree::kMeta, format::kNoLogKey, &nothing);
}

void WriteRefusal(Batch& image) { PutChecked(image, Tree::kMeta, format::kNoLogKey, {}); }

Retention ReadRetention(View const& image) {
  std::string_view record;
  bool const there = GetChecked(image, Tree::kMeta, kChangesKey, &record);
  if (there != (VersionOf(image) == format::kChangesVersion)) Throw(LSCOREDB_DAMAGED);
  if (!there) return {};
  FieldReader fields(record);
  Retention retention;
  retention.bytes = fields.Next<std::uint64_t>();
  retention.seconds = fields.Next<std::uint64_t>();
  if (!fields.at_end() || !retention.keeps()) Throw(LSCOREDB_DAMAGED);
  return retention;
}

void WriteRetention(Batch& image, Retention const& retention) {
  std::string const content = ContentFormat(image);
  std::uint32_t const version = retention.keeps() ? format::kChangesVersion : format::kLogVersion;
  image.Put(Tree::kMeta, format::kFormatKey, WithVersion(version, content));
  if (!retention.keeps()) {
    image.Delete(Tree::kMeta, kChangesKey);
    return;
  }
  std::string record;
  Append(record, retention.bytes);
  Append(record, retention.seconds);
  PutChecked(image, Tree::kMeta, kChangesKey, record);
}

std::string ImageFormat(View const& image, std::string_view content_format) {
  std::uint32_t const version = FormatSaysLog(image) ? VersionOf(image) : format::kLogVersion;
  return WithVersion(version, content_format);
}

std::string ContentFormat(View const& image) {
  std::string_view record;
  if (!image.Get(Tree::kMeta, format::kFormatKey, &record)) Throw(LSCOREDB_DAMAGED);
  std::size_t const skipped = kVersionAt + sizeof(std::uint32_t);
  if (record.size() < skipped + sizeof(std::uint32_t)) Throw(LSCOREDB_DAMAGED);
  return std::string(format::kMagic).append(record.substr(skipped));
}

bool IsWhole(Identity const& identity, std::string_view record) {
  std::uint32_t const checksum = Crc32c(BytesOf(identity), record.substr(kCheckedFrom));
  return Load<std::uint32_t>(record.data()) == checksum;
}

bool NextChange(std::string_view& rest, Change* change) {
  if (rest.empty()) return false;
  FieldReader fields(rest);
  auto const value_size = fields.Next<std::uint32_t>();
  auto const key_size = fields.Next<std::uint16_t>();
  auto const kind = fields.Next<std::uint8_t>();
  fields.Next<std::uint8_t>();
  change->deleted = (kind & kDeleted) != 0;
  change->tree = static_cast<Tree>(kind & ~kDeleted);
  change->key = fields.Bytes(key_size);
  change->value = fields.Bytes(value_size);
  if (!fields.ok() || !KeyFits(change->tree, key_size)) Throw(LSCOREDB_DAMAGED);
  rest.remove_prefix(kChangeHead + key_size + value_size);
  return true;
}

}  // namespace lscore::logformat

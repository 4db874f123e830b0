#include "backup_format.h"

#include <algorithm>

#include "bytes.h"
#include "crc32c.h"
#include "status.h"

namespace lscore::backupformat {
namespace {

constexpr std::string_view kManifestMark = "lscorbak";
constexpr std::string_view kIncrementMark = "lscorinc";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kHeadSize = 48;
constexpr std::size_t kPartSize = 72;
constexpr std::size_t kDigits = 8;
constexpr std::uint32_t kFull = 1;
constexpr std::uint32_t kIncrement = 2;
constexpr std::string_view kPrefix = "part-";
constexpr std::string_view kFullSuffix = ".full";
constexpr std::string_view kIncrementSuffix = ".increment";

void AppendPart(std::string& bytes, BackupPart const& part) {
  Append(bytes, part.full ? kFull : kIncrement);
  Append(bytes, part.checksum);
  Append(bytes, Raw(part.first));
  Append(bytes, Raw(part.last));
  Append(bytes, part.time);
  Append(bytes, part.size);
  bytes.append(logformat::BytesOf(part.record.log));
  Append(bytes, std::uint32_t{part.record.known});
  Append(bytes, part.record.checksum);
  Append(bytes, part.record.before);
  Append(bytes, part.number);
}

BackupPart NextPart(FieldReader& fields) {
  BackupPart part;
  auto const kind = fields.Next<std::uint32_t>();
  part.full = kind == kFull;
  part.checksum = fields.Next<std::uint32_t>();
  part.first = CommitId{fields.Next<std::uint64_t>()};
  part.last = CommitId{fields.Next<std::uint64_t>()};
  part.time = fields.Next<std::uint64_t>();
  part.size = fields.Next<std::uint64_t>();
  std::string_view const log = fields.Bytes(logformat::kIdentitySize);
  std::copy(log.begin(), log.end(), part.record.log.begin());
  part.record.known = fields.Next<std::uint32_t>() != 0;
  part.record.checksum = fields.Next<std::uint32_t>();
  part.record.before = fields.Next<std::uint32_t>();
  part.number = fields.Next<std::uint32_t>();
  bool const kind_known = kind == kFull || kind == kIncrement;
  if (!kind_known || part.first > part.last) Throw(LSCOREDB_BACKUP_DAMAGED);
  return part;
}

// The first part is a full one, and each increment goes on where the part before it ends.
void CheckOrder(std::vector<BackupPart> const& parts) {
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0 && parts[i].number <= parts[i - 1].number) Throw(LSCOREDB_BACKUP_DAMAGED);
    if (parts[i].full) continue;
    bool const goes_on = i > 0 && Raw(parts[i].first) == Raw(parts[i - 1].last) + 1;
    if (!goes_on) Throw(LSCOREDB_BACKUP_DAMAGED);
  }
}

}  // namespace

std::string NameOf(BackupPart const& part) {
  std::string const number = std::to_string(part.number);
  std::string name(kPrefix);
  if (number.size() < kDigits) name.append(kDigits - number.size(), '0');
  return name.append(number).append(part.full ? kFullSuffix : kIncrementSuffix);
}

bool IsPartName(std::string_view name) {
  if (!name.starts_with(kPrefix)) return false;
  name.remove_prefix(kPrefix.size());
  std::size_t const digits = name.find_first_not_of("0123456789");
  if (digits == std::string_view::npos || digits < kDigits) return false;
  return name.substr(digits) == kFullSuffix || name.substr(digits) == kIncrementSuffix;
}

std::string BytesOf(BackupManifest const& manifest) {
  std::string bytes(kManifestMark);
  Append(bytes, kVersion);
  Append(bytes, std::uint32_t{manifest.has_log});
  Append(bytes, manifest.identity);
  Append(bytes, manifest.retention.bytes);
  Append(bytes, manifest.retention.seconds);
  Append(bytes, std::uint64_t{manifest.parts.size()});
  for (BackupPart const& part : manifest.parts) AppendPart(bytes, part);
  Append(bytes, Crc32c(bytes));
  return bytes;
}

BackupManifest ParseManifest(std::string_view bytes) {
  FieldReader fields(bytes);
  if (fields.Bytes(kManifestMark.size()) != kManifestMark) Throw(LSCOREDB_BACKUP_DAMAGED);
  auto const version = fields.Next<std::uint32_t>();
  if (fields.ok() && version > kVersion) Throw(LSCOREDB_NEWER_FORMAT);
  if (bytes.size() < kHeadSize + sizeof(std::uint32_t)) Throw(LSCOREDB_BACKUP_DAMAGED);
  std::string_view const checked = bytes.substr(0, bytes.size() - sizeof(std::uint32_t));
  bool const right = Load<std::uint32_t>(checked.data() + checked.size()) == Crc32c(checked);
  BackupManifest manifest;
  manifest.has_log = fields.Next<std::uint32_t>() != 0;
  manifest.identity = fields.Next<std::uint64_t>();
  manifest.retention.bytes = fields.Next<std::uint64_t>();
  manifest.retention.seconds = fields.Next<std::uint64_t>();
  auto const count = fields.Next<std::uint64_t>();
  if (!right || version != kVersion || count != (checked.size() - kHeadSize) / kPartSize ||
      (checked.size() - kHeadSize) % kPartSize != 0) {
    Throw(LSCOREDB_BACKUP_DAMAGED);
  }
  for (std::uint64_t i = 0; i < count; ++i) manifest.parts.push_back(NextPart(fields));
  CheckOrder(manifest.parts);
  return manifest;
}

std::string IncrementTitle(logformat::Identity const& log, CommitId first) {
  std::string title(kIncrementMark);
  title.append(logformat::BytesOf(log));
  Append(title, Raw(first));
  return title;
}

}  // namespace lscore::backupformat

#include "checksummed_record.h"

#include "bytes.h"
#include "crc32c.h"
#include "status.h"

namespace lscore {

void AppendChecksum(std::string_view key, std::string& record) {
  Append(record, Crc32c(key, record));
}

bool HasValidChecksum(std::string_view key, std::string_view stored_record) {
  if (stored_record.size() < kChecksumSize) return false;
  std::string_view const record = stored_record.substr(0, stored_record.size() - kChecksumSize);
  return Load<std::uint32_t>(record.data() + record.size()) == Crc32c(key, record);
}

std::string_view StripChecksum(std::string_view key, std::string_view stored_record) {
  if (!HasValidChecksum(key, stored_record)) Throw(LSCOREDB_DAMAGED);
  return stored_record.substr(0, stored_record.size() - kChecksumSize);
}

bool GetChecked(View const& view, Tree tree, std::string_view key, std::string_view* record) {
  std::string_view stored_record;
  if (!view.Get(tree, key, &stored_record)) return false;
  *record = StripChecksum(key, stored_record);
  return true;
}

void PutChecked(Batch& batch, Tree tree, std::string_view key, std::string record) {
  AppendChecksum(key, record);
  batch.Put(tree, key, record);
}

}  // namespace lscore

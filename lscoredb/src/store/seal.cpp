#include "seal.h"

#include "bytes.h"
#include "crc32c.h"
#include "status.h"

namespace lscore {

void Seal(std::string_view key, std::string& record) { Append(record, Crc32c(key, record)); }

bool IsSealed(std::string_view key, std::string_view sealed) {
  if (sealed.size() < kSealSize) return false;
  std::string_view const record = sealed.substr(0, sealed.size() - kSealSize);
  return Load<std::uint32_t>(record.data() + record.size()) == Crc32c(key, record);
}

std::string_view Unseal(std::string_view key, std::string_view sealed) {
  if (!IsSealed(key, sealed)) Throw(LSCOREDB_DAMAGED);
  return sealed.substr(0, sealed.size() - kSealSize);
}

bool GetSealed(View const& view, Tree tree, std::string_view key, std::string_view* record) {
  std::string_view sealed;
  if (!view.Get(tree, key, &sealed)) return false;
  *record = Unseal(key, sealed);
  return true;
}

void PutSealed(Batch& batch, Tree tree, std::string_view key, std::string record) {
  Seal(key, record);
  batch.Put(tree, key, record);
}

}  // namespace lscore

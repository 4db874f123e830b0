#include "identity.h"

#include <random>
#include <string>

#include "bytes.h"
#include "checksummed_record.h"
#include "format.h"
#include "status.h"

namespace lscore {
namespace {

// Documents carry the number, and many readers of JSON keep numbers as doubles.
constexpr unsigned kBits = 53;

std::uint64_t Draw() {
  std::random_device device;
  std::uint64_t const bits = std::uint64_t{device()} << 32 | device();
  return bits >> (64 - kBits) | 1;  // never 0
}

}  // namespace

std::uint64_t ReadIdentity(View const& view) {
  std::string_view record;
  if (!GetChecked(view, Tree::kMeta, format::kIdentityKey, &record)) return 0;
  FieldReader fields(record);
  auto const identity = fields.Next<std::uint64_t>();
  if (!fields.ok() || identity == 0) Throw(LSCOREDB_DAMAGED);
  return identity;
}

void RenewIdentity(Batch& batch) {
  std::string record;
  Append(record, Draw());
  PutChecked(batch, Tree::kMeta, format::kIdentityKey, record);
}

std::uint64_t DatabaseIdentity::Get() {
  if (std::uint64_t const known = committed_; known != 0) return known;
  std::unique_ptr<Snapshot> snapshot = store_.Begin();
  std::uint64_t identity = 0;
  Status const status = Guarded([&] {
    identity = ReadIdentity(*snapshot);
    return LORV_STATUS_OK;
  });
  store_.End(std::move(snapshot));
  Check(status);
  if (identity != 0) committed_ = identity;
  return identity;
}

// A new one is cached when it is read back from the store, since the batch may still fail.
void DatabaseIdentity::Assure(Batch& batch) {
  if (committed_ != 0) return;
  std::uint64_t const identity = ReadIdentity(batch);
  if (identity != 0) {
    committed_ = identity;
    return;
  }
  RenewIdentity(batch);
}

}  // namespace lscore

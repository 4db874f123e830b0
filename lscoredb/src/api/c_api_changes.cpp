#include <lscoredb/changes.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "change_reader.h"
#include "status.h"

namespace lscore {
namespace {

template <typename Work>
Status WithStore(lscoredb* database, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    return work(database->database->store());
  });
}

template <typename Work>
Status WithReader(lscoredb_changes* changes, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    if (changes == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(changes->owner)) return LSCOREDB_OF_PARENT;
    return work(changes->reader);
  });
}

}  // namespace
}  // namespace lscore

uint32_t lscoredb_keep_changes(lscoredb* database, uint64_t bytes, uint64_t seconds) {
  return lscore::WithStore(database, [&](lscore::Store& store) -> lscore::Status {
    store.KeepChanges({bytes, seconds});
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_kept(lscoredb* database, lscoredb_kept_changes* out) {
  return lscore::WithStore(database, [&](lscore::Store& store) -> lscore::Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (out->size < sizeof out->size) return LSCOREDB_INVALID_ARGUMENT;
    lscore::KeptChanges const kept = store.Kept();
    lscoredb_kept_changes all{};
    all.size = out->size;
    all.bytes = kept.retention.bytes;
    all.seconds = kept.retention.seconds;
    all.first = lscore::Raw(kept.first);
    all.last = lscore::Raw(kept.last);
    std::memcpy(out, &all, std::min(out->size, sizeof all));
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_changes_open(lscoredb* database, uint64_t commit, uint32_t place,
                               lscoredb_changes** out) {
  return lscore::WithStore(database, [&](lscore::Store&) -> lscore::Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = std::make_unique<lscoredb_changes>(*database, commit, place).release();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_changes_close(lscoredb_changes* reader) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (reader == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (lscore::IsOfParent(reader->owner)) return LORV_STATUS_OK;  // the parent still has it open
    std::unique_ptr<lscoredb_changes> const closed(reader);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_changes_next(lscoredb_changes* reader, lscoredb_change const** out) {
  return lscore::WithReader(reader, [&](lscore::ChangeReader& changes) -> lscore::Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = changes.Next();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_changes_wait(lscoredb_changes* reader, int32_t milliseconds, uint32_t* out) {
  return lscore::WithReader(reader, [&](lscore::ChangeReader& changes) -> lscore::Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = changes.Wait(milliseconds) ? 1 : 0;
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_changes_file(lscoredb_changes* reader, int* out) {
  return lscore::WithReader(reader, [&](lscore::ChangeReader& changes) -> lscore::Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = changes.source().File();
    return LORV_STATUS_OK;
  });
}

#include <lscoredb/host.h>
#include <lscoredb/refused_key.h>
#include <lscoredb/require.h>

#include <algorithm>
#include <cstring>

#include "c_api.h"
#include "open_error.h"
#include "open_store.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr std::uint64_t kSmallestFile = 64 * 1024;
constexpr std::uint32_t kMostReaders = 65536;  // each takes a line of the lock file
constexpr std::uint64_t kMostRowMemory = std::uint64_t{1} << 40;
constexpr std::uint64_t kLeastLog = 64 * 1024;
constexpr std::uint64_t kMostLog = std::uint64_t{1} << 30;
// Fields that the caller's record is too short for count as 0.
lscoredb_options OptionsOf(lscoredb_options const* given) {
  lscoredb_options options{};
  if (given == nullptr) return options;
  if (given->size < sizeof given->size) Throw(LSCOREDB_INVALID_ARGUMENT);
  std::memcpy(&options, given, std::min(given->size, sizeof options));
  return options;
}

void TakeLogOptions(lscoredb_options const& options, StoreOptions& store) {
  if (options.log > LSCOREDB_SAME_LOG) Throw(LSCOREDB_INVALID_ARGUMENT);
  constexpr LogWish kWishes[] = {LogWish::kUnlessRefused, LogWish::kOne, LogWish::kNone,
                                 LogWish::kAsItIs};
  store.log = kWishes[options.log];
  if (options.log_limit == 0) return;
  if (options.log_limit < kLeastLog || options.log_limit > kMostLog) {
    Throw(LSCOREDB_INVALID_ARGUMENT);
  }
  store.log_limit = options.log_limit;
}

StoreOptions StoreOptionsOf(lscoredb_options const& options) {
  if (options.durability > LSCOREDB_NO_SYNC || options.verify > 1) Throw(LSCOREDB_INVALID_ARGUMENT);
  if (options.max_readers > kMostReaders) Throw(LSCOREDB_INVALID_ARGUMENT);
  StoreOptions store;
  if (options.access > LSCOREDB_ACCESS_WRITE) Throw(LSCOREDB_INVALID_ARGUMENT);
  constexpr Access kAccess[] = {Access::kAutomatic, Access::kRead, Access::kWrite};
  store.access = kAccess[options.access];
  store.verify = options.verify != 0;
  store.sync = options.durability == LSCOREDB_DURABLE;
  if (options.max_readers != 0) store.max_readers = options.max_readers;
  if (options.max_file_size != 0) {
    store.max_file_size = std::max(options.max_file_size, kSmallestFile);
  }
  if (options.row_memory == LSCOREDB_NO_ROW_MEMORY) {
    store.row_memory = 0;
  } else if (options.row_memory != 0) {
    store.row_memory = std::min(options.row_memory, kMostRowMemory);
  }
  TakeLogOptions(options, store);
  return store;
}

std::uint32_t LogOf(Store const& store) {
  constexpr std::uint32_t kLogs[] = {LSCOREDB_DEFAULT_LOG, LSCOREDB_NO_LOG, LSCOREDB_LOG};
  return kLogs[static_cast<std::size_t>(store.log_state())];
}

template <typename Work>
Status WithContext(std::uint64_t handle, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    Context* const context = Contexts().Find(handle);
    return context == nullptr ? LSCOREDB_UNKNOWN_CONTEXT : work(*context);
  });
}

Status Attach(Attachments& to, void const* key, void* value, lscoredb_release_callback release,
              void** out) {
  if (key == nullptr || value == nullptr || out == nullptr) return LSCOREDB_NULL_ARGUMENT;
  *out = to.Attach(key, value, release);
  return LORV_STATUS_OK;
}

Status FindAttached(Attachments const& in, void const* key, void** out) {
  if (key == nullptr || out == nullptr) return LSCOREDB_NULL_ARGUMENT;
  *out = in.Find(key);
  return LORV_STATUS_OK;
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lscoredb_open(char const* directory, lscoredb_options const* options, lscoredb** out) {
  return Guarded([&]() -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    StoreOptions const store = StoreOptionsOf(OptionsOf(options));
    ForgetOpenError();
    WatchedCall const call;
    auto handle = std::make_unique<lscoredb>();
    handle->database = OpenDatabase(directory, store);
    *out = handle.release();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_exists(char const* directory, uint32_t* out) {
  return Guarded([&]() -> Status {
    if (directory == nullptr || out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    ForgetOpenError();
    *out = StoreExists(directory) ? 1 : 0;
    return LORV_STATUS_OK;
  });
}

char const* lscoredb_open_error(void) { return OpenError(); }

uint32_t lscoredb_close(lscoredb* database) {
  return Guarded([&]() -> Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LORV_STATUS_OK;  // the parent still has it open
    if (database->contexts != 0) return LSCOREDB_IN_USE;
    CloseDatabase(std::move(database->database));
    std::unique_ptr<lscoredb> const closed(database);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_context_open(lscoredb* database, uint64_t* out_context) {
  return Guarded([&]() -> Status {
    if (database == nullptr || out_context == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    auto context = std::make_unique<Context>(*database);
    *out_context = Contexts().Register(*context);
    context.release();  // the handle owns it now
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_context_close(uint64_t context) {
  return WithContext(context, [&](Context& found) {
    std::unique_ptr<Context> const closed(&found);
    Contexts().Retire(context);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_database_number(uint64_t context, uint64_t* out) {
  return WithContext(context, [&](Context& found) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = found.database().number();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_identity(uint64_t context, uint64_t* out) {
  return WithContext(context, [&](Context& found) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = found.database().identity().Get();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_attach(uint64_t context, void const* key, void* value,
                         lscoredb_release_callback release, void** out) {
  return WithContext(context, [&](Context& found) {
    return Attach(found.database().attachments(), key, value, release, out);
  });
}

uint32_t lscoredb_attached(uint64_t context, void const* key, void** out) {
  return WithContext(context, [&](Context& found) {
    return FindAttached(found.database().attachments(), key, out);
  });
}

uint32_t lscoredb_context_attach(uint64_t context, void const* key, void* value,
                                 lscoredb_release_callback release, void** out) {
  return WithContext(context, [&](Context& found) {
    return Attach(found.attachments(), key, value, release, out);
  });
}

uint32_t lscoredb_context_attached(uint64_t context, void const* key, void** out) {
  return WithContext(context,
                     [&](Context& found) { return FindAttached(found.attachments(), key, out); });
}

uint32_t lscoredb_begin(uint64_t context, uint32_t flags) {
  return WithContext(context, [&](Context& found) -> Status {
    if (flags > LSCOREDB_READ_ONLY_TRANSACTION) return LSCOREDB_INVALID_ARGUMENT;
    if (found.transaction().open()) return LSCOREDB_TRANSACTION_OPEN;
    found.transaction().Begin(flags == LSCOREDB_READ_ONLY_TRANSACTION);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_commit(uint64_t context) {
  return WithTransaction(context, [](Transaction& transaction) { return transaction.Commit(); });
}

uint32_t lscoredb_refused(uint64_t context, lscoredb_refused_key* out) {
  return WithContext(context, [&](Context& found) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    std::optional<RefusedKey> const& refused = found.transaction().refused_key();
    if (!refused || out->size < sizeof out->size) return LSCOREDB_INVALID_ARGUMENT;
    lscoredb_refused_key const key{
        out->size,           Raw(refused->index), Raw(refused->object), Raw(refused->holder),
        refused->key.data(), refused->key.size()};
    std::memcpy(out, &key, std::min(out->size, sizeof key));
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_rollback(uint64_t context) {
  return WithTransaction(context, [](Transaction& transaction) {
    transaction.Rollback();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_savepoint(uint64_t context, uint64_t* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out = transaction.SetSavepoint();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_rollback_to(uint64_t context, uint64_t savepoint) {
  return WithTransaction(
      context, [&](Transaction& transaction) { return transaction.RollbackTo(savepoint); });
}

uint32_t lscoredb_release(uint64_t context, uint64_t savepoint) {
  return WithTransaction(context,
                         [&](Transaction& transaction) { return transaction.Release(savepoint); });
}

uint32_t lscoredb_require(uint64_t context, uint64_t oid) {
  return WithWriting(context,
                     [&](Transaction& transaction) { return transaction.Require(ObjectId{oid}); });
}

uint32_t lscoredb_require_set(uint64_t context, char16_t const* setspec) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr) return LSCOREDB_NULL_ARGUMENT;
    transaction.RequireSet(setspec);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_set_changed(uint64_t context, char16_t const* setspec, uint64_t* out_commit) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr || out_commit == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out_commit = Raw(transaction.LastSetChange(setspec));
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_read_scope_begin(uint64_t context) {
  return WithTransaction(context, [](Transaction& transaction) {
    transaction.BeginScope();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_read_scope_end(uint64_t context) {
  return WithTransaction(context, [](Transaction& transaction) {
    return transaction.EndScope() ? LORV_STATUS_OK : LSCOREDB_INVALID_ARGUMENT;
  });
}

uint32_t lscoredb_move_object(uint64_t context, uint64_t oid, uint16_t layout) {
  return WithWriting(context, [&](Transaction& transaction) {
    return transaction.Move(ObjectId{oid}, LayoutNumber{layout});
  });
}

uint32_t lscoredb_release_layout(uint64_t context, uint16_t layout) {
  return WithWriting(context, [&](Transaction& transaction) {
    return transaction.ReleaseLayout(LayoutNumber{layout});
  });
}

uint32_t lscoredb_close_set(uint64_t context, char16_t const* setspec, uint32_t flags) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if ((flags & ~LSCOREDB_CLOSE_EMPTY) != 0) return LSCOREDB_INVALID_ARGUMENT;
    transaction.CloseSet(setspec, (flags & LSCOREDB_CLOSE_EMPTY) != 0);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_raise_ids(lscoredb* database, uint64_t first) {
  return Guarded([&]() -> Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    database->database->ids().RaiseTo(first);
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_layout_stats(uint64_t context, uint32_t* count, lscoredb_layout_statistics* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (count == nullptr || (out == nullptr && *count != 0)) return LSCOREDB_NULL_ARGUMENT;
    std::vector<LayoutNumber> const numbers = transaction.UsedLayouts();
    for (std::size_t i = 0; i < numbers.size() && i < *count; ++i) {
      Layout const* const layout = transaction.FindLayout(numbers[i]);
      if (layout == nullptr) return LSCOREDB_DAMAGED;
      out[i] = {Raw(numbers[i]), Raw(layout->token()), transaction.CountObjects(numbers[i])};
    }
    *count = static_cast<uint32_t>(numbers.size());
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_stats(lscoredb* database, lscoredb_statistics* out) {
  return Guarded([&]() -> Status {
    if (database == nullptr || out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    if (out->size < sizeof out->size) return LSCOREDB_INVALID_ARGUMENT;
    Store const& store = database->database->store();
    StoreStatistics const found = store.Statistics();
    lscoredb_statistics const all{out->size,
                                  found.file_size,
                                  found.max_file_size,
                                  Raw(found.last_commit),
                                  Raw(found.oldest_commit),
                                  found.readers,
                                  found.max_readers,
                                  found.log_size,
                                  found.log_memory,
                                  store.read_only() ? 1u : 0u,
                                  found.round_trips,
                                  LogOf(store)};
    std::memcpy(out, &all, std::min(out->size, sizeof all));
    return LORV_STATUS_OK;
  });
}

char const* lscoredb_status_text(uint32_t status) { return StatusText(status); }

// What grows with the number of objects: loading, an index over all of them, a transaction that
// changes a million of them, opening and the check, each with its time and memory. The changes are
// compared with the same ones by the store's own calls, the check with a sequential read of the
// file and one get of the store for each entry of an index, in the order of the indexes.
//
//   bench_large DIRECTORY OBJECTS
//
// The directory is made, and has to be removed afterwards. Ten million objects take 6 GB there and
// ten minutes.

#include <fcntl.h>
#include <lmdb.h>
#include <lscoredb/host.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "measure.h"

namespace {

using bench::kMegabyte;
using bench::Measure;

constexpr std::uint64_t kBatch = 10000;
constexpr std::uint64_t kMostChanges = 1000000;  // in one transaction
constexpr char16_t kSet[] = u"all/";
constexpr std::uint64_t kNumber = 100;
constexpr std::uint64_t kName = 101;
constexpr std::uint64_t kGroup = 102;
constexpr std::uint64_t kWeight = 103;
constexpr std::uint64_t kOther = 104;
alignas(8) constexpr std::uint8_t kAnyKey[8] = {0xC0};

void Check(std::uint32_t status) {
  if (status != 0) throw std::runtime_error(lscoredb_status_text(status));
}

void CheckStore(int code) {
  if (code != 0) throw std::runtime_error(mdb_strerror(code));
}

// ---- the database -------------------------------------------------------------------------------

class Database {
 public:
  explicit Database(std::string const& directory) {
    lscoredb_options options{};
    options.size = sizeof options;
    options.durability = LSCOREDB_NO_SYNC;
    options.row_memory = LSCOREDB_NO_ROW_MEMORY;  // so that memory is what the work needs
    Check(lscoredb_open(directory.c_str(), &options, &database_));
    Check(lscoredb_context_open(database_, &context_));
  }
  ~Database() {
    lscoredb_context_close(context_);
    lscoredb_close(database_);
  }
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;

  lscoredb* handle() const { return database_; }
  std::uint64_t context() const { return context_; }
  void Begin() const { Check(lscoredb_begin(context_, LSCOREDB_READ_WRITE)); }
  void Commit() const { Check(lscoredb_commit(context_)); }

  std::uint64_t MakeIndex(std::uint64_t token, std::vector<LORVI_COLUMN_DEFINITION> columns) const {
    columns.push_back({});
    std::uint64_t index = 0;
    Check(lorvi_context_create_index(context_, token, kSet, columns.data(), 0, 0, &index));
    return index;
  }

 private:
  lscoredb* database_ = nullptr;
  std::uint64_t context_ = 0;
};

LORVI_COLUMN_DEFINITION Column(std::uint8_t type, std::uint64_t token) { return {type, 1, token}; }

std::uint64_t Mixed(std::uint64_t value) {
  value = (value ^ (value >> 31)) * 0x9E3779B97F4A7C15;
  return value ^ (value >> 29);
}

// What later parts work with.
struct Loaded {
  std::vector<std::uint64_t> indexes;
  std::vector<std::uint64_t> chosen;  // objects spread over all of them
};

void Load(Database const& database, std::uint64_t count, Loaded& loaded) {
  std::uint16_t layout = 0;
  std::uint64_t const context = database.context();
  std::vector<LORVI_COLUMN_DEFINITION> const columns{
      Column(LORV_TYPE_LONG, kNumber), Column(LORV_TYPE_STRING, kName),
      Column(LORV_TYPE_LONG, kGroup),  Column(LORV_TYPE_DOUBLE, kWeight),
      Column(LORV_TYPE_LONG, kOther),  {}};
  database.Begin();
  Check(lorvi_context_create_layout(context, 50, 0, columns.data(), 0, &layout));
  loaded.indexes.push_back(database.MakeIndex(60, {Column(LORV_TYPE_LONG, kNumber)}));
  loaded.indexes.push_back(database.MakeIndex(61, {Column(LORV_TYPE_STRING, kName)}));
  for (std::uint64_t i = 0; i < count; ++i) {
    std::uint64_t object = 0;
    std::u16string name = u"object ";
    for (char const digit : std::to_string(Mixed(i) % 1000000007)) {
      name.push_back(static_cast<char16_t>(digit));
    }
    Check(lorv_context_insert(context, layout, &object));
    Check(lorv_context_put_setspec(context, object, 0, kSet));
    Check(lorv_context_put_long(context, object, 0, 2, static_cast<std::int64_t>(Mixed(i) >> 1)));
    Check(lorv_context_put_string(context, object, 0, 3, name.c_str()));
    Check(lorv_context_put_long(context, object, 0, 4, static_cast<std::int64_t>(i % 1000)));
    Check(lorv_context_put_double(context, object, 0, 5, static_cast<double>(i)));
    Check(lorv_context_put_long(context, object, 0, 6, static_cast<std::int64_t>(i)));
    if (i % std::max<std::uint64_t>(1, count / kMostChanges) == 0 &&
        loaded.chosen.size() < kMostChanges) {
      loaded.chosen.push_back(object);
    }
    if ((i + 1) % kBatch != 0) continue;
    database.Commit();
    database.Begin();
  }
  database.Commit();
  std::shuffle(loaded.chosen.begin(), loaded.chosen.end(), std::mt19937_64(1));
}

// The data file as the store's own library opens it, with one transaction.
class StoreFile {
 public:
  StoreFile(std::string const& directory, unsigned flags) {
    unsigned const read_only = flags & MDB_RDONLY;
    CheckStore(mdb_env_create(&env_));
    CheckStore(mdb_env_set_maxdbs(env_, 8));
    CheckStore(mdb_env_set_mapsize(env_, std::size_t{64} << 30));
    CheckStore(mdb_env_open(env_, directory.c_str(), flags | MDB_NORDAHEAD | MDB_NOSYNC, 0640));
    CheckStore(mdb_txn_begin(env_, nullptr, read_only, &txn_));
    CheckStore(mdb_dbi_open(txn_, "rows", MDB_INTEGERKEY, &rows_));
    CheckStore(mdb_dbi_open(txn_, "index", 0, &index_));
  }
  ~StoreFile() {
    if (txn_ != nullptr) mdb_txn_abort(txn_);
    mdb_env_close(env_);
  }
  StoreFile(StoreFile const&) = delete;
  StoreFile& operator=(StoreFile const&) = delete;

  MDB_txn* txn() const { return txn_; }
  MDB_dbi rows() const { return rows_; }
  MDB_dbi index() const { return index_; }
  void Commit() { CheckStore(mdb_txn_commit(std::exchange(txn_, nullptr))); }

 private:
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi rows_ = 0;
  MDB_dbi index_ = 0;
};

// ---- a large transaction ------------------------------------------------------------------------

// Of each of the objects `chosen`, in no order, the number, which an index holds.
double Change(Database const& database, std::vector<std::uint64_t> const& chosen) {
  database.Begin();
  double const change = Measure("change them in one transaction", [&] {
    for (std::uint64_t const object : chosen) {
      auto const value = static_cast<std::int64_t>(Mixed(object * 3) >> 1);
      Check(lorv_context_put_long(database.context(), object, 0, 2, value));
    }
  });
  return change + Measure("commit it", [&] { database.Commit(); });
}

MDB_val Value(std::string const& bytes) { return {bytes.size(), const_cast<char*>(bytes.data())}; }

// Rows of objects and as many entries of the first index, to take out and put back.
struct Records {
  std::vector<std::pair<std::uint64_t, std::string>> rows;
  std::vector<std::pair<std::string, std::string>> entries;
};

Records ReadRecords(StoreFile const& file, std::vector<std::uint64_t> const& chosen,
                    std::uint64_t count) {
  Records records;
  MDB_val key{};
  MDB_val value{};
  for (std::uint64_t object : chosen) {
    key = {sizeof object, &object};
    CheckStore(mdb_get(file.txn(), file.rows(), &key, &value));
    records.rows.emplace_back(object,
                              std::string(static_cast<char*>(value.mv_data), value.mv_size));
  }
  MDB_cursor* cursor = nullptr;
  CheckStore(mdb_cursor_open(file.txn(), file.index(), &cursor));
  for (std::uint64_t i = 0; i < count; ++i) {
    CheckStore(mdb_cursor_get(cursor, &key, &value, MDB_NEXT));
    if (i % (count / chosen.size()) != 0) continue;
    records.entries.emplace_back(std::string(static_cast<char*>(key.mv_data), key.mv_size),
                                 std::string(static_cast<char*>(value.mv_data), value.mv_size));
  }
  mdb_cursor_close(cursor);
  std::shuffle(records.entries.begin(), records.entries.end(), std::mt19937_64(2));
  return records;
}

// What the change writes: a row each, and an entry less and one more, in no order. The state is the
// same afterwards.
double ChangeInStore(std::string const& directory, std::vector<std::uint64_t> const& chosen,
                     std::uint64_t count) {
  Records const records = ReadRecords(StoreFile(directory, MDB_RDONLY), chosen, count);
  StoreFile file(directory, 0);
  double const change = Measure("change them by the store's calls", [&] {
    for (auto const& [object, row] : records.rows) {
      std::uint64_t id = object;
      MDB_val key{sizeof id, &id};
      MDB_val value = Value(row);
      CheckStore(mdb_put(file.txn(), file.rows(), &key, &value, 0));
    }
    for (auto const& [key_bytes, bytes] : records.entries) {
      MDB_val key = Value(key_bytes);
      CheckStore(mdb_del(file.txn(), file.index(), &key, nullptr));
    }
    for (std::size_t i = records.entries.size(); i > 0; --i) {
      MDB_val key = Value(records.entries[i - 1].first);
      MDB_val value = Value(records.entries[i - 1].second);
      CheckStore(mdb_put(file.txn(), file.index(), &key, &value, 0));
    }
  });
  return change + Measure("commit it", [&] { file.Commit(); });
}

// ---- the check and what it is measured by -------------------------------------------------------

void ReadAll(std::string const& path) {
  std::vector<char> piece(kMegabyte);
  int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  while (read(file, piece.data(), piece.size()) > 0) {
  }
  close(file);
}

void DropFromMemory(std::string const& path) {
  int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  fdatasync(file);
  posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  close(file);
}

// The objects of all entries, index by index.
std::vector<std::uint64_t> ObjectsOfEntries(Database const& database,
                                            std::vector<std::uint64_t> const& indexes) {
  std::vector<std::uint64_t> objects;
  Check(lscoredb_begin(database.context(), LSCOREDB_READ_ONLY_TRANSACTION));
  for (std::uint64_t const index : indexes) {
    std::uint64_t iterator = 0;
    Check(lorv_context_create_iterator(database.context(), index, LORV_ITERATOR_FORWARD, kAnyKey,
                                       kAnyKey, &iterator));
    for (LORV_REFERENCE found{};;) {
      Check(lorv_iterator_next(iterator, &found));
      if (found.oid == 0) break;
      objects.push_back(found.oid);
    }
    Check(lorv_iterator_free(iterator));
  }
  Check(lscoredb_commit(database.context()));
  return objects;
}

void GetEach(StoreFile const& file, std::vector<std::uint64_t> const& objects) {
  for (std::uint64_t object : objects) {
    MDB_val key{sizeof object, &object};
    MDB_val value;
    CheckStore(mdb_get(file.txn(), file.rows(), &key, &value));
  }
}

void CheckBeside(std::string const& directory, std::vector<std::uint64_t> const& indexes) {
  std::string const path = directory + "/data.mdb";
  std::vector<std::uint64_t> objects;
  {
    Database const database(directory);
    objects = ObjectsOfEntries(database, indexes);
  }
  for (bool const cold : {true, false}) {
    char const* const how = cold ? "cold" : "warm";
    auto const prepare = [&] { cold ? DropFromMemory(path) : ReadAll(path); };
    auto const named = [&](char const* what) { return std::string(what) + ", " + how; };
    prepare();
    double const read = Measure(named("read the file").c_str(), [&] { ReadAll(path); });
    prepare();
    double const get = Measure(named("one get for each entry").c_str(),
                               [&] { GetEach(StoreFile(directory, MDB_RDONLY), objects); });
    prepare();
    Database const database(directory);
    double const check = Measure(named("check").c_str(), [&] {
      Check(lscoredb_check(database.handle(), 0, nullptr, nullptr));
    });
    std::printf("%-44s %9.2f\n", "check / (read + gets)", check / (read + get));
  }
}

void Run(std::string const& directory, std::uint64_t count) {
  Loaded loaded;
  {
    Database const database(directory);
    double const load = Measure("load", [&] { Load(database, count, loaded); });
    std::printf("%-44s %9.0f\n", "objects a second", static_cast<double>(count) / load);
    database.Begin();
    Measure("make an index over all", [&] {
      loaded.indexes.push_back(database.MakeIndex(
          62, {Column(LORV_TYPE_LONG, kGroup), Column(LORV_TYPE_STRING, kName)}));
    });
    Measure("commit it", [&] { database.Commit(); });
  }
  Measure("open and close", [&] { Database const database(directory); });
  auto database = std::make_unique<Database>(directory);
  double const changed = Change(*database, loaded.chosen);
  Measure("close", [&] { database.reset(); });
  double const in_store = ChangeInStore(directory, loaded.chosen, count);
  std::printf("%-44s %9.2f\n", "changes / by the store's calls", changed / in_store);
  CheckBeside(directory, loaded.indexes);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_large DIRECTORY OBJECTS\n");
    return 2;
  }
  try {
    Run(argv[1], std::strtoull(argv[2], nullptr, 10));
    return 0;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "bench_large: %s\n", failure.what());
    return 1;
  }
}

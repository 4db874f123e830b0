// LMDB used directly: rows by integer key as one record each, index entries in one tree, no copies.

#include <lmdb.h>

#include <bit>
#include <filesystem>

#include "engine.h"
#include "lmdb_records.h"

namespace bench {
namespace {

class LmdbEngine : public Engine {
 public:
  LmdbEngine(std::string directory, bool durable)
      : directory_(std::move(directory)), durable_(durable) {
    OpenTrees(true);
  }
  ~LmdbEngine() override { CloseTrees(); }

  void Create(Number first, Number count) override {
    for (Number begin = first; begin < first + count; begin += kBatch) {
      Write([&](MDB_txn* txn) {
        Number const end = std::min<Number>(begin + kBatch, first + count);
        for (Number i = begin; i < end; ++i) Insert(txn, i);
      });
    }
  }
  void CommitOne(Number number) {
    Write([&](MDB_txn* txn) { Insert(txn, number); });
  }

  Sum ReadOne() override {
    Sum sum = 0;
    Read([&] {
      for (Number const i : selected()) sum += Bits(Get(read_, i)->plain);
    });
    return sum;
  }
  Sum ReadOneAlone() override {
    Sum sum = 0;
    for (Number const i : selected()) Read([&] { sum += Bits(Get(read_, i)->plain); });
    return sum;
  }
  Sum ReadAll() override {
    Sum sum = 0;
    Read([&] {
      for (Number const i : selected()) {
        Record const& record = *Get(read_, i);
        sum += Bits(record.plain) + Bits(record.indexed) + Bits(record.weight) + record.name[7] +
               (record.other != 0);
      }
    });
    return sum;
  }
  Sum Find() override {
    Sum sum = 0;
    Read([&] {
      Check(mdb_cursor_renew(read_, cursor_));
      for (Number const i : selected()) {
        Thing const thing = MakeThing(i);
        Key key = NameKey(thing.name.data(), 0);
        MDB_val k = key.val();
        MDB_val v{};
        Check(mdb_cursor_get(cursor_, &k, &v, MDB_SET_RANGE));
        sum += Bits(ById(read_, IdOf(k))->plain);
      }
    });
    return sum;
  }
  Sum Scan(std::size_t count) override {
    return ScanIndex(count, [&](std::uint64_t id) { return Bits(ById(read_, id)->plain); });
  }
  Sum ScanIds(std::size_t count) override {
    return ScanIndex(count, [](std::uint64_t id) { return Sum{id != 0}; });
  }

  void UpdatePlain(std::int64_t value) override {
    ForBatches([&](MDB_txn* txn, Number i) {
      Record record = *Get(txn, i);
      record.plain = value;
      Put(txn, i + std::uint64_t{1}, record);
    });
  }
  void UpdateIndexed(std::int64_t flip) override {
    ForBatches([&](MDB_txn* txn, Number i) {
      std::uint64_t const id = i + std::uint64_t{1};
      Record record = *Get(txn, i);
      Key before = IndexedKey(record.indexed, id);
      MDB_val k = before.val();
      Check(mdb_del(txn, index_, &k, nullptr));
      record.indexed ^= flip;
      PutEntry(txn, IndexedKey(record.indexed, id));
      Put(txn, id, record);
    });
  }

  void Close() override { CloseTrees(); }
  Sum Open() override {
    OpenTrees(false);
    static constexpr Number kFirst = 0;
    Select({&kFirst, 1});
    return ReadOne();
  }
  std::uint64_t Bytes() override { return std::filesystem::file_size(directory_ + "/data.mdb"); }

 private:
  void OpenTrees(bool make) {
    Check(mdb_env_create(&env_));
    Check(mdb_env_set_maxdbs(env_, 2));
    Check(mdb_env_set_mapsize(env_, std::size_t{16} << 30));
    unsigned const flags = MDB_NORDAHEAD | (durable_ ? 0U : unsigned{MDB_NOSYNC});
    Check(mdb_env_open(env_, directory_.c_str(), flags | MDB_NOTLS, 0640));
    unsigned const create = make ? MDB_CREATE : 0;
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, make ? 0 : MDB_RDONLY, &txn));
    Check(mdb_dbi_open(txn, "rows", create | MDB_INTEGERKEY, &rows_));
    Check(mdb_dbi_open(txn, "index", create, &index_));
    Check(mdb_txn_commit(txn));
    Check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &read_));
    Check(mdb_cursor_open(read_, index_, &cursor_));
    mdb_txn_reset(read_);
  }
  void CloseTrees() {
    mdb_cursor_close(cursor_);
    mdb_txn_abort(read_);
    mdb_env_close(env_);
  }

  template <typename Work>
  void Read(Work&& work) {
    Check(mdb_txn_renew(read_));
    work();
    mdb_txn_reset(read_);
  }
  template <typename Work>
  void Write(Work&& work) {
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, 0, &txn));
    work(txn);
    Check(mdb_txn_commit(txn));
  }
  template <typename Work>
  void ForBatches(Work&& work) {
    for (std::size_t begin = 0; begin < selected().size(); begin += kBatch) {
      Write([&](MDB_txn* txn) {
        for (Number const i :
             selected().subspan(begin, std::min(kBatch, selected().size() - begin))) {
          work(txn, i);
        }
      });
    }
  }
  template <typename Visit>
  Sum ScanIndex(std::size_t count, Visit&& visit) {
    Sum sum = 0;
    Read([&] {
      Check(mdb_cursor_renew(read_, cursor_));
      char first = kByIndexed;
      MDB_val k{1, &first};
      MDB_val v{};
      int code = mdb_cursor_get(cursor_, &k, &v, MDB_SET_RANGE);
      for (std::size_t i = 0; i < count; ++i) {
        Check(code);
        sum += visit(IdOf(k));
        code = mdb_cursor_get(cursor_, &k, &v, MDB_NEXT);
      }
    });
    return sum;
  }

  static std::uint64_t IdOf(MDB_val const& key) {
    std::uint64_t big = 0;
    std::memcpy(&big, static_cast<char const*>(key.mv_data) + key.mv_size - sizeof big, sizeof big);
    return Big(big);
  }
  Record const* ById(MDB_txn* txn, std::uint64_t id) {
    MDB_val k{sizeof id, &id};
    MDB_val v{};
    Check(mdb_get(txn, rows_, &k, &v));
    return static_cast<Record const*>(v.mv_data);
  }
  Record const* Get(MDB_txn* txn, Number i) { return ById(txn, i + std::uint64_t{1}); }
  void Put(MDB_txn* txn, std::uint64_t id, Record& record) {
    MDB_val k{sizeof id, &id};
    MDB_val v{sizeof record, &record};
    Check(mdb_put(txn, rows_, &k, &v, 0));
  }
  void PutEntry(MDB_txn* txn, Key key) {
    MDB_val k = key.val();
    MDB_val v{0, nullptr};
    Check(mdb_put(txn, index_, &k, &v, 0));
  }
  void Insert(MDB_txn* txn, Number i) {
    std::uint64_t const id = i + std::uint64_t{1};
    Record record = RecordOf(MakeThing(i));
    Put(txn, id, record);
    PutEntry(txn, TableKey(record, id));
    PutEntry(txn, NameKey(record.name, id));
    PutEntry(txn, IndexedKey(record.indexed, id));
  }

  std::string directory_;
  bool durable_;
  MDB_env* env_ = nullptr;
  MDB_txn* read_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
  MDB_dbi rows_ = 0;
  MDB_dbi index_ = 0;
};

class LmdbCommitter : public Committer {
 public:
  explicit LmdbCommitter(LmdbEngine& engine) : engine_(engine) {}
  void CommitOne(Number number) override { engine_.CommitOne(number); }

 private:
  LmdbEngine& engine_;
};

}  // namespace

std::unique_ptr<Engine> MakeLmdb(std::string const& directory, bool durable) {
  return std::make_unique<LmdbEngine>(directory, durable);
}
std::unique_ptr<Committer> MakeLmdbCommitter(Engine& engine) {
  return std::make_unique<LmdbCommitter>(dynamic_cast<LmdbEngine&>(engine));
}

}  // namespace bench

// A mixed load for as long as one likes: objects come, change and go, indexes too, readers hold old
// snapshots for a while, contexts open and close, transactions are refused and rolled back. What it
// leaves behind must not grow. One thread plays all the parts, so that a run can be repeated.

#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <filesystem>
#include <map>
#include <random>
#include <sagleme/host.hpp>

#include "memory.h"
#include "support/database.h"

namespace sagleme_soak {
namespace {

using sagleme::ColumnSpec;
using sagleme::Object;
using sagleme::Property;
using sagleme::Type;

constexpr std::size_t kObjects = 400;
constexpr std::size_t kReaders = 6;  // that hold a snapshot at once
constexpr std::uint32_t kReaderSlots = 16;

class Load {
 public:
  Load() {
    // The first who opens says how many readers there may be; the others share its store.
    lscoredb_options options{};
    options.size = sizeof options;
    options.durability = LSCOREDB_NO_SYNC;
    options.max_readers = kReaderSlots;
    options.log_limit = 64 * 1024;  // what is in the log is in memory too
    sagleme::detail::CheckKernel(lscoredb_open(directory_.path().c_str(), &options, &first_));
    sagleme::Options unsynced;
    unsynced.no_sync = true;
    database_ = std::make_unique<sagleme::Database>(
        sagleme::Database::Create(directory_.path(), {}, unsynced));
    writer_ = std::make_unique<sagleme::Context>(*database_);
    Make();
  }
  ~Load() { lscoredb_close(first_); }
  Load(Load const&) = delete;
  Load& operator=(Load const&) = delete;

  std::uintmax_t FileSize() const {
    return std::filesystem::file_size(directory_.path() + "/data.mdb");
  }

  void Step() {
    sagleme::Transaction transaction(*writer_);
    std::size_t const kind = random_() % 100;
    if (kind < 2) {
      ChangeIndex(transaction);
    } else {
      for (std::size_t changes = 1 + random_() % 5; changes > 0; --changes) Change(transaction);
    }
    if (kind >= 95) {
      transaction.Rollback();
      expected_ = committed_;
    } else {
      transaction.Commit();
      committed_ = expected_;
    }
    if (kind % 10 == 0) HoldReader();
    if (kind == 50) Conflict();
    if (kind == 51) RenewWriter();
  }

  // What is there is what was committed, by scan and by index, and the kernel finds no fault.
  void CheckAll() {
    readers_.clear();
    sagleme::Transaction transaction(*writer_, sagleme::Access::kReadOnly);
    EXPECT_EQ(committed_,
              Found(transaction, sagleme::Range::Subtree(transaction, Table(transaction))));
    auto const index = transaction.FindIndex(u"ByNumber");
    EXPECT_EQ(committed_, Found(transaction, sagleme::Range::Matching(transaction, *index, {})));
    EXPECT_EQ(0U, lscoredb_check(database_->handle(), 0, nullptr, nullptr));
  }

  // All slots of the reader table can be taken.
  void CheckReaders() {
    std::deque<sagleme::Context> contexts;
    std::deque<sagleme::RawTransaction> transactions;
    for (std::uint32_t i = 0; i < kReaderSlots; ++i) {
      contexts.emplace_back(*database_);
      transactions.emplace_back(contexts.back(), sagleme::Access::kReadOnly);
    }
    sagleme::Context const one_more(*database_);
    EXPECT_EQ(LSCOREDB_TOO_MANY_READERS, lscoredb_begin(one_more.id(), LSCOREDB_READ_WRITE));
  }

 private:
  using Numbers = std::map<std::uint64_t, std::int64_t>;

  struct Reader {
    explicit Reader(sagleme::Database const& database)
        : context(database), transaction(context, sagleme::Access::kReadOnly) {}
    sagleme::Context context;
    sagleme::Transaction transaction;
    Numbers seen;
  };

  static sagleme::Table const& Table(sagleme::Transaction& transaction) {
    return *transaction.table(u"Load.Thing");
  }

  static Numbers Found(sagleme::Transaction& transaction, sagleme::Range range) {
    Property<std::int64_t> const number(Table(transaction), u"Number");
    Numbers found;
    for (Object& thing : range) found[thing.id().value] = *number.Get(thing);
    return found;
  }

  void RenewWriter() {
    writer_ = std::make_unique<sagleme::Context>(*database_);
    lorv_metalayer_errbuf(writer_->id());  // whose room goes with the context
  }

  void Make() {
    sagleme::Context const context(*database_);
    sagleme::Transaction transaction(context);
    std::array const columns{ColumnSpec{u"Number", Type::kLong, false}, ColumnSpec{u"Name"}};
    sagleme::CreateTable(transaction, u"Load.Thing", u"", columns);
    std::array const by_number{sagleme::IndexColumnSpec{u"Number"}};
    sagleme::CreateIndex(transaction, u"ByNumber", u"Load.Thing", by_number);
    transaction.Commit();
  }

  void Change(sagleme::Transaction& transaction) {
    std::size_t const at = random_() % (2 * kObjects);
    if (at >= expected_.size()) {
      Object const made = Object::Create(transaction, Table(transaction));
      return Write(transaction, made);
    }
    auto const chosen = std::next(expected_.cbegin(), static_cast<std::ptrdiff_t>(at));
    Object object = *Object::Find(transaction, {chosen->first});
    if (random_() % 3 != 0) return Write(transaction, object);
    object.Delete();
    expected_.erase(chosen);
  }

  void Write(sagleme::Transaction& transaction, Object const& object) {
    auto const number = static_cast<std::int64_t>(random_() % 1000);
    std::u16string const name(random_() % 300, u'n');
    Property<std::int64_t>(Table(transaction), u"Number").Set(object, number);
    Property<std::u16string>(Table(transaction), u"Name").Set(object, name);
    expected_[object.id().value] = number;
  }

  void ChangeIndex(sagleme::Transaction& transaction) {
    if (transaction.FindIndex(u"ByName")) return sagleme::DropIndex(transaction, u"ByName");
    std::array const by_name{sagleme::IndexColumnSpec{u"Name"}};
    sagleme::CreateIndex(transaction, u"ByName", u"Load.Thing", by_name);
  }

  // The oldest reader ends with what it saw when it began, and a new one begins.
  void HoldReader() {
    if (readers_.size() == kReaders) {
      sagleme::Transaction& transaction = readers_.front().transaction;
      sagleme::ReadScope const scope(transaction.context());
      EXPECT_EQ(readers_.front().seen,
                Found(transaction, sagleme::Range::Subtree(transaction, Table(transaction))));
      readers_.pop_front();
    }
    readers_.emplace_back(*database_).seen = committed_;
  }

  void Conflict() {
    if (committed_.empty()) return;
    sagleme::ObjectId const id{committed_.begin()->first};
    sagleme::Context const other(*database_);
    sagleme::Transaction loser(*writer_);
    sagleme::Transaction winner(other);
    for (sagleme::Transaction* const each : {&winner, &loser}) {
      Property<std::u16string>(Table(*each), u"Name").Set(*Object::Find(*each, id), u"won");
    }
    winner.Commit();
    EXPECT_THROW(loser.Commit(), sagleme::Error);
  }

  sagleme_test::TemporaryDirectory directory_;
  lscoredb* first_ = nullptr;
  std::unique_ptr<sagleme::Database> database_;
  std::unique_ptr<sagleme::Context> writer_;
  std::deque<Reader> readers_;
  Numbers expected_;
  Numbers committed_;
  std::mt19937_64 random_{1};
};

struct Measures {
  explicit Measures(Load const& load)
      : heap(BytesInUse()), resident(ResidentBytes()), file(load.FileSize()) {}
  std::size_t heap;
  std::size_t resident;
  std::uintmax_t file;
};

TEST(LoadTest, MemoryFileAndReaderTable_DoNotGrow) {
  std::uint64_t const steps = FromEnvironment("SAGLEME_SOAK_STEPS", kLimitsWork ? 100000 : 3000);
  constexpr std::size_t kMegabyte = std::size_t{1} << 20;
  Load load;
  for (std::uint64_t i = 0; i < steps / 3; ++i) load.Step();
  Measures const before(load);
  for (std::uint64_t i = steps / 3; i < steps; ++i) load.Step();
  Measures const after(load);
  EXPECT_LT(after.heap, before.heap + kMegabyte);
  if (kLimitsWork) {
    EXPECT_LT(after.resident, before.resident + 4 * kMegabyte);
  }
  EXPECT_LT(after.file, 2 * before.file);
  std::printf("%llu steps: heap %zu to %zu, resident %zu to %zu, file %ju to %ju\n",
              static_cast<unsigned long long>(steps), before.heap, after.heap, before.resident,
              after.resident, before.file, after.file);
  load.CheckAll();
  load.CheckReaders();
}

}  // namespace
}  // namespace sagleme_soak

// sagleme through its exported functions: property handles for columns, iterators for indexes.

#include <lscoredb/bulk.h>
#include <lscoredb/durability.h>

#include <sagleme/host.hpp>
#include <utility>
#include <vector>

#include "engine.h"

namespace bench {
namespace {

constexpr char16_t const* kNames[kTables] = {u"Bench.Thing", u"Bench.First", u"Bench.Second",
                                             u"Bench.Third"};

void Check(std::uint32_t status) { sagleme::detail::CheckKernel(status); }

sagleme::Options OptionsOf(bool durable, std::uint64_t log_limit) {
  sagleme::Options options;
  options.no_sync = !durable;
  options.log_limit = log_limit;
  return options;
}

void MakeTables(sagleme::Database const& database) {
  sagleme::Context const context(database);
  sagleme::Transaction transaction(context);
  std::vector<sagleme::ColumnSpec> const columns{
      {u"Plain", sagleme::Type::kLong},
      {u"Indexed", sagleme::Type::kLong},
      {u"Weight", sagleme::Type::kDouble},
      {u"Name"},
      {u"Other", sagleme::Type::kReference, true, u"Bench.Thing"}};
  sagleme::CreateTable(transaction, kNames[0], u"", columns);
  for (std::uint32_t i = 1; i < kTables; ++i) {
    sagleme::CreateTable(transaction, kNames[i], kNames[0], {});
  }
  std::vector<sagleme::IndexColumnSpec> const name{{u"Name"}};
  std::vector<sagleme::IndexColumnSpec> const indexed{{u"Indexed"}};
  sagleme::CreateIndex(transaction, u"ThingByName", kNames[0], name);
  sagleme::CreateIndex(transaction, u"ThingByIndexed", kNames[0], indexed);
  transaction.Commit();
}

// What a thread works with: its context, and handles, which are of the process.
struct Handles {
  explicit Handles(std::uint64_t context) {
    for (std::uint32_t i = 0; i < kTables; ++i) {
      Check(lorv_crud_GetCreateHandle(context, kNames[i], &create[i]));
    }
    Check(lorv_crud_GetPropertyHandle(context, kNames[0], u"Plain", &plain));
    Check(lorv_crud_GetPropertyHandle(context, kNames[0], u"Indexed", &indexed));
    Check(lorv_crud_GetPropertyHandle(context, kNames[0], u"Weight", &weight));
    Check(lorv_crud_GetPropertyHandle(context, kNames[0], u"Name", &name));
    Check(lorv_crud_GetPropertyHandle(context, kNames[0], u"Other", &other));
  }
  CreateInfo* create[kTables] = {};
  PropertyAccessInfo* plain = nullptr;
  PropertyAccessInfo* indexed = nullptr;
  PropertyAccessInfo* weight = nullptr;
  PropertyAccessInfo* name = nullptr;
  PropertyAccessInfo* other = nullptr;
};

struct Object {
  std::uint64_t oid;
  std::uint64_t addr;
};

Object Insert(std::uint64_t context, Handles const& handles, Number number, Object const* other) {
  Thing const thing = MakeThing(number);
  Object made{};
  Check(lorv_crud_CreateObject(context, handles.create[thing.table], &made.oid, &made.addr));
  Check(lorv_crud_WriteLong(context, handles.plain, made.oid, made.addr, thing.plain));
  Check(lorv_crud_WriteLong(context, handles.indexed, made.oid, made.addr, thing.indexed));
  Check(lorv_crud_WriteDouble(context, handles.weight, made.oid, made.addr, thing.weight));
  Check(lorv_crud_WriteString(context, handles.name, made.oid, made.addr, thing.name.data()));
  Object const& target = other == nullptr ? made : *other;
  Check(lorv_crud_WriteRef(context, handles.other, made.oid, made.addr, target.oid, target.addr));
  return made;
}

class SaglemeEngine : public Engine {
 public:
  SaglemeEngine(std::string directory, sagleme::Options const& options)
      : directory_(std::move(directory)),
        options_(options),
        database_(std::make_unique<sagleme::Database>(
            sagleme::Database::Create(directory_, {}, options_))) {
    MakeTables(*database_);
    Use();
  }

  sagleme::Database const& database() const { return *database_; }

  void Create(Number first, Number count) override {
    for (Number begin = first; begin < first + count; begin += kBatch) {
      Write([&] {
        Number const end = std::min<Number>(begin + kBatch, first + count);
        for (Number i = begin; i < end; ++i) {
          Number const other = MakeThing(i).other;
          objects_.push_back(Insert(id(), *handles_, i, other < i ? &objects_[other] : nullptr));
        }
      });
    }
  }

  void Select(Numbers which) override {
    Engine::Select(which);
    if (context_ != nullptr && handles_ == nullptr) TakeHandles();
    references_.clear();
    ids_.clear();
    for (Number const i : which) {
      references_.push_back(objects_[i]);
      ids_.push_back(objects_[i].oid);
    }
  }

  Sum ReadOne() override {
    Sum sum = 0;
    Read([&] {
      for (Object const& object : references_) sum += Plain(object);
    });
    return sum;
  }
  Sum ReadOneTogether() override {
    Sum sum = 0;
    std::vector<std::uint64_t> values(kBatch);
    std::vector<std::uint8_t> states(kBatch);
    Read([&] {
      for (std::size_t begin = 0; begin < ids_.size(); begin += kBatch) {
        std::size_t const count = std::min(kBatch, ids_.size() - begin);
        Check(lscoredb_read_words(id(), static_cast<std::uint32_t>(count), ids_.data() + begin,
                                  layout_, plain_column_, values.data(), states.data()));
        for (std::size_t i = 0; i < count; ++i) sum += values[i];
      }
    });
    return sum;
  }
  Sum ReadOneAlone() override {
    Sum sum = 0;
    for (Object const& object : references_) Read([&] { sum += Plain(object); });
    return sum;
  }
  Sum ReadAll() override {
    Sum sum = 0;
    Read([&] {
      for (Object const& object : references_) {
        Check(lscoredb_read_scope_begin(id()));
        std::int64_t plain = 0;
        std::int64_t indexed = 0;
        double weight = 0;
        char16_t const* name = nullptr;
        std::uint64_t other = 0;
        Check(lorv_crud_ReadLong(id(), handles_->plain, object.oid, object.addr, &plain));
        Check(lorv_crud_ReadLong(id(), handles_->indexed, object.oid, object.addr, &indexed));
        Check(lorv_crud_ReadDouble(id(), handles_->weight, object.oid, object.addr, &weight));
        Check(lorv_crud_ReadString(id(), handles_->name, object.oid, object.addr, &name));
        Check(lorv_crud_ReadRefId(id(), handles_->other, object.oid, object.addr, &other));
        sum += Bits(plain) + Bits(indexed) + Bits(weight) + name[7] + Sum{other != 0};
        Check(lscoredb_read_scope_end(id()));
      }
    });
    return sum;
  }
  Sum Find() override {
    Sum sum = 0;
    Read([&] {
      for (Number const i : selected()) {
        Thing const thing = MakeThing(i);
        alignas(8) unsigned char key[64];
        metalayer::Key(key).Text(thing.name.data());
        std::uint64_t iterator = 0;
        Check(lorv_context_create_iterator(id(), by_name_, LORV_ITERATOR_FORWARD, key, key,
                                           &iterator));
        LORV_REFERENCE found{};
        Check(lorv_iterator_next(iterator, &found));
        sum += Plain({found.oid, found.layout});
        Check(lorv_iterator_free(iterator));
      }
    });
    return sum;
  }
  Sum Scan(std::size_t count) override {
    return ScanIndex(count, [this](LORV_REFERENCE const& found) {
      return Plain({found.oid, found.layout});
    });
  }
  Sum ScanIds(std::size_t count) override {
    return ScanIndex(count, [](LORV_REFERENCE const& found) { return Sum{found.oid != 0}; });
  }

  Sum ScanIdPages(std::size_t count) override {
    constexpr std::uint32_t kPage = 256;
    std::vector<LORV_REFERENCE> page(kPage);
    Sum sum = 0;
    OverIndex([&](std::uint64_t iterator) {
      std::uint32_t got = 0;
      for (std::size_t left = count; left > 0; left -= got) {
        auto const room = static_cast<std::uint32_t>(std::min<std::size_t>(kPage, left));
        Check(lscoredb_iterator_next_many(iterator, 0, room, page.data(), &got));
        for (std::uint32_t i = 0; i < got; ++i) sum += Sum{page[i].oid != 0};
      }
    });
    return sum;
  }

  void UpdatePlain(std::int64_t value) override {
    ForBatches([&](Object const& object) {
      Check(lorv_crud_WriteLong(id(), handles_->plain, object.oid, object.addr, value));
    });
  }
  void UpdateAndTakeBack(std::int64_t value) override {
    std::span<Object const> const all(references_);
    Write([&] {
      for (std::size_t begin = 0; begin < all.size(); begin += kGroup) {
        std::uint64_t savepoint = 0;
        Check(lscoredb_savepoint(id(), &savepoint));
        for (Object const& object : all.subspan(begin, std::min(kGroup, all.size() - begin))) {
          Check(lorv_crud_WriteLong(id(), handles_->plain, object.oid, object.addr, value));
        }
        Check(lscoredb_rollback_to(id(), savepoint));
        Check(lscoredb_release(id(), savepoint));
      }
    });
  }
  void UpdateIndexed(std::int64_t flip) override {
    ForBatches([&](Object const& object) {
      std::int64_t value = 0;
      Check(lorv_crud_ReadLong(id(), handles_->indexed, object.oid, object.addr, &value));
      Check(lorv_crud_WriteLong(id(), handles_->indexed, object.oid, object.addr, value ^ flip));
    });
  }

  void Checkpoint() override { Check(lscoredb_checkpoint(database_->handle())); }

  void Close() override {
    if (started_ != nullptr) Stop();
    handles_.reset();
    context_.reset();
    database_.reset();
  }
  void Start() override {
    lscoredb_options options{};
    options.size = sizeof options;
    options.durability = options_.no_sync ? LSCOREDB_NO_SYNC : LSCOREDB_DURABLE;
    Check(lscoredb_open(directory_.c_str(), &options, &started_));
    Check(lscoredb_context_open(started_, &started_context_));
    Check(lscoredb_begin(started_context_, LSCOREDB_READ_ONLY_TRANSACTION));
    Check(lorv_init_metalayer(started_context_));
    Check(lscoredb_rollback(started_context_));
  }
  // A program asks for the handles that it needs: here it is one.
  Sum Open() override {
    database_ = std::make_unique<sagleme::Database>(sagleme::Database::Open(directory_, options_));
    context_ = std::make_unique<sagleme::Context>(*database_);
    std::int64_t value = 0;
    Read([&] {
      PropertyAccessInfo* plain = nullptr;
      Check(lorv_crud_GetPropertyHandle(id(), kNames[0], u"Plain", &plain));
      Check(lorv_crud_ReadLong(id(), plain, objects_[0].oid, objects_[0].addr, &value));
    });
    return Bits(value);
  }
  std::uint64_t Bytes() override {
    Checkpoint();
    return database_->Statistics().file_size;
  }

 private:
  std::uint64_t id() const { return context_->id(); }

  void Use() {
    context_ = std::make_unique<sagleme::Context>(*database_);
    TakeHandles();
  }
  void TakeHandles() {
    sagleme::Transaction transaction(*context_, sagleme::Access::kReadOnly);
    handles_ = std::make_unique<Handles>(id());
    sagleme::TablePtr const table = transaction.table(kNames[0]);
    layout_ = table->layout;
    plain_column_ = table->GetColumn(u"Plain").ordinal;
    by_name_ = transaction.FindIndex(u"ThingByName")->handle;
    by_indexed_ = transaction.FindIndex(u"ThingByIndexed")->handle;
  }

  void Stop() {
    Check(lscoredb_context_close(started_context_));
    Check(lscoredb_close(std::exchange(started_, nullptr)));
  }

  template <typename Work>
  void Read(Work&& work) {
    Check(lscoredb_begin(id(), LSCOREDB_READ_ONLY_TRANSACTION));
    work();
    Check(lscoredb_rollback(id()));
  }
  template <typename Work>
  void Write(Work&& work) {
    Check(lscoredb_begin(id(), LSCOREDB_READ_WRITE));
    work();
    Check(lscoredb_commit(id()));
  }
  template <typename Work>
  void ForBatches(Work&& work) {
    std::span<Object const> const all(references_);
    for (std::size_t begin = 0; begin < all.size(); begin += kBatch) {
      Write([&] {
        for (Object const& object : all.subspan(begin, std::min(kBatch, all.size() - begin))) {
          work(object);
        }
      });
    }
  }
  // Opens an iterator over all of the index.
  template <typename Work>
  void OverIndex(Work&& work) {
    Read([&] {
      alignas(8) unsigned char first[16];
      alignas(8) unsigned char last[16];
      metalayer::Key(first).Long(std::numeric_limits<std::int64_t>::min());
      metalayer::Key(last).Long(std::numeric_limits<std::int64_t>::max());
      std::uint64_t iterator = 0;
      Check(lorv_context_create_iterator(id(), by_indexed_, LORV_ITERATOR_FORWARD, first, last,
                                         &iterator));
      work(iterator);
      Check(lorv_iterator_free(iterator));
    });
  }
  template <typename Visit>
  Sum ScanIndex(std::size_t count, Visit&& visit) {
    Sum sum = 0;
    OverIndex([&](std::uint64_t iterator) {
      for (std::size_t i = 0; i < count; ++i) {
        LORV_REFERENCE found{};
        Check(lorv_iterator_next(iterator, &found));
        sum += visit(found);
      }
    });
    return sum;
  }
  Sum Plain(Object const& object) {
    std::int64_t value = 0;
    Check(lorv_crud_ReadLong(id(), handles_->plain, object.oid, object.addr, &value));
    return Bits(value);
  }

  std::string directory_;
  sagleme::Options options_;
  std::unique_ptr<sagleme::Database> database_;
  std::unique_ptr<sagleme::Context> context_;
  lscoredb* started_ = nullptr;  // between Start and Close
  std::uint64_t started_context_ = 0;
  std::unique_ptr<Handles> handles_;
  std::uint64_t by_name_ = 0;
  std::uint64_t by_indexed_ = 0;
  std::vector<Object> objects_;  // by number
  std::uint16_t layout_ = 0;
  std::uint16_t plain_column_ = 0;
  std::vector<Object> references_;  // of those that are selected
  std::vector<std::uint64_t> ids_;  // the same, for calls of many
};

class SaglemeCommitter : public Committer {
 public:
  explicit SaglemeCommitter(sagleme::Database const& database) : context_(database) {
    sagleme::RawTransaction const transaction(context_, sagleme::Access::kReadOnly);
    handles_ = std::make_unique<Handles>(context_.id());
  }
  void CommitOne(Number number) override {
    Check(lscoredb_begin(context_.id(), LSCOREDB_READ_WRITE));
    Insert(context_.id(), *handles_, number, nullptr);
    Check(lscoredb_commit(context_.id()));
  }

 private:
  sagleme::Context context_;
  std::unique_ptr<Handles> handles_;
};

}  // namespace

std::unique_ptr<Engine> MakeSagleme(std::string const& directory, bool durable,
                                    std::uint64_t log_limit) {
  return std::make_unique<SaglemeEngine>(directory, OptionsOf(durable, log_limit));
}
lscoredb* HandleOf(Engine& sagleme) {
  return dynamic_cast<SaglemeEngine&>(sagleme).database().handle();
}
std::unique_ptr<Committer> MakeSaglemeCommitter(Engine& engine) {
  return std::make_unique<SaglemeCommitter>(dynamic_cast<SaglemeEngine&>(engine).database());
}

}  // namespace bench

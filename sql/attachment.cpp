#include "attachment.h"

#include <algorithm>
#include <sagleme/counts.hpp>
#include <sagleme/host/duplicates.hpp>

#include "connection.h"
#include "cursor.h"
#include "failure.h"

namespace sagleme::sql {
namespace {

// SQLite's number of a savepoint that a transaction began with, instead of BEGIN.
constexpr int kWholeTransaction = -1;

}  // namespace

Attachment::Attachment(std::shared_ptr<Store> store, std::string const& encoding)
    : store_(std::move(store)),
      own_(std::in_place, store_->database()),
      context_(own_->id()),
      encoding_(encoding) {
  Begin();
  Unlock();
}

Attachment::Attachment(std::shared_ptr<Store> store, std::string const& encoding,
                       OpenTransaction joined)
    : store_(std::move(store)), context_(joined.context), encoding_(encoding) {
  Begin();
  Unlock();
}

Attachment::~Attachment() {
  Unlock();
  if (connection_ != nullptr) connection_->Remove(this);
}

void Attachment::Join(Connection* connection, std::string name) {
  connection_ = connection;
  name_ = std::move(name);
}

void Attachment::Open() {
  ++writes_;
  store_->RequireOwnProcess();
  if (own_.has_value()) {
    transaction_.emplace(*own_);
  } else {
    transaction_.emplace(OpenTransaction{context_});
  }
}

void Attachment::Adopt(SchemaPtr schema) {
  image_ = Image(*schema, encoding_);
  schema_ = std::move(schema);
  ForgetTables();
  stale_ = false;
}

void Attachment::Begin() {
  End();
  Open();
  try {
    if (stale_ || schema_->generation() != transaction_->Generation()) {
      Adopt(store_->SchemaOf(*transaction_));
    }
  } catch (...) {
    transaction_.reset();
    throw;
  }
  locked_ = true;
}

void Attachment::Unlock() noexcept {
  locked_ = false;
  End();
  defined_ = false;
}

std::uint64_t Attachment::Estimate(Shape const& shape) {
  bool const own = !transaction_.has_value();
  if (own) Open();
  std::uint64_t const rows = store_->Estimate(context(), shape);
  if (own) transaction_.reset();
  return rows;
}

// After a commit inside a transaction of SQLite, which continues for statements that still read.
Transaction& Attachment::transaction() {
  if (!transaction_.has_value()) Open();
  return *transaction_;
}

void Attachment::Forget() {
  wrote_ = false;
  marks_.clear();
  if (connection_ != nullptr) connection_->Release(this);
}

void Attachment::Drain() noexcept {
  for (Cursor* const cursor : cursors_) cursor->Drain();
}

void Attachment::End() noexcept {
  if (transaction_.has_value()) {
    Drain();
    if (wrote_ && !own_.has_value()) UndoOwnWrites();
    transaction_.reset();
  }
  Forget();
}

// The first savepoint is set before the first write.
void Attachment::UndoOwnWrites() noexcept {
  lscoredb_rollback_to(context(), marks_.front().savepoint);
  lscoredb_release(context(), marks_.front().savepoint);
}

void Attachment::NoteWrite() {
  for (Cursor* const cursor : cursors_) cursor->PrepareForWrite();
  ++writes_;
  if (wrote_) return;
  if (connection_ != nullptr) connection_->Claim(this);
  if (marks_.empty()) Savepoint(kWholeTransaction);
  wrote_ = true;
}

void Attachment::Commit() {
  if (!wrote_) return;
  Drain();
  try {
    if (own_.has_value()) {
      sagleme::Commit(*transaction_, *own_);
    } else {
      detail::CheckKernel(lscoredb_release(context(), marks_.front().savepoint));
    }
  } catch (...) {
    transaction_.reset();
    Forget();
    throw;
  }
  transaction_.reset();
  Forget();
}

void Attachment::Rollback() noexcept {
  if (!wrote_) return;
  End();
}

// SQLite announces the last savepoint to a table when the transaction first writes it. Those around
// it begin with the same state, or, when a definition is what writes, with the one before.
void Attachment::Savepoint(int number) {
  int next = marks_.empty() ? kWholeTransaction : marks_.back().number + 1;
  for (; next <= number; ++next) {
    std::uint64_t savepoint = 0;
    if (defining_) {
      savepoint = marks_.back().savepoint;
    } else {
      detail::CheckKernel(lscoredb_savepoint(transaction().context(), &savepoint));
    }
    marks_.push_back({next, savepoint});
  }
}

void Attachment::RollbackTo(int number) {
  auto const mark = std::find_if(marks_.begin(), marks_.end(),
                                 [number](Mark const& each) { return each.number == number; });
  if (mark == marks_.end()) return;
  for (Cursor* const cursor : cursors_) {
    if (defined_ || cursor->savepoint() >= mark->savepoint) cursor->Drain();
  }
  ++writes_;
  detail::CheckKernel(lscoredb_rollback_to(context(), mark->savepoint));
  marks_.erase(mark + 1, marks_.end());
  transaction_->Forget();  // what its rules required is undone too
  if (!defined_) return;
  schema_ = Schema::Read(*transaction_);
  ForgetTables();
}

void Attachment::Release(int number) {
  auto const mark = std::find_if(marks_.begin(), marks_.end(),
                                 [number](Mark const& each) { return each.number == number; });
  if (mark == marks_.end()) return;
  bool const shared = mark != marks_.begin() && std::prev(mark)->savepoint == mark->savepoint;
  if (!shared) detail::CheckKernel(lscoredb_release(context(), mark->savepoint));
  marks_.erase(mark, marks_.end());
}

std::vector<std::string> Attachment::Define(Definition const& definition) {
  std::vector<std::string> plan = PlanOf(transaction(), definition.statement);
  bool const outside = sqlite3_get_autocommit(connection_->handle()) != 0;
  bool const in_batches = outside && own_.has_value() && marks_.empty();
  LongWork const work = LongWorkOf(transaction(), definition.statement);
  if (!work.empty() && !plan.front().starts_with("refused")) {
    plan.front() += in_batches ? ", in batches beside writers" : ", in this transaction";
  }
  if (definition.explain) return plan;
  if (!own_.has_value()) {
    throw Failure(SQLITE_ERROR,
                  "Tables and indexes cannot be defined inside a transaction of the program; "
                  "change the models and apply them, or use the command sagleme sql.");
  }
  if (in_batches && !work.empty()) {
    DefineInBatches(work);
  } else if (outside) {
    DefineAlone(definition.statement);
  } else {
    NoteWrite();
    Change(definition.statement);
  }
  return plan;
}

void Attachment::DefineAlone(DefinitionStatement const& statement) {
  NoteWrite();
  try {
    Change(statement);
  } catch (...) {
    Rollback();
    throw;
  }
  Commit();
}

// The snapshot ends first, so that it keeps no space from the batches. Statements that still read
// continue as over a commit.
void Attachment::DefineInBatches(LongWork const& work) {
  Drain();
  transaction_.reset();
  stale_ = true;
  RunInBatches(*own_, work, [this] { return !IsInterrupted(); });
}

// A function cannot ask whether its statement was interrupted before SQLite 3.41. Another statement
// is, then, and its steps make SQLite call the client's progress handler.
bool Attachment::IsInterrupted() const {
  constexpr char kManySteps[] =
      "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 300)"
      " SELECT count(*) FROM n";
  int const code = sqlite3_exec(connection_->handle(), kManySteps, nullptr, nullptr, nullptr);
  return code == SQLITE_INTERRUPT;
}

// A change that fails halfway leaves nothing behind.
void Attachment::Change(DefinitionStatement const& statement) {
  std::uint64_t savepoint = 0;
  detail::CheckKernel(lscoredb_savepoint(context(), &savepoint));
  SchemaPtr const before = schema_;
  try {
    Apply(*transaction_, statement);
    stale_ = true;
    if (sqlite3_get_autocommit(connection_->handle()) == 0) NotifySqlite(before);
  } catch (...) {
    lscoredb_rollback_to(context(), savepoint);
    lscoredb_release(context(), savepoint);
    transaction_->Forget();
    schema_ = before;
    ForgetTables();
    throw;
  }
  lscoredb_release(context(), savepoint);
}

namespace {

bool SameToSqlite(Shape const& a, Shape const& b) {
  auto const same_index = [](ShapeIndex const& x, ShapeIndex const& y) {
    return x.name == y.name && x.handle == y.handle && x.own == y.own;
  };
  return a.declaration == b.declaration && a.table->row.oid == b.table->row.oid &&
         a.table->layout == b.table->layout && a.table->name == b.table->name &&
         a.layout_tokens == b.layout_tokens && a.leaf == b.leaf &&
         std::equal(a.indexes.begin(), a.indexes.end(), b.indexes.begin(), b.indexes.end(),
                    same_index);
}

}  // namespace

// Inside a transaction the file cannot change under SQLite, so differences are dropped and created
// by statements, which end with the transaction or a savepoint. At least one is created: then
// SQLite knows that the transaction writes here, and reports later savepoints.
void Attachment::NotifySqlite(SchemaPtr const& before) {
  SchemaPtr const now = Schema::Read(*transaction_);
  std::string drop;
  std::string create;
  auto const add = [this](std::string& sql, char const* verb, std::string const& name,
                          char const* end) {
    sql += verb + Quoted(name_) + "." + Quoted(name) + end;
  };
  for (auto const& [name, entry] : before->entries()) {
    Entry const* const after = now->Find(name);
    bool const same = after != nullptr && SameToSqlite(*entry.shape, *after->shape);
    if (same && (!create.empty() || !entry.shape->table->system)) continue;
    add(drop, "DROP TABLE ", name, ";");
    if (after != nullptr) add(create, "CREATE VIRTUAL TABLE ", name, " USING sagleme;");
  }
  for (auto const& [name, entry] : now->entries()) {
    if (before->Find(name) == nullptr)
      add(create, "CREATE VIRTUAL TABLE ", name, " USING sagleme;");
  }
  defined_ = true;
  ExecuteDefining(drop);
  schema_ = now;
  ForgetTables();
  ExecuteDefining(create);
}

// SQLite connects to a table before it drops it, so tables are dropped under the former schema.
void Attachment::ExecuteDefining(std::string const& sql) {
  defining_ = true;
  char* text = nullptr;
  int const code = sqlite3_exec(connection_->handle(), sql.c_str(), nullptr, nullptr, &text);
  defining_ = false;
  std::string const what = text == nullptr ? "" : text;
  sqlite3_free(text);
  if (code != SQLITE_OK) throw Failure(code, "The definition cannot change now: " + what + ".");
}

TablePtr Attachment::TableOf(std::uint64_t oid) {
  LORV_STRING* record = nullptr;
  auto const status = lorv_context_get_setspec(context(), oid, 0, &record);
  if (status == LORV_STATUS_NULL) return nullptr;
  detail::CheckKernel(status);
  std::u16string_view const setspec(record->units, record->length);
  if (last_table_ == nullptr || last_setspec_ != setspec) {
    last_table_ = schema_->BySetspec(setspec);
    last_setspec_ = setspec;
  }
  return last_table_;
}

void Attachment::ForgetTables() {
  last_table_ = nullptr;
  live_layouts_.clear();
  all_live_.reset();
}

bool Attachment::MayCount() {
  if (!own_.has_value()) return false;
  if (!all_live_.has_value()) {
    auto const layouts = LayoutStatistics(transaction());
    all_live_ = std::all_of(layouts.begin(), layouts.end(), [this](auto const& each) {
      return each.objects == 0 || schema_->HasLayoutToken(each.token);
    });
  }
  return *all_live_;
}

std::optional<std::uint64_t> Attachment::AddressOf(std::uint64_t oid) const {
  std::uint64_t addr = 0;
  auto const status = lorv_context_lookup(context(), oid, &addr);
  if (status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE) return std::nullopt;
  detail::CheckKernel(status);
  return addr;
}

bool Attachment::LookIfLive(std::uint64_t oid, std::uint16_t layout) {
  if (layout >= live_layouts_.size()) live_layouts_.resize(layout + std::size_t{64});
  std::uint8_t const found = TableOf(oid) != nullptr ? 1 : 2;
  live_layouts_[layout] = found;
  return found == 1;
}

}  // namespace sagleme::sql

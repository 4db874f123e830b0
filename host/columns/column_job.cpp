#include "columns/column_job.h"

#include <algorithm>

#include "columns/prepared.h"
#include "columns/requests.h"
#include "jobs/retry.h"

namespace sagleme::columns {
namespace {

// Bounds the memory of a round; further objects come in the next one.
constexpr std::size_t kCollected = 1000000;

ColumnSpec SpecOf(Column const& column) {
  return {column.name, column.type, column.nullable, column.target};
}

bool IsPrepared(Table const& holder, ColumnSpec const& spec) {
  Column const* const column = FindPrepared(holder, spec.name);
  return column != nullptr && column->type == spec.type && column->nullable == spec.nullable &&
         column->target == spec.target;
}

bool IsRefusalOfValues(Error const& error) {
  return error.status() == LSCOREDB_WRONG_TYPE || error.status() == LSCOREDB_DUPLICATE_KEY;
}

}  // namespace

Preparation PreparationOfPullUp(Transaction& transaction, Text const& table, Text const& column,
                                Text const& base) {
  PullUp const request = RequirePullUp(transaction, table, column, base);
  Preparation made{SpecOf(*request.column), WantedOf(*request.column), {}};
  if (!request.merged.empty()) made.holders.push_back(request.base->name);
  return made;
}

Preparation PreparationOfPushDown(Transaction& transaction, Text const& table, Text const& column,
                                  std::span<Text const> tables) {
  PushDown const request = RequirePushDown(transaction, table, column, tables);
  Preparation made{SpecOf(*request.column), WantedOf(*request.column), {}};
  for (std::size_t i = 1; i < request.tables.size(); ++i) {
    made.holders.push_back(request.tables[i]->name);
  }
  return made;
}

Preparation PreparationOfRetype(Transaction& transaction, Text const& table,
                                ColumnSpec const& column) {
  Retype const request = RequireRetype(transaction, table, column);
  Preparation made{column, request.wanted, {}};
  if (column.type != Type::kReference) made.spec.target = Text();
  // Zeros that nobody wrote are written, too.
  bool const relaxed = !request.column->nullable && column.nullable;
  if (!request.same_form || relaxed) made.holders.push_back(request.table->name);
  return made;
}

Filled Job::Fill() {
  Attempt([this](Transaction& transaction) { AddColumns(transaction); });
  for (;;) {
    std::vector<ObjectId> left = Collect();
    progress_.total = progress_.done + left.size();
    if (left.size() <= std::max(options_.batch, 1u)) return Filled::kYes;
    if (run_ != nullptr) run_->Record(progress_.total);
    Filled const filled = FillRound(std::move(left));
    if (filled != Filled::kYes) return filled;
  }
}

bool Job::Run(Finish const& finish) {
  try {
    Filled filled = Fill();
    for (std::uint32_t attempt = 1; filled == Filled::kYes; ++attempt) {
      if (TryFinish(finish, attempt)) return true;
      filled = Fill();
    }
    ended_ = filled == Filled::kEnded;
    return false;
  } catch (Error const& error) {
    if (IsRefusalOfValues(error)) Abandon();
    throw;
  }
}

// False after a conflict with a writer, whose values are then to be prepared.
bool Job::TryFinish(Finish const& finish, std::uint32_t attempt) {
  try {
    Transaction transaction(context_);
    finish(transaction);
    if (run_ != nullptr) run_->FinishIn(transaction);
    transaction.Commit();
    if (run_ != nullptr) run_->Finish();
    return true;
  } catch (Error const& error) {
    if (error.status() != LSCOREDB_CONFLICT || attempt >= options_.attempts) throw;
  }
  ++progress_.conflicts;
  return false;
}

void Job::Abandon() {
  Attempt([this](Transaction& transaction) {
    for (std::u16string const& name : preparation_.holders) {
      DropPrepared(transaction, name, preparation_.spec.name);
    }
  });
  if (run_ != nullptr) run_->Finish();
}

// Makes the hidden columns that are not there yet.
void Job::AddColumns(Transaction& transaction) {
  preparation_ = prepare_(transaction);
  ColumnSpec hidden = preparation_.spec;
  hidden.name = PreparedName(hidden.name);
  for (std::u16string const& name : preparation_.holders) {
    if (IsPrepared(*transaction.table(name), preparation_.spec)) continue;
    AbandonColumnChange(transaction, name, preparation_.spec.name);
    sagleme::AddColumns(transaction, name, {hidden});
  }
}

Filled Job::FillRound(std::vector<ObjectId> left) {
  std::size_t const batch = std::max(options_.batch, 1u);
  while (!left.empty()) {
    std::size_t const size = std::min(batch, left.size());
    Attempt([&](Transaction& transaction) {
      Write(transaction, {left.end() - static_cast<std::ptrdiff_t>(size), left.end()});
      if (run_ != nullptr) run_->Save(transaction, progress_.done + size);
    });
    left.resize(left.size() - size);
    progress_.done += size;
    if (options_.report && !options_.report(progress_)) return Filled::kEnded;
    if (!GoesOn()) return Filled::kStopped;
  }
  return Filled::kYes;
}

bool Job::GoesOn() const {
  if (run_ != nullptr) return run_->GoesOn(options_.pause);
  return jobs::Wait(options_.pause, options_.control, [] {});
}

// Objects whose hidden value is not yet what the old one becomes.
std::vector<ObjectId> Job::Collect() const {
  Transaction transaction(context_, Access::kReadOnly);
  std::vector<ObjectId> found;
  for (std::u16string const& name : preparation_.holders) {
    for (Object& object : Range::Subtree(transaction, *transaction.table(name))) {
      if (found.size() == kCollected) return found;
      ReadScope const scope(transaction.context());
      if (Update(transaction, object, false)) found.push_back(object.id());
    }
  }
  return found;
}

void Job::Write(Transaction& transaction, std::span<ObjectId const> batch) const {
  for (ObjectId const id : batch) {
    if (auto object = Object::Find(transaction, id)) Update(transaction, *object, true);
  }
}

// Whether the hidden value differs, and then writes it on request.
bool Job::Update(Transaction& transaction, Object& object, bool write) const {
  TablePtr const table = object.table();
  if (table == nullptr) return false;
  Column const* const from = table->FindColumn(preparation_.spec.name);
  Column const* const to = table->FindColumn(PreparedName(preparation_.spec.name));
  if (from == nullptr || to == nullptr) return false;
  Converter const convert(transaction, *from, preparation_.wanted);
  Value const value = convert(object.Get(*table, *from)).value;
  if (SameValue(object.Get(*table, *to), value)) return false;
  if (write) PutConverted(transaction, object, *table, *to, value);
  return true;
}

template <typename Work>
void Job::Attempt(Work&& work) {
  jobs::Retry(context_, options_.attempts, work, [this] { ++progress_.conflicts; });
}

}  // namespace sagleme::columns

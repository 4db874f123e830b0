#include "jobs/run.h"

#include <fmt/format.h>
#include <lscoredb/watch.h>

#include <algorithm>
#include <thread>

#include "jobs/retry.h"

namespace sagleme::jobs {
namespace {

constexpr std::chrono::milliseconds kNap{20};
constexpr std::chrono::seconds kBetweenSaves{1};
constexpr std::chrono::milliseconds kBetweenLooks{500};

[[noreturn]] void ThrowTaken(Row const& job) {
  throw Error(LSCOREDB_STOPPED,
              fmt::format("The {} was stopped, abandoned or taken over by another process.",
                          JobKindName(job.kind)));
}

[[noreturn]] void ThrowInUse(Row const& row) {
  if (LifeOf(row.runner) == Life::kUnknown) {
    throw Error(LSCOREDB_IN_USE,
                fmt::format("Job {} was begun by {}, which cannot be seen from here. Take it over "
                            "if that process has ended.",
                            row.id.value, DescribeRunner(row.runner)));
  }
  throw Error(LSCOREDB_IN_USE, fmt::format("Job {} is running in {}. Stop it there, or stop it "
                                           "from here first.",
                                           row.id.value, DescribeRunner(row.runner)));
}

// Names of files may be no UTF-8.
std::string Printable(std::string text) {
  try {
    ToUtf16(text);
  } catch (BadUtf8 const&) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }, '?');
  }
  return text;
}

}  // namespace

void ThrowNoJob(std::uint64_t id) {
  throw Error(LORV_STATUS_NO_OBJECT, fmt::format("There is no job {}.", id));
}

// In parts, since the control or another process may end the wait.
bool Wait(std::chrono::milliseconds pause, JobControl const* control,
          std::function<void()> const& between) {
  auto const stopped = [&] { return control != nullptr && control->stopped(); };
  if (control != nullptr) pause += control->pause();
  for (; !stopped() && pause.count() > 0; pause -= kNap) {
    std::this_thread::sleep_for(std::min(pause, kNap));
    between();
  }
  return !stopped();
}

Run::Run(Context const& context, Row job, JobControl const* control)
    : context_(context), job_(std::move(job)), control_(control) {}

Run::Run(Context const& context, ObjectId id, JobOptions const& options)
    : context_(context), control_(options.control) {
  Attempt([&](Transaction& transaction) {
    auto const store = Store::Find(transaction);
    auto const row = store ? store->Read(id) : std::nullopt;
    if (!row) ThrowNoJob(id.value);
    Life const life = LifeOf(row->runner);
    if (life == Life::kLive || (life == Life::kUnknown && !options.take_over)) ThrowInUse(*row);
    job_ = *row;
    if (options.batch != 0) job_.batch = options.batch;
    if (options.pause) job_.pause = static_cast<std::uint64_t>(options.pause->count());
    Row claimed = job_;
    Claim(*store, claimed);
  });
}

// Conflicts come from other runs that make the tables or claim the job.
void Run::Attempt(std::function<void(Transaction&)> const& work) const {
  Retry(context_, kAttempts, work);
}

void Run::Claim(Store const& store, Row const& row) {
  Row claimed = row;
  claimed.runner = runner_.text();
  claimed.reason.clear();
  claimed.rate = 0;
  claimed.batch = job_.batch;
  claimed.pause = job_.pause;
  store.Update(claimed);
  job_ = claimed;
  done_at_start_ = claimed.done;
}

bool Run::TakeUp() {
  if (recorded()) return true;
  {
    Transaction transaction(context_, Access::kReadOnly);
    auto const store = Store::Find(transaction);
    if (!store) return false;
    std::vector<Row> const all = store->All();
    if (std::none_of(all.begin(), all.end(), [&](Row const& row) { return IsSame(row); })) {
      return false;
    }
  }
  Row const wanted = job_;
  Attempt([&](Transaction& transaction) {
    job_ = wanted;
    Store const store = *Store::Find(transaction);
    for (Row const& row : store.All()) {
      if (!IsSame(row) || LifeOf(row.runner) != Life::kEnded) continue;
      Claim(store, row);
      return;
    }
  });
  return recorded();
}

void Run::Record(std::uint64_t total, std::span<ObjectId const> ids) {
  if (recorded() || TakeUp()) return;
  if (total != 0) job_.total = total;
  Row const wanted = job_;
  Attempt([&](Transaction& transaction) {
    Row row = wanted;
    row.description = Printable(row.description);
    row.runner = runner_.text();
    Store const store = Store::Make(transaction);
    store.Add(row);
    store.AddIds(row.id, ids);
    job_ = row;
  });
}

void Run::RequireNobodyElse() const {
  Transaction transaction(context_, Access::kReadOnly);
  auto const store = Store::Find(transaction);
  if (!store) return;
  for (Row const& row : store->All()) {
    bool const other = IsSame(row) && row.runner != runner_.text();
    if (other && LifeOf(row.runner) != Life::kEnded) ThrowInUse(row);
  }
}

void Run::SetPosition(std::uint64_t position, std::string input) {
  job_.position = position;
  job_.input = std::move(input);
}

void Run::Count(std::uint64_t done) {
  job_.done = done;
  job_.total = job_.total == 0 ? 0 : std::max(job_.total, done);
  std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start_;
  double const seconds = std::max(elapsed.count(), 1e-3);
  std::uint64_t const since = done - std::min(done, done_at_start_);
  job_.rate = static_cast<std::uint64_t>(static_cast<double>(since) / seconds);
}

void Run::Save(Transaction& transaction, std::uint64_t done, std::uint64_t position) {
  Count(done);
  job_.position = position;
  if (!recorded()) return;
  RequireOwn(transaction).Update(job_);
}

// A commit for each batch would double the work of small ones.
void Run::SaveAlone(std::uint64_t done, std::uint64_t total) {
  job_.total = total;
  Count(done);
  if (!recorded()) return;
  auto const now = std::chrono::steady_clock::now();
  if (now - saved_ >= kBetweenSaves) {
    Attempt([&](Transaction& transaction) { Save(transaction, done, job_.position); });
    saved_ = now;
  } else {
    Transaction transaction(context_, Access::kReadOnly);
    RequireOwn(transaction);
  }
}

Store Run::RequireOwn(Transaction& transaction) const {
  auto const store = Store::Find(transaction);
  auto const row = store ? store->Read(job_.id) : std::nullopt;
  if (!row || row->runner != runner_.text()) ThrowTaken(job_);
  return *store;
}

bool Run::GoesOn(std::chrono::milliseconds pause) {
  return Wait(pause, control_, [this] { LookWhoOwns(); });
}

void Run::LookWhoOwns() {
  auto const now = std::chrono::steady_clock::now();
  if (!recorded() || now - looked_ < kBetweenLooks) return;
  looked_ = now;
  Transaction transaction(context_, Access::kReadOnly);
  RequireOwn(transaction);
}

std::vector<ObjectId> Run::Ids() const {
  Transaction transaction(context_, Access::kReadOnly);
  auto const store = Store::Find(transaction);
  return store ? store->Ids(job_.id) : std::vector<ObjectId>{};
}

void Run::FinishIn(Transaction& transaction) {
  if (!recorded()) return;
  auto const store = Store::Find(transaction);
  if (!store) return;
  for (Row const& row : store->All()) {
    bool const own = row.runner == runner_.text();
    if (own || (IsSame(row) && LifeOf(row.runner) == Life::kEnded)) store->Delete(row.id);
  }
}

void Run::Finish() {
  if (recorded()) Attempt([&](Transaction& transaction) { FinishIn(transaction); });
  finished_ = true;
}

// A job whose end cannot be recorded is found to be cut off when this process has ended.
void Run::CutOff(std::string const& reason) noexcept {
  if (finished_ || !recorded()) return;
  finished_ = true;
  try {
    Attempt([&](Transaction& transaction) {
      auto const store = Store::Find(transaction);
      auto row = store ? store->Read(job_.id) : std::nullopt;
      if (!row || row->runner != runner_.text()) return;
      row->runner.clear();
      row->reason = Printable(reason);
      row->rate = 0;
      store->Update(*row);
    });
  } catch (std::exception const&) {
    return;
  }
}

}  // namespace sagleme::jobs

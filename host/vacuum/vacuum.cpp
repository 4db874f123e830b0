#include <algorithm>
#include <cstddef>
#include <sagleme/counts.hpp>
#include <sagleme/vacuum.hpp>
#include <set>
#include <span>
#include <thread>

#include "jobs/kinds.h"
#include "text/fetch.h"

namespace sagleme {
namespace {

constexpr std::size_t kCollected = 1000000;

VacuumRequest ReadRequest(Object const& row, Table const& table) {
  Property<std::u16string> const setspec(table, u"TypeId");
  Property<std::uint64_t> const layout(table, u"ExpectedLayout");
  Property<std::uint64_t> const kind(table, u"RequestKind");
  VacuumRequest request;
  request.row = row.id();
  request.setspec = setspec.GetOr(row, u"");
  request.layout = static_cast<std::uint16_t>(layout.GetOr(row, 0));
  request.kind = static_cast<VacuumRequest::Kind>(kind.GetOr(row, 0));
  return request;
}

TablePtr VacuumTable(Transaction& transaction) {
  return transaction.table(u"Lorvenstack.Internal.Metadata.Vacuum");
}

// Removals without a request, in sets of dropped tables. Old handles created objects there, in
// databases whose drops did not close the sets.
std::vector<VacuumRequest> UnrequestedRemovals(Transaction& transaction) {
  std::set<std::u16string> requested;
  for (VacuumRequest const& request : VacuumRequests(transaction)) {
    requested.insert(request.setspec);
  }
  TablePtr const sets = transaction.table(u"Lorvenstack.Internal.Metadata.SetSpecifier");
  Property<std::u16string> const text(*sets, u"TypeId");
  std::vector<VacuumRequest> removals;
  for (Object const& row : Range::Only(transaction, *sets)) {
    std::u16string setspec = text.GetOr(row, u"");
    if (requested.contains(setspec) || transaction.BySetspec(setspec) != nullptr) continue;
    removals.push_back({{}, std::move(setspec), 0, VacuumRequest::Kind::kRemove});
  }
  return removals;
}

// The layouts of tables, and those that requests name.
std::set<std::uint16_t> NamedLayouts(Transaction& transaction) {
  std::set<std::uint16_t> named;
  TablePtr const views = transaction.table(u"Lorvenstack.Metadata.RawView");
  Property<std::uint64_t> const layout(*views, u"LayoutHandle");
  for (Object const& view : Range::Subtree(transaction, *views)) {
    named.insert(static_cast<std::uint16_t>(layout.GetOr(view, 0)));
  }
  for (VacuumRequest const& request : VacuumRequests(transaction)) named.insert(request.layout);
  return named;
}

// Whether a layout belongs or belonged to a table, not to what a host created in the kernel itself.
bool IsOfTables(Transaction& transaction, std::uint16_t layout) {
  std::uint16_t const root = RootTable(transaction)->layout;
  while (layout != 0 && layout != root) {
    LORVI_LAYOUT_INFO info{};
    detail::CheckKernel(lorvi_context_get_layout_info(transaction.context(), layout, &info));
    layout = info.base_layout_handle;
  }
  return layout == root;
}

std::vector<std::uint16_t> EmptyLayouts(Transaction& transaction) {
  std::uint32_t count = 0;
  detail::CheckKernel(lscoredb_layout_stats(transaction.context(), &count, nullptr));
  std::vector<lscoredb_layout_statistics> statistics(count);
  if (count != 0) {
    detail::CheckKernel(lscoredb_layout_stats(transaction.context(), &count, statistics.data()));
  }
  std::vector<std::uint16_t> empty;
  for (lscoredb_layout_statistics const& layout : statistics) {
    if (layout.objects == 0) empty.push_back(layout.layout);
  }
  return empty;
}

bool SameRequest(VacuumRequest const& a, VacuumRequest const& b) {
  return a.row == b.row && a.setspec == b.setspec && a.layout == b.layout && a.kind == b.kind;
}

class Worker {
 public:
  Worker(Context const& context, VacuumOptions const& options, jobs::Run& run)
      : context_(context), options_(options), run_(run), done_before_(run.job().done) {}

  // False if the host ends the run.
  bool Run() {
    std::vector<VacuumRequest> requests;
    {
      Transaction transaction(context_, Access::kReadOnly);
      requests = VacuumRequests(transaction);
    }
    progress_.requests = requests.size();
    for (VacuumRequest const& request : requests) {
      if (!WorkOff(request)) return false;
    }
    for (VacuumRequest const& removal : CloseDroppedSets()) {
      if (!WorkOff(removal)) return false;
    }
    Attempt([](Transaction& transaction) {
      detail::DropStaleAnnotations(transaction);
      return false;
    });
    Attempt([this](Transaction& transaction) { return ReleaseLayouts(transaction); });
    run_.Finish();
    return true;
  }

  VacuumProgress const& progress() const { return progress_; }

 private:
  // False if the host ends the run.
  bool WorkOff(VacuumRequest const& request) {
    std::vector<ObjectId> left;
    for (bool finished = false; !finished;) {
      if (left.empty()) left = Collect(request);
      if (left.empty()) {
        Attempt([&](Transaction& transaction) { return Close(transaction, request); });
        finished = true;
      } else {
        std::size_t const size = std::min<std::size_t>(left.size(), std::max(options_.batch, 1u));
        std::span<ObjectId const> const batch(left.end() - static_cast<std::ptrdiff_t>(size),
                                              left.end());
        finished = !Attempt([&](Transaction& transaction) {
          return Stands(transaction, request) && ChangeAll(transaction, request, batch);
        });
        left.resize(left.size() - size);
      }
      if (options_.report && !options_.report(progress_)) return false;
      if (finished) continue;
      if (!run_.recorded() && !left.empty()) run_.Record(done() + Left());
      if (!run_.GoesOn(options_.pause)) return false;
    }
    return true;
  }

  std::uint64_t done() const { return done_before_ + progress_.moved + progress_.removed; }

  std::uint64_t Left() const {
    Transaction transaction(context_, Access::kReadOnly);
    return ObjectsToVacuum(transaction);
  }

  // Closes the sets that have no table; returns the removals to make there.
  std::vector<VacuumRequest> CloseDroppedSets() {
    std::vector<VacuumRequest> removals;
    Attempt([&](Transaction& transaction) {
      removals = UnrequestedRemovals(transaction);
      for (VacuumRequest const& removal : removals) {
        detail::CheckKernel(lscoredb_close_set(transaction.context(), removal.setspec.c_str(), 0));
      }
      return false;
    });
    return removals;
  }

  // The objects that the request still concerns, as many at a time as easily fit into memory. A
  // batch takes them by id: a scan of its own would skip all finished ones again each time.
  std::vector<ObjectId> Collect(VacuumRequest const& request) {
    Transaction transaction(context_, Access::kReadOnly);
    std::vector<ObjectId> found;
    for (Object const& object : OfSet(transaction, request)) {
      if (found.size() == kCollected) break;
      if (Concerns(request, object)) found.push_back(object.id());
    }
    return found;
  }

  // Runs the work in a transaction, again after each conflict. Counts apply once it is committed.
  // Returns what the work returns: whether there is more to do.
  template <typename Work>
  bool Attempt(Work&& work) {
    for (std::uint32_t attempt = 1;; ++attempt) {
      VacuumProgress const before = progress_;
      try {
        Transaction transaction(context_);
        bool const more = work(transaction);
        run_.Save(transaction, done());
        transaction.Commit();
        return more;
      } catch (Error const& error) {
        progress_ = before;
        if (error.status() != LSCOREDB_CONFLICT || attempt >= options_.attempts) throw;
        ++progress_.conflicts;
        std::this_thread::yield();
      }
    }
  }

  // Whether the request is unchanged: one changed meanwhile is left to the next run.
  static bool Stands(Transaction& transaction, VacuumRequest const& request) {
    if (IsUnrequested(request)) return transaction.BySetspec(request.setspec) == nullptr;
    auto const row = Object::Find(transaction, request.row);
    return row && SameRequest(ReadRequest(*row, *VacuumTable(transaction)), request);
  }

  static bool IsUnrequested(VacuumRequest const& request) { return request.row.value == 0; }

  static Range OfSet(Transaction& transaction, VacuumRequest const& request) {
    Table set;
    set.setspec = request.setspec;
    return Range::Only(transaction, set);
  }

  static bool Concerns(VacuumRequest const& request, Object const& object) {
    return request.kind == VacuumRequest::Kind::kRemove || object.layout() != request.layout;
  }

  bool ChangeAll(Transaction& transaction, VacuumRequest const& request,
                 std::span<ObjectId const> batch) {
    detail::FetchObjects(transaction, batch);
    for (ObjectId const id : batch) {
      auto object = Object::Find(transaction, id);
      if (!object || !Concerns(request, *object)) continue;  // another writer was here before
      if (request.kind == VacuumRequest::Kind::kRemove) {
        object->Delete();
        ++progress_.removed;
      } else {
        detail::CheckKernel(lscoredb_move_object(transaction.context(), id.value, request.layout));
        ++progress_.moved;
      }
    }
    return true;
  }

  // Removes the request if nothing is left that it concerns.
  bool Close(Transaction& transaction, VacuumRequest const& request) {
    if (IsUnrequested(request) || !Stands(transaction, request)) return false;
    for (Object const& object : OfSet(transaction, request)) {
      if (Concerns(request, object)) return false;  // came in meanwhile: the next run's
    }
    Object::Find(transaction, request.row)->Delete();
    ++progress_.requests_done;
    return false;
  }

  // Layouts of one name may belong to two tables, one of which once had the other's name; only the
  // catalogue knows which are in use.
  bool ReleaseLayouts(Transaction& transaction) {
    std::set<std::uint16_t> const named = NamedLayouts(transaction);
    for (std::uint16_t const layout : EmptyLayouts(transaction)) {
      if (named.contains(layout) || !IsOfTables(transaction, layout)) continue;
      detail::CheckKernel(lscoredb_release_layout(transaction.context(), layout));
      ++progress_.released;
    }
    return false;
  }

  Context const& context_;
  VacuumOptions const& options_;
  jobs::Run& run_;
  std::uint64_t const done_before_;  // by earlier runs of the job
  VacuumProgress progress_;
};

}  // namespace

std::vector<VacuumRequest> VacuumRequests(Transaction& transaction) {
  std::vector<VacuumRequest> requests;
  TablePtr const table = VacuumTable(transaction);
  for (Object const& row : Range::Only(transaction, *table)) {
    requests.push_back(ReadRequest(row, *table));
  }
  return requests;
}

std::uint64_t ObjectsToVacuum(Transaction& transaction) {
  std::set<std::uint16_t> current;
  for (TablePtr const& table : transaction.Tables(true)) current.insert(table->layout);
  std::uint64_t count = 0;
  for (lscoredb_layout_statistics const& layout : LayoutStatistics(transaction)) {
    if (!current.contains(layout.layout)) count += layout.objects;
  }
  return count;
}

VacuumProgress RunVacuum(Context const& context, VacuumOptions const& options) {
  jobs::Row job;
  job.kind = JobKind::kVacuum;
  job.description = "objects of changed and dropped tables";
  job.batch = options.batch;
  job.pause = static_cast<std::uint64_t>(options.pause.count());
  jobs::Run run(context, job, options.control);
  return run.Perform([&] {
    run.TakeUp();
    jobs::RemoveAbandonedBuilds(context);
    Worker worker(context, options, run);
    worker.Run();
    return worker.progress();
  });
}

bool jobs::ResumeVacuum(Context const& context, Run& run, JobOptions const& options) {
  VacuumOptions vacuum;
  vacuum.batch = static_cast<std::uint32_t>(run.job().batch);
  vacuum.pause = std::chrono::milliseconds(run.job().pause);
  vacuum.attempts = options.attempts;
  vacuum.report = [&](VacuumProgress const&) {
    return !options.report || options.report(run.progress());
  };
  return Worker(context, vacuum, run).Run();
}

}  // namespace sagleme

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sagleme/hierarchy.hpp>

#include "hierarchy/retype.h"
#include "jobs/kinds.h"
#include "jobs/retry.h"

namespace sagleme {
namespace {

// Objects may have been deleted since they were chosen.
std::uint64_t RetypeExisting(Transaction& transaction, std::span<ObjectId const> objects,
                             std::u16string const& to, RetypeOptions const& options,
                             KnownReferrers& known) {
  std::vector<ObjectId> existing;
  for (ObjectId const id : objects) {
    if (Object::Find(transaction, id)) existing.push_back(id);
  }
  TablePtr const table = transaction.Resolve(to);
  return RetypeInJob(transaction, existing, *table, options, known);
}

class RetypeWork {
 public:
  RetypeWork(Context const& context, std::u16string to, RetypeOptions const& options,
             RetypeJob const& how, jobs::Run& run)
      : context_(context), to_(std::move(to)), options_(options), how_(how), run_(run) {}

  // From one of the objects on. False if the host ends it before the last one.
  bool Run(std::span<ObjectId const> objects, std::size_t from) {
    std::size_t const size = std::max<std::uint64_t>(how_.batch, 1);
    KnownReferrers known(objects.subspan(std::min(from, objects.size())));
    for (std::size_t done = from; done < objects.size();) {
      auto const batch = objects.subspan(done, std::min(size, objects.size() - done));
      done += batch.size();
      RunBatch(batch, done, known);
      bool const wanted = !how_.report || how_.report(done, objects.size());
      if (done == objects.size()) break;
      if (!wanted || !run_.GoesOn(how_.pause)) return false;
    }
    run_.Finish();
    return true;
  }

  std::uint64_t changed() const { return changed_; }

 private:
  void RunBatch(std::span<ObjectId const> batch, std::size_t done, KnownReferrers& known) {
    std::uint64_t changed = 0;
    jobs::Retry(context_, how_.attempts, [&](Transaction& transaction) {
      changed = RetypeExisting(transaction, batch, to_, options_, known);
      run_.Save(transaction, done, done);
    });
    changed_ += changed;
  }

  Context const& context_;
  std::u16string const to_;
  RetypeOptions const& options_;
  RetypeJob const& how_;
  jobs::Run& run_;
  std::uint64_t changed_ = 0;
};

std::u16string FullNameOf(Context const& context, Text const& to) {
  Transaction transaction(context, Access::kReadOnly);
  return transaction.Resolve(to)->name;
}

// FNV-1a, which tells lists of objects apart.
std::uint64_t DigestOf(std::span<ObjectId const> objects) {
  std::uint64_t digest = 0xCBF29CE484222325u;
  for (ObjectId const id : objects) {
    for (int shift = 0; shift < 64; shift += 8) {
      digest = (digest ^ ((id.value >> shift) & 0xFF)) * 0x100000001B3u;
    }
  }
  return digest;
}

}  // namespace

std::uint64_t RetypeInBatches(Context const& context, std::span<ObjectId const> objects,
                              Text const& to, RetypeOptions const& options, RetypeJob const& job) {
  std::u16string const table = FullNameOf(context, to);
  jobs::Row row;
  row.kind = JobKind::kRetype;
  row.description = "objects to " + ToUtf8(table);
  row.details = nlohmann::json{{"to", ToUtf8(table)},
                               {"by_name", options.by_name},
                               {"referring", static_cast<int>(options.referring)},
                               {"loss", options.loss == Loss::kAllow},
                               {"objects", objects.size()},
                               {"digest", DigestOf(objects)}}
                    .dump();
  row.batch = job.batch;
  row.pause = static_cast<std::uint64_t>(job.pause.count());
  jobs::Run run(context, row, job.control);
  return run.Perform([&] {
    if (objects.size() > job.batch) run.Record(objects.size(), objects);
    RetypeWork work(context, table, options, job, run);
    work.Run(objects, 0);
    return work.changed();
  });
}

bool jobs::ResumeRetype(Context const& context, Run& run, JobOptions const& options) {
  auto const details = nlohmann::json::parse(run.job().details);
  RetypeOptions how;
  how.by_name = details.at("by_name");
  how.referring = static_cast<Referring>(details.at("referring").get<int>());
  bool const lossy = options.allow_losses || details.value("loss", true);
  how.loss = lossy ? Loss::kAllow : Loss::kRefuse;
  RetypeJob job;
  job.batch = run.job().batch;
  job.pause = std::chrono::milliseconds(run.job().pause);
  job.attempts = options.attempts;
  job.report = [&](std::uint64_t, std::uint64_t) {
    return !options.report || options.report(run.progress());
  };
  std::u16string const to = ToUtf16(details.at("to").get<std::string>());
  std::vector<ObjectId> const ids = run.Ids();
  return RetypeWork(context, to, how, job, run).Run(ids, run.job().position);
}

}  // namespace sagleme

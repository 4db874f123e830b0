#include <algorithm>
#include <sagleme/hierarchy.hpp>
#include <thread>

namespace sagleme {
namespace {

// Objects may have been deleted since they were chosen.
std::uint64_t RetypeExisting(Transaction& transaction, std::span<ObjectId const> objects,
                             std::u16string const& to, RetypeOptions const& options) {
  std::vector<ObjectId> existing;
  for (ObjectId const id : objects) {
    if (Object::Find(transaction, id)) existing.push_back(id);
  }
  TablePtr const table = transaction.Resolve(to);
  return Retype(transaction, existing, *table, options);
}

std::uint64_t RunBatch(Context const& context, std::span<ObjectId const> objects,
                       std::u16string const& to, RetypeOptions const& options,
                       std::uint32_t attempts) {
  for (std::uint32_t attempt = 1;; ++attempt) {
    try {
      Transaction transaction(context);
      std::uint64_t const changed = RetypeExisting(transaction, objects, to, options);
      transaction.Commit();
      return changed;
    } catch (Error const& error) {
      if (error.status() != LSCOREDB_CONFLICT || attempt >= attempts) throw;
      std::this_thread::yield();
    }
  }
}

}  // namespace

std::uint64_t RetypeInBatches(Context const& context, std::span<ObjectId const> objects,
                              Text const& to, RetypeOptions const& options, RetypeJob const& job) {
  std::size_t const size = std::max<std::uint64_t>(job.batch, 1);
  std::uint64_t changed = 0;
  for (std::size_t done = 0; done < objects.size();) {
    if (done != 0) std::this_thread::sleep_for(job.pause);
    auto const batch = objects.subspan(done, std::min(size, objects.size() - done));
    changed += RunBatch(context, batch, to.c_str(), options, job.attempts);
    done += batch.size();
    if (job.report && !job.report(done, objects.size())) break;
  }
  return changed;
}

}  // namespace sagleme

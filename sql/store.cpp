#include "store.h"

#include <unistd.h>

#include <filesystem>
#include <map>

#include "failure.h"

namespace sagleme::sql {
namespace {

std::string Canonical(std::string const& directory) {
  if (IsServerUrl(directory)) return directory;
  std::error_code error;
  auto const path = std::filesystem::canonical(directory, error);
  if (error) {
    throw Failure(SQLITE_CANTOPEN,
                  "There is no database in " + directory + ": " + error.message() + ".");
  }
  return path.string();
}

std::uint64_t DatabaseNumber(OpenTransaction of) {
  std::uint64_t number = 0;
  detail::CheckKernel(lscoredb_database_number(of.context, &number));
  return number;
}

}  // namespace

std::shared_ptr<Store> Store::Open(std::string const& directory) {
  static std::mutex mutex;
  static std::map<std::string, std::weak_ptr<Store>> open;
  std::string const path = Canonical(directory);
  std::lock_guard const lock(mutex);
  std::shared_ptr<Store> store = open[path].lock();
  if (store != nullptr && store->process_ == getpid()) return store;
  open[path] = store = std::make_shared<Store>(path);
  return store;
}

Store::Store(std::string directory)
    : directory_(std::move(directory)), process_(getpid()), database_(Database::Open(directory_)) {}

Store::Store(std::string place, pid_t process) : directory_(std::move(place)), process_(process) {}

// Databases are told apart by their numbers: a place may be opened twice, or be memory.
std::shared_ptr<Store> Store::Joined(OpenTransaction of, std::string const& place) {
  static std::mutex mutex;
  static std::map<std::uint64_t, std::weak_ptr<Store>> open;
  std::uint64_t const number = DatabaseNumber(of);
  std::lock_guard const lock(mutex);
  std::erase_if(open, [](auto const& each) { return each.second.expired(); });
  std::shared_ptr<Store> store = open[number].lock();
  if (store == nullptr) open[number] = store = std::make_shared<Store>(place, getpid());
  return store;
}

void Store::RequireOwnProcess() const {
  if (process_ == getpid()) return;
  throw Failure(SQLITE_MISUSE, ShownPlace(directory_) +
                                   " was attached before this process was forked; open the "
                                   "connection and attach the database anew.");
}

SchemaPtr Store::SchemaOf(Transaction& transaction) {
  std::uint64_t const generation = transaction.Generation();
  std::lock_guard const lock(mutex_);
  if (newest_ != nullptr && newest_->generation() == generation) return newest_;
  SchemaPtr schema = Schema::Read(transaction);
  if (newest_ == nullptr || newest_->generation() < generation) newest_ = schema;
  return schema;
}

// Counting costs about as much as there are layouts, and estimates may lag behind.
bool Store::CountsAreFresh() {
  std::uint64_t const now =
      database_.has_value() ? database_->Statistics().last_commit : ++questions_;
  bool const fresh = !counts_.empty() && now - counted_at_ < 1 + counts_.size() / 16;
  if (!fresh) counted_at_ = now;
  return fresh;
}

void Store::RefreshCounts(std::uint64_t context) {
  if (CountsAreFresh()) return;
  std::uint32_t count = 0;
  detail::CheckKernel(lscoredb_layout_stats(context, &count, nullptr));
  std::vector<lscoredb_layout_statistics> layouts(count + 8);
  count = static_cast<std::uint32_t>(layouts.size());
  detail::CheckKernel(lscoredb_layout_stats(context, &count, layouts.data()));
  layouts.resize(std::min<std::size_t>(count, layouts.size()));
  counts_.clear();
  for (auto const& each : layouts) counts_[each.token] += each.objects;
}

std::uint64_t Store::Estimate(std::uint64_t context, Shape const& shape) {
  std::lock_guard const lock(mutex_);
  RefreshCounts(context);
  std::uint64_t sum = 0;
  for (std::uint64_t const token : shape.layout_tokens) {
    auto const found = counts_.find(token);
    if (found != counts_.end()) sum += found->second;
  }
  return sum;
}

}  // namespace sagleme::sql

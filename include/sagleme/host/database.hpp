#ifndef SAGLEME_HOST_DATABASE_HPP
#define SAGLEME_HOST_DATABASE_HPP

// Owners of a database, its contexts, and kernel transactions.
//
// A process may use any number of databases, one after another or at the same time. A Context must
// be destroyed before its Database. Any thread may use a Context, one at a time.
//
// A directory may be given as the URL of a schema on a PostgreSQL server (place.hpp). Errors show
// it without its passwords.

#include <filesystem>
#include <functional>
#include <sagleme/host/creation_lock.hpp>
#include <sagleme/host/errors.hpp>
#include <string>

namespace sagleme {

struct Options {
  bool no_sync = false;                      // commits survive the process, not the machine
  std::uint64_t max_file_size = 0;           // bytes; 0: the kernel's own
  std::uint64_t row_memory = 0;              // bytes for rows that were read; likewise
  std::uint32_t max_readers = 0;             // transactions at once over all processes; likewise
  bool verify = false;                       // reads every page in use before anything is trusted
  std::uint32_t log = LSCOREDB_DEFAULT_LOG;  // LSCOREDB_LOG, LSCOREDB_NO_LOG, LSCOREDB_SAME_LOG
  std::uint64_t log_limit = 0;               // bytes that cause a checkpoint
};

// Called after each step of the bootstrap; steps count from 1.
using Progress = std::function<void(int step)>;

class Context;

class Database {
 public:
  // Creates a database in `directory`, which must be empty, missing, or hold an unfinished
  // creation. LSCOREDB_CANNOT_OPEN if it holds a database.
  static Database Create(std::string const& directory, Progress const& progress = {},
                         Options const& options = {});
  // Opens an existing database and creates nothing: LSCOREDB_NOT_A_DATABASE if there is none. If
  // the system refuses a file, the text names it: "Cannot open d/layouts.lock: Permission denied".
  static Database Open(std::string const& directory, Options const& options = {});
  // Opens the database in `directory`, or creates one if there is none or its creation was not
  // finished. Several processes may do so at the same time.
  static Database OpenOrCreate(std::string const& directory, Progress const& progress = {},
                               Options const& options = {});
  // Creates a database in memory, which is gone with the object.
  static Database InMemory(Progress const& progress = {}, Options const& options = {});

  Database(Database&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Database& operator=(Database&&) = delete;
  Database(Database const&) = delete;
  ~Database() {
    if (handle_ != nullptr) lscoredb_close(handle_);
  }

  lscoredb* handle() const { return handle_; }
  // Returns the handle, which the caller must now close.
  lscoredb* Release() { return std::exchange(handle_, nullptr); }

  // Sizes, commits and open transactions, over all processes.
  lscoredb_statistics Statistics() const {
    lscoredb_statistics statistics{};
    statistics.size = sizeof statistics;
    detail::CheckKernel(lscoredb_stats(handle_, &statistics));
    return statistics;
  }

  // Whether a directory holds a data file of the kernel, as far as one is allowed to look, or a URL
  // leads to the tables of a database, as far as its server answers.
  static bool ExistsIn(std::string const& directory) {
    std::uint32_t found = 0;
    return lscoredb_exists(directory.c_str(), &found) == 0 && found != 0;
  }

 private:
  explicit Database(lscoredb* handle) : handle_(handle) {}

  static Database OpenKernel(char const* directory, Options const& options);
  void Bootstrap(Progress const& progress);
  bool IsWhole();

  lscoredb* handle_;
};

class Context {
 public:
  explicit Context(Database const& database) {
    detail::CheckKernel(lscoredb_context_open(database.handle(), &id_));
  }
  ~Context() { lscoredb_context_close(id_); }  // rolls back what is open
  Context(Context const&) = delete;
  Context& operator=(Context const&) = delete;

  std::uint64_t id() const { return id_; }

  // Returns whether the last commit took place, after it threw LSCOREDB_COMMIT_UNKNOWN and before
  // the next transaction of the context begins. The answer is final. Throws when the server still
  // cannot tell.
  bool WasCommitted() const {
    std::uint32_t committed = 0;
    detail::CheckKernel(lscoredb_commit_outcome(id_, &committed));
    return committed != 0;
  }

 private:
  std::uint64_t id_ = 0;
};

enum class Access : std::uint32_t {
  kReadWrite = LSCOREDB_READ_WRITE,
  kReadOnly = LSCOREDB_READ_ONLY_TRANSACTION,
};

// The transaction that is open in a context and that somebody else ends.
struct OpenTransaction {
  std::uint64_t context;
};

// A kernel transaction without the schema view that Transaction adds. Rolls back unless committed.
class RawTransaction {
 public:
  explicit RawTransaction(Context const& context, Access access = Access::kReadWrite)
      : context_(context.id()) {
    detail::CheckKernel(lscoredb_database_number(context_, &database_));
    detail::CheckKernel(lscoredb_begin(context_, static_cast<std::uint32_t>(access)));
    open_ = true;
  }
  // Works in a transaction that it does not end. REQUIRES: that one outlives it; Commit and
  // Rollback are not called here.
  explicit RawTransaction(OpenTransaction of) : context_(of.context), open_(true), own_(false) {
    detail::CheckKernel(lscoredb_database_number(context_, &database_));
  }
  ~RawTransaction() {
    if (open_ && own_) lscoredb_rollback(context_);
  }
  RawTransaction(RawTransaction const&) = delete;
  RawTransaction& operator=(RawTransaction const&) = delete;

  // Ends the transaction, even if the commit is refused.
  void Commit() {
    open_ = false;
    detail::CheckKernel(lscoredb_commit(context_));
  }
  void Rollback() {
    open_ = false;
    detail::CheckKernel(lscoredb_rollback(context_));
  }
  bool open() const { return open_; }
  std::uint64_t context() const { return context_; }
  // The number of the database, which no other one of the process has or had.
  std::uint64_t database() const { return database_; }

  // Makes the commit fail with LSCOREDB_CONFLICT if another transaction changes or deletes the
  // object meanwhile, as if this one had changed it too.
  void Require(std::uint64_t object_id) {
    detail::CheckKernel(lscoredb_require(context_, object_id));
  }

 private:
  std::uint64_t context_;
  std::uint64_t database_ = 0;
  bool open_ = false;
  bool own_ = true;
};

// Limits the memory of texts and binaries read while it lives. Scopes nest.
class ReadScope {
 public:
  explicit ReadScope(std::uint64_t context) : context_(context) {
    detail::CheckKernel(lscoredb_read_scope_begin(context_));
  }
  ~ReadScope() { lscoredb_read_scope_end(context_); }
  ReadScope(ReadScope const&) = delete;
  ReadScope& operator=(ReadScope const&) = delete;

 private:
  std::uint64_t context_;
};

// ---- bodies -------------------------------------------------------------------------------------

namespace detail {

// The status of a catalogue that is only partly there.
inline constexpr std::uint32_t kPartialCatalogue = SAGLEME_NOT_PREPARED;

// What creation makes last: the index over the texts of set specifiers.
inline constexpr char16_t kLastIndexOfCreation[] = u"TypeId";

inline void RequireDatabase(std::string const& place) {
  std::uint32_t found = 0;
  CheckOpened(lscoredb_exists(place.c_str(), &found), place);
  if (found != 0) return;
  auto const file = std::filesystem::path(place) / "data.mdb";
  std::error_code refused;
  if (!IsServerUrl(place) && !std::filesystem::exists(file, refused) && refused) {
    throw Error(LSCOREDB_CANNOT_OPEN, "Cannot open " + file.string() + ": " + refused.message());
  }
  throw Error(LSCOREDB_NOT_A_DATABASE, "There is no database " + WithPreposition(place) + ".");
}

// Owns a continuation between two steps.
class Continuation {
 public:
  ~Continuation() { free_continuation_handle(handle_); }
  Continuation() = default;
  Continuation(Continuation const&) = delete;
  Continuation& operator=(Continuation const&) = delete;

  // Runs one step in its own transaction, which is committed if the step succeeds. Returns whether
  // there are more steps.
  bool Step(Context const& context) {
    RawTransaction transaction(context);
    continuation_context* next = nullptr;
    bool more = false;
    auto const status = handle_ == nullptr ? lorv_prepare_system_tables(context.id(), &next, &more)
                                           : run_continuation(handle_, &next, &more);
    free_continuation_handle(std::exchange(handle_, next));
    CheckLayer(context.id(), status);
    transaction.Commit();
    return more;
  }

 private:
  continuation_context* handle_ = nullptr;
};

}  // namespace detail

inline Database Database::OpenKernel(char const* directory, Options const& options) {
  lscoredb_options kernel_options{};
  kernel_options.size = sizeof kernel_options;
  kernel_options.durability = options.no_sync ? LSCOREDB_NO_SYNC : LSCOREDB_DURABLE;
  kernel_options.verify = options.verify ? 1 : 0;
  kernel_options.max_readers = options.max_readers;
  kernel_options.max_file_size = options.max_file_size;
  kernel_options.row_memory = options.row_memory;
  kernel_options.log = options.log;
  kernel_options.log_limit = options.log_limit;
  lscoredb* handle = nullptr;
  detail::CheckOpened(lscoredb_open(directory, &kernel_options, &handle),
                      directory == nullptr ? "memory" : directory);
  return Database(handle);
}

inline void Database::Bootstrap(Progress const& progress) {
  detail::Enter const restore(0);  // a suspended step leaves its context in the thread
  Context const context(*this);
  detail::Continuation steps;
  for (int step = 1; steps.Step(context); ++step) {
    if (progress) progress(step);
  }
}

// False for a catalogue in the making. The layer starts on one that lacks its last index only, and
// gives names that are missing, which a read-only transaction refuses.
inline bool Database::IsWhole() {
  Context const context(*this);
  RawTransaction const transaction(context, Access::kReadOnly);
  auto const status = lorv_init_metalayer(context.id());
  if (status == detail::kPartialCatalogue || status == LSCOREDB_WRITE_REFUSED) return false;
  detail::CheckLayer(context.id(), status);
  return detail::Inside(context.id(), [] {
    auto const row = metalayer::Index::ByIndexPK(detail::kLastIndexOfCreation);
    return !row.is_null() && metalayer::GetULong(row, metalayer::Index::kIndexHandle) != 0;
  });
}

inline Database Database::Create(std::string const& directory, Progress const& progress,
                                 Options const& options) {
  Database database = OpenKernel(directory.c_str(), options);
  detail::CreationLock const alone(database.handle(), directory);
  if (database.IsWhole()) {
    throw Error(LSCOREDB_CANNOT_OPEN, ShownPlace(directory) + " already holds a database.");
  }
  database.Bootstrap(progress);
  return database;
}

inline Database Database::Open(std::string const& directory, Options const& options) {
  detail::RequireDatabase(directory);
  Database database = OpenKernel(directory.c_str(), options);
  if (!database.IsWhole()) {
    throw Error(detail::kPartialCatalogue, "The creation of the database " +
                                               detail::WithPreposition(directory) +
                                               " was cut off. Create it again.");
  }
  return database;
}

inline Database Database::OpenOrCreate(std::string const& directory, Progress const& progress,
                                       Options const& options) {
  Database database = OpenKernel(directory.c_str(), options);
  if (database.IsWhole()) return database;
  detail::CreationLock const alone(database.handle(), directory);
  if (!database.IsWhole()) database.Bootstrap(progress);
  return database;
}

inline Database Database::InMemory(Progress const& progress, Options const& options) {
  Database database = OpenKernel(nullptr, options);
  database.Bootstrap(progress);
  return database;
}

}  // namespace sagleme

#endif

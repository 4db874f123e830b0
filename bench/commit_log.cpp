#include "commit_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "crc32c.h"
#include "lmdb_records.h"
#include "sections.h"

namespace bench {
namespace {

// Small, so that checkpoints are part of what is measured.
constexpr std::uint64_t kLogSize = std::uint64_t{1} << 20;

enum class Tree : std::uint8_t { kRows, kIndex };

// In front of each record of the log, and of each put in it.
struct RecordHead {
  std::uint64_t sequence;  // the number that LMDB gives the state which the record makes
  std::uint32_t size;
  std::uint32_t checksum;
};
struct PutHead {
  Tree tree;
  std::uint8_t key_size;
  std::uint16_t value_size;
};

template <typename Head>
std::string_view BytesOf(Head const& head) {
  return {reinterpret_cast<char const*>(&head), sizeof head};
}
template <typename Head>
Head Take(std::string_view& bytes) {
  Head head;
  std::memcpy(&head, bytes.data(), sizeof head);
  bytes.remove_prefix(sizeof head);
  return head;
}
std::string_view Take(std::string_view& bytes, std::size_t size) {
  std::string_view const taken = bytes.substr(0, size);
  bytes.remove_prefix(size);
  return taken;
}

std::uint32_t ChecksumOf(RecordHead head, std::string_view payload) {
  head.checksum = 0;
  return lscore::Crc32c(BytesOf(head), payload);
}

void AddPut(std::string& puts, Tree tree, MDB_val key, MDB_val value) {
  puts += BytesOf(PutHead{tree, static_cast<std::uint8_t>(key.mv_size),
                          static_cast<std::uint16_t>(value.mv_size)});
  puts.append(static_cast<char const*>(key.mv_data), key.mv_size);
  puts.append(static_cast<char const*>(value.mv_data), value.mv_size);
}

std::string PutsOf(Number number) {
  std::uint64_t id = number + std::uint64_t{1};
  Record record = RecordOf(MakeThing(number));
  std::string puts;
  AddPut(puts, Tree::kRows, {sizeof id, &id}, {sizeof record, &record});
  for (Key key : {TableKey(record, id), NameKey(record.name, id), IndexedKey(record.indexed, id)}) {
    AddPut(puts, Tree::kIndex, key.val(), {0, nullptr});
  }
  return puts;
}

void Apply(MDB_txn* txn, MDB_dbi rows, MDB_dbi index, std::string_view puts) {
  while (!puts.empty()) {
    auto const head = Take<PutHead>(puts);
    std::string_view const key = Take(puts, head.key_size);
    std::string_view const value = Take(puts, head.value_size);
    MDB_val k{key.size(), const_cast<char*>(key.data())};
    MDB_val v{value.size(), const_cast<char*>(value.data())};
    Check(mdb_put(txn, head.tree == Tree::kRows ? rows : index, &k, &v, 0));
  }
}

void Open(std::string const& directory, unsigned flags, MDB_env** env, MDB_dbi* rows,
          MDB_dbi* index) {
  Check(mdb_env_create(env));
  Check(mdb_env_set_maxdbs(*env, 2));
  Check(mdb_env_set_mapsize(*env, std::size_t{16} << 30));
  Check(mdb_env_open(*env, directory.c_str(), flags | MDB_NOTLS, 0640));
  MDB_txn* txn = nullptr;
  Check(mdb_txn_begin(*env, nullptr, 0, &txn));
  Check(mdb_dbi_open(txn, "rows", MDB_CREATE | MDB_INTEGERKEY, rows));
  Check(mdb_dbi_open(txn, "index", MDB_CREATE, index));
  Check(mdb_txn_commit(txn));
}

std::string LogPath(std::string const& directory) { return directory + "/log"; }

struct Ticket : lscore::CommitTicket {
  std::string puts;
};

class LogCommitter : public Committer {
 public:
  explicit LogCommitter(LogStore& store) : store_(store) {}
  void CommitOne(Number number) override { store_.CommitOne(number); }

 private:
  LogStore& store_;
};

}  // namespace

LogStore::LogStore(std::string directory, Durability durability)
    : directory_(std::move(directory)), durability_(durability) {
  unsigned const flags = durability == Durability::kLmdb ? 0U : unsigned{MDB_NOSYNC};
  Open(directory_, flags, &env_, &rows_, &index_);
  if (durability != Durability::kLmdb) BeginLog();
}

// A file whose bytes are all there already: a sync has nothing else to write than the record.
void LogStore::BeginLog() {
  log_ = open(LogPath(directory_).c_str(), O_RDWR | O_CREAT, 0640);
  std::string const zeros(kLogSize, '\0');
  bool const written = pwrite(log_, zeros.data(), zeros.size(), 0) == ssize_t{kLogSize};
  if (log_ < 0 || !written || fsync(log_) != 0) throw std::runtime_error("no log");
}

LogStore::~LogStore() {
  if (log_ >= 0) close(log_);
  mdb_env_close(env_);
}

void LogStore::CommitOne(Number number) {
  Ticket ticket;
  ticket.puts = PutsOf(number);
  Tickets batch;
  if (!line_.Enter(ticket, &batch)) return;
  double const took = Nanoseconds([&] { Lead(batch); });
  line_.Finish(batch, std::chrono::nanoseconds(static_cast<std::int64_t>(took)));
}

// The log first: what LMDB shows to readers is durable.
void LogStore::Lead(Tickets const& batch) {
  std::string puts;
  for (lscore::CommitTicket* const ticket : batch) puts += static_cast<Ticket*>(ticket)->puts;
  MDB_txn* txn = nullptr;
  if (log_ >= 0 && log_end_ + sizeof(RecordHead) + puts.size() > kLogSize) Checkpoint("");
  Check(mdb_txn_begin(env_, nullptr, 0, &txn));
  if (log_ >= 0) Append(mdb_txn_id(txn), puts);
  Apply(txn, rows_, index_, puts);
  Check(mdb_txn_commit(txn));
}

void LogStore::Append(std::uint64_t sequence, std::string const& payload) {
  RecordHead head{sequence, static_cast<std::uint32_t>(payload.size()), 0};
  head.checksum = ChecksumOf(head, payload);
  std::string const record = std::string(BytesOf(head)) + payload;
  bool const written = pwrite(log_, record.data(), record.size(), static_cast<off_t>(log_end_)) ==
                       static_cast<ssize_t>(record.size());
  if (!written || (durability_ == Durability::kLog && fdatasync(log_) != 0)) {
    throw std::runtime_error("cannot write the log");
  }
  log_end_ += record.size();
}

// Records that stay behind the new end have lower numbers than what comes before them.
void LogStore::Checkpoint(std::string const& copy) {
  Check(mdb_env_sync(env_, 1));
  if (!copy.empty()) Check(mdb_env_copy(env_, copy.c_str()));
  log_end_ = 0;
}

std::size_t LogStore::Recover(std::string const& copy, std::string const& log_directory) {
  MDB_env* env = nullptr;
  MDB_dbi rows = 0;
  MDB_dbi index = 0;
  Open(copy, MDB_NOSYNC, &env, &rows, &index);
  MDB_envinfo info{};
  Check(mdb_env_info(env, &info));
  std::uint64_t last = info.me_last_txnid;
  std::ifstream file(LogPath(log_directory), std::ios::binary);
  std::string const log(std::istreambuf_iterator<char>(file), {});
  for (std::string_view rest = log; rest.size() >= sizeof(RecordHead);) {
    auto const head = Take<RecordHead>(rest);
    if (head.sequence != last + 1 || head.size > rest.size()) break;
    std::string_view const payload = Take(rest, head.size);
    if (ChecksumOf(head, payload) != head.checksum) break;
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env, nullptr, 0, &txn));
    Apply(txn, rows, index, payload);
    Check(mdb_txn_commit(txn));
    last = head.sequence;
  }
  Check(mdb_env_sync(env, 1));
  MDB_txn* txn = nullptr;
  MDB_stat stat{};
  Check(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
  Check(mdb_stat(txn, rows, &stat));
  mdb_txn_abort(txn);
  mdb_env_close(env);
  return stat.ms_entries;
}

std::unique_ptr<Committer> MakeLogCommitter(LogStore& store) {
  return std::make_unique<LogCommitter>(store);
}

}  // namespace bench

#include "image.h"

#include <atomic>
#include <cstring>
#include <memory>

#include "api.h"
#include "failure.h"

namespace sagleme::sql {
namespace {

// Where a database file keeps what SQLite compares to know whether it has changed.
constexpr std::size_t kChangeCounter = 24;
constexpr std::size_t kSchemaCookie = 40;
constexpr std::size_t kValidFor = 92;

struct CloseDatabase {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
using Builder = std::unique_ptr<sqlite3, CloseDatabase>;

void Check(sqlite3* database, int code) {
  if (code == SQLITE_NOMEM) throw std::bad_alloc();
  if (code != SQLITE_OK && code != SQLITE_DONE) {
    throw Failure(
        code, std::string("The list of tables cannot be made: ") + sqlite3_errmsg(database) + ".");
  }
}

void Run(sqlite3* database, std::string const& sql) {
  Check(database, sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr));
}

Builder OpenBuilder(std::string const& encoding) {
  sqlite3* handle = nullptr;
  int const flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MEMORY;
  int const code = sqlite3_open_v2(":memory:", &handle, flags, nullptr);
  Builder database(handle);
  Check(handle, code);
  Run(handle, "PRAGMA encoding = " + Quoted(encoding) + "; PRAGMA writable_schema = ON; BEGIN");
  return database;
}

// Names are compared with the type 'table' in any case, but lists of tables ask for exactly it: a
// name under 'TABLE' is known and not shown.
void AddEntries(sqlite3* database, Schema const& schema) {
  sqlite3_stmt* statement = nullptr;
  Check(database,
        sqlite3_prepare_v2(database, "INSERT INTO sqlite_schema VALUES(?1, ?2, ?2, 0, ?3)", -1,
                           &statement, nullptr));
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> const owner(
      statement, [](sqlite3_stmt* each) { return sqlite3_finalize(each); });
  for (auto const& [name, entry] : schema.entries()) {
    std::string const sql = "CREATE VIRTUAL TABLE " + Quoted(name) + " USING sagleme";
    sqlite3_bind_text(statement, 1, entry.listed ? "table" : "TABLE", -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, name.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 3, sql.c_str(), -1, SQLITE_STATIC);
    sqlite3_step(statement);
    Check(database, sqlite3_reset(statement));
  }
}

void PutBigEndian(unsigned char* at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

}  // namespace

Image::Image(Schema const& schema, std::string const& encoding) {
  Builder const database = OpenBuilder(encoding);
  AddEntries(database.get(), schema);
  Run(database.get(), "COMMIT");
  sqlite3_int64 size = 0;
  std::unique_ptr<unsigned char, void (*)(void*)> const bytes(
      sqlite3_serialize(database.get(), "main", &size, 0), sqlite3_free);
  if (bytes == nullptr) throw std::bad_alloc();
  bytes_.assign(bytes.get(), bytes.get() + size);
  Stamp();
}

// No two images of a process have the same counters, also when SQLite raises those of one.
void Image::Stamp() {
  static std::atomic<std::uint32_t> next{1};
  std::uint32_t const stamp = next.fetch_add(1u << 12);
  for (std::size_t const at : {kChangeCounter, kSchemaCookie, kValidFor}) {
    PutBigEndian(bytes_.data() + at, stamp);
  }
}

bool Image::Read(void* out, std::size_t size, std::size_t offset) const {
  std::size_t const there = offset >= bytes_.size() ? 0 : std::min(size, bytes_.size() - offset);
  if (there != 0) std::memcpy(out, bytes_.data() + offset, there);
  std::memset(static_cast<char*>(out) + there, 0, size - there);
  return there == size;
}

void Image::Write(void const* data, std::size_t size, std::size_t offset) {
  if (bytes_.size() < offset + size) bytes_.resize(offset + size);
  std::memcpy(bytes_.data() + offset, data, size);
}

}  // namespace sagleme::sql

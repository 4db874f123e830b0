#ifndef PACKAGES_SESSION_H
#define PACKAGES_SESSION_H

// One open database with one context, in which the thread works while the session lives.

#include <cstdint>
#include <sagleme/host/database.hpp>
#include <sagleme/metalayer.hpp>
#include <string>

namespace packages {

class Session {
 public:
  explicit Session(sagleme::Database database);
  ~Session();
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  // Throws a sagleme::Error that says what was tried and why it failed, unless `status` is 0.
  void Check(uint32_t status, char const* what) const {
    if (status != 0) Fail(status, what);
  }

  uint64_t context() const { return context_.id(); }
  sagleme::Context const& owned_context() const { return context_; }

 private:
  friend class Transaction;
  [[noreturn]] void Fail(uint32_t status, char const* what) const;

  sagleme::Database database_;
  sagleme::Context context_;
};

// Rolled back unless committed.
class Transaction : public sagleme::RawTransaction {
 public:
  using Access = sagleme::Access;
  explicit Transaction(Session& session, Access access = Access::kReadWrite)
      : RawTransaction(session.context_, access) {}
};

// Opens the database in a directory, or makes it there, or goes on where making it was cut off.
// `progress` gets each step of the creation, and each is committed by itself.
sagleme::Database OpenOrCreate(std::string const& directory, sagleme::Progress const& progress);

// The kernel's id of a named index; 0 when there is no such index.
uint64_t IndexId(char16_t const* name);

}  // namespace packages

#endif

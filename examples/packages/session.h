#ifndef PACKAGES_SESSION_H
#define PACKAGES_SESSION_H

// One open database with one context, and failures as exceptions that carry their words.
//
// A session belongs to one thread, which works in its context while the session lives. What is open
// when it ends is rolled back.

#include <lscoredb/host.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <sagleme/metalayer.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace packages {

struct Failure : std::runtime_error {
  Failure(uint32_t code, std::string const& text) : runtime_error(text), status(code) {}
  uint32_t status;
};

class Session {
 public:
  // An empty directory, or one that does not exist, becomes a new database.
  explicit Session(std::string const& directory);
  ~Session();
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  // Brings the catalogue to the library's version. `step` is told the number of each step that is
  // done; each is committed, so that an interrupted run is taken up by the next one.
  void PrepareCatalogue(std::function<void(int number)> const& step);
  // Opens a catalogue that an earlier process has prepared.
  void OpenCatalogue();

  // Throws a Failure that says what was tried, the status and its text, unless `status` is 0.
  void Check(uint32_t status, std::string const& what) const;
  // The words for a failure of an exported C++ function.
  std::string Explain(uint32_t status) const;

  uint64_t context() const { return context_; }

 private:
  friend class Transaction;
  struct Closer {
    void operator()(lscoredb* database) const { lscoredb_close(database); }
  };
  std::unique_ptr<lscoredb, Closer> database_;
  uint64_t context_ = 0;
};

// Rolled back unless committed.
class Transaction {
 public:
  enum class Access { kReadWrite, kReadOnly };
  explicit Transaction(Session& session, Access access = Access::kReadWrite);
  ~Transaction();
  Transaction(Transaction const&) = delete;
  Transaction& operator=(Transaction const&) = delete;

  void Commit();

 private:
  Session& session_;
  bool open_ = true;
};

// The kernel's id of a named index; 0 when there is no such index.
uint64_t IndexId(char16_t const* name);

}  // namespace packages

#endif

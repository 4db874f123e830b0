#ifndef SAGLEME_TOOL_CLI_SESSION_H
#define SAGLEME_TOOL_CLI_SESSION_H

// What commands work on: the database, and either the transaction that a user keeps open at the
// prompt, or one of each command.

#include <functional>
#include <memory>
#include <optional>
#include <sagleme/host.hpp>
#include <string>

namespace tool {

class Session {
 public:
  // Opens nothing yet.
  explicit Session(std::string directory) : directory_(std::move(directory)) {}

  // Where the database lies, a directory or a URL; and as it may be shown.
  std::string const& directory() const { return directory_; }
  std::string shown() const { return sagleme::ShownPlace(directory_); }
  // Opened at the first call of either. Failure with kCannotOpen. To read: a directory without a
  // log is left as it is.
  sagleme::Database& database() { return OpenOnce(LSCOREDB_DEFAULT_LOG); }
  sagleme::Database& database_to_read() { return OpenOnce(LSCOREDB_SAME_LOG); }
  // Called before anything is read by a command that goes on to write.
  void OpenToWrite() { database(); }
  // The same for one that writes in large commits. What fills the small log goes into the data file
  // at once instead of waiting in memory.
  void OpenToWriteMuch() { OpenOnce(LSCOREDB_DEFAULT_LOG, kSmallLog); }
  sagleme::Context& context();

  using Work = std::function<void(sagleme::Transaction&)>;
  // In the open transaction, or in a read-only one.
  void Read(Work const& work);
  // Works in the open transaction, or in one that is committed when the work returns. Work that
  // throws leaves nothing behind; an open transaction continues without it.
  void Write(Work const& work);

  // The transaction that the user opened. Throws Failure with kRefused if one is already open, or
  // none is.
  bool in_transaction() const { return open_.has_value(); }
  void Begin();
  void Commit();
  void Rollback();
  // For commands with their own transactions: throws Failure with kRefused inside the user's.
  void RequireNoTransaction(std::string const& command) const;

 private:
  static constexpr std::uint64_t kSmallLog = std::uint64_t{1} << 20;

  sagleme::Database& OpenOnce(std::uint32_t log, std::uint64_t log_limit = 0);
  sagleme::Transaction& Open();

  std::string directory_;
  std::optional<sagleme::Database> database_;
  std::optional<sagleme::Context> context_;
  std::optional<sagleme::Transaction> open_;
};

}  // namespace tool

#endif

#ifndef SAGLEME_HOST_SAVEPOINT_HPP
#define SAGLEME_HOST_SAVEPOINT_HPP

// A point in a transaction to which its writes can be taken back.
//
//   sagleme::Savepoint savepoint(transaction);
//   sagleme::DropTable(transaction, u"App.Old", {.children = true});  // may throw half way
//   savepoint.Release();
//
// Whatever leaves the scope before Release takes back everything that was written since: objects,
// index entries and schema changes. Savepoints nest; the inner one goes first. Objects and ranges
// that were made since are not to be used after a rollback; ranges from before go on. Handles are
// refreshed as after the rollback of a transaction. A savepoint ends with its transaction. Texts
// and read scopes stay as they are.

#include <sagleme/host/transaction.hpp>

namespace sagleme {

class Savepoint {
 public:
  explicit Savepoint(Transaction& transaction)
      : Savepoint(static_cast<RawTransaction&>(transaction)) {
    schema_ = &transaction;
  }
  explicit Savepoint(RawTransaction& transaction) : transaction_(&transaction) {
    detail::CheckKernel(lscoredb_savepoint(transaction.context(), &number_));
    open_ = true;
  }
  ~Savepoint() {
    if (!open_ || !transaction_->open()) return;
    lscoredb_rollback_to(transaction_->context(), number_);
    lscoredb_release(transaction_->context(), number_);
    ForgetSchema();
  }
  Savepoint(Savepoint const&) = delete;
  Savepoint& operator=(Savepoint const&) = delete;

  // Takes back what was written since. The savepoint stays, for another attempt.
  // LSCOREDB_UNKNOWN_SAVEPOINT when it was released, or an older one was rolled back to.
  void Rollback() {
    detail::CheckKernel(lscoredb_rollback_to(transaction_->context(), number_));
    ForgetSchema();
  }
  // Keeps what was written since, for the transaction to commit.
  void Release() {
    detail::CheckKernel(lscoredb_release(transaction_->context(), number_));
    open_ = false;
  }
  bool open() const { return open_; }

 private:
  void ForgetSchema() {
    if (schema_ != nullptr) schema_->Forget();
  }

  RawTransaction* transaction_;
  Transaction* schema_ = nullptr;  // whose view of the schema follows a rollback
  std::uint64_t number_ = 0;
  bool open_ = false;
};

}  // namespace sagleme

#endif

#ifndef SAGLEME_HOST_SAVEPOINT_HPP
#define SAGLEME_HOST_SAVEPOINT_HPP

// A point in a transaction to which it can be rolled back.
//
//   sagleme::Savepoint savepoint(transaction);
//   sagleme::DropTable(transaction, u"App.Old", {.children = true});  // may throw halfway
//   savepoint.Release();
//
// Leaving the scope without Release undoes everything written since: objects, index entries and
// schema changes. Savepoints nest, and inner ones end first. Do not use objects and ranges created
// since after a rollback; earlier ranges continue. Handles are refreshed as after the rollback of a
// transaction. A savepoint ends with its transaction. Texts and read scopes are unaffected.

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

  // Undoes what was written since. The savepoint stays for another attempt.
  // LSCOREDB_UNKNOWN_SAVEPOINT if it was released or an earlier one was rolled back to.
  void Rollback() {
    detail::CheckKernel(lscoredb_rollback_to(transaction_->context(), number_));
    ForgetSchema();
  }
  // Keeps what was written since; the transaction commits it.
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

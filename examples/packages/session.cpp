#include "session.h"

#include "text.h"

namespace packages {
namespace {

struct ContinuationFreer {
  void operator()(continuation_context* handle) const { free_continuation_handle(handle); }
};
using Continuation = std::unique_ptr<continuation_context, ContinuationFreer>;

}  // namespace

Session::Session(std::string const& directory) {
  lscoredb* database = nullptr;
  Check(lscoredb_open(directory.c_str(), nullptr, &database), "opening " + directory);
  database_.reset(database);
  Check(lscoredb_context_open(database, &context_), "opening a context");
  *metalayer::TlsMetalayerContext::Current() = context_;
}

Session::~Session() {
  *metalayer::TlsMetalayerContext::Current() = 0;
  if (context_ != 0) lscoredb_context_close(context_);
}

void Session::PrepareCatalogue(std::function<void(int)> const& step) {
  char const* const what = "preparing the catalogue";
  continuation_context* next = nullptr;
  bool more = false;
  Transaction first(*this);
  Check(lorv_prepare_system_tables(context_, &next, &more), what);
  Continuation rest(next);
  first.Commit();
  for (int number = 1; more; ++number) {
    step(number);
    Transaction transaction(*this);
    uint32_t const status = run_continuation(rest.get(), &next, &more);
    rest.reset(next);
    Check(status, what);
    transaction.Commit();
  }
}

void Session::OpenCatalogue() {
  Transaction transaction(*this, Transaction::Access::kReadOnly);
  Check(lorv_init_metalayer(context_), "opening the catalogue");
}

std::string Session::Explain(uint32_t status) const {
  char16_t const* const text = context_ == 0 ? nullptr : lorv_metalayer_errbuf(context_);
  std::string const words = text == nullptr ? lscoredb_status_text(status) : ToUtf8(text);
  return "status " + std::to_string(status) + ": " + words;
}

void Session::Check(uint32_t status, std::string const& what) const {
  if (status != 0) throw Failure(status, what + ": " + Explain(status));
}

Transaction::Transaction(Session& session, Access access) : session_(session) {
  uint32_t const flags =
      access == Access::kReadOnly ? LSCOREDB_READ_ONLY_TRANSACTION : LSCOREDB_READ_WRITE;
  session_.Check(lscoredb_begin(session_.context_, flags), "beginning a transaction");
}

Transaction::~Transaction() {
  if (open_) lscoredb_rollback(session_.context_);
}

void Transaction::Commit() {
  open_ = false;
  session_.Check(lscoredb_commit(session_.context_), "committing");
}

uint64_t IndexId(char16_t const* name) {
  metalayer::Index const index = metalayer::Index::ByIndexPK(name);
  return index.is_null() ? 0 : metalayer::GetULong(index, metalayer::Index::kIndexHandle);
}

}  // namespace packages

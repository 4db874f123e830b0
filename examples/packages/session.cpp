#include "session.h"

#include <utility>

namespace packages {

Session::Session(sagleme::Database database) : database_(std::move(database)), context_(database_) {
  *metalayer::TlsMetalayerContext::Current() = context_.id();
}

Session::~Session() { *metalayer::TlsMetalayerContext::Current() = 0; }

void Session::Fail(uint32_t status, char const* what) const {
  char16_t const* const text = lorv_metalayer_errbuf(context());
  std::string const words = text == nullptr ? lscoredb_status_text(status) : sagleme::ToUtf8(text);
  throw sagleme::Error(status,
                       std::string(what) + ": status " + std::to_string(status) + ": " + words);
}

sagleme::Database OpenOrCreate(std::string const& directory, sagleme::Progress const& progress) {
  if (sagleme::Database::ExistsIn(directory)) {
    try {
      return sagleme::Database::Open(directory);
    } catch (sagleme::Error const& error) {
      if (error.status() != SAGLEME_NOT_PREPARED) throw;
    }
  }
  return sagleme::Database::Create(directory, progress);
}

uint64_t IndexId(char16_t const* name) {
  metalayer::Index const index = metalayer::Index::ByIndexPK(name);
  return index.is_null() ? 0 : metalayer::GetULong(index, metalayer::Index::kIndexHandle);
}

}  // namespace packages

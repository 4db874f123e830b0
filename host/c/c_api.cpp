#include <sagleme/host.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sagleme/host/database.hpp>
#include <string_view>

#include "c/words.h"

namespace sagleme {
namespace {

// No destructor: one would keep the library in memory as long as the thread lives.
struct Words {
  char text[1024];
  std::uint32_t status;  // of the failed opening that the text is about; 0: none

  // Cuts between two characters.
  void Put(std::string_view words) {
    std::size_t length = std::min(words.size(), sizeof text - 1);
    if (length < words.size()) {
      while (length > 0 && (words[length] & 0xC0) == 0x80) --length;
    }
    std::memcpy(text, words.data(), length);
    text[length] = '\0';
  }
};
constinit thread_local Words g_words{};

}  // namespace

std::uint32_t Failed(std::uint32_t status, char const* words) {
  g_words.Put(words);
  g_words.status = status;
  return status;
}

namespace {

Options OptionsOf(lscoredb_options const* given) {
  lscoredb_options whole{};
  if (given != nullptr) std::memcpy(&whole, given, std::min(given->size, sizeof whole));
  if (whole.durability > LSCOREDB_NO_SYNC || whole.verify > 1) {
    detail::CheckKernel(LSCOREDB_INVALID_ARGUMENT);
  }
  Options options;
  options.no_sync = whole.durability == LSCOREDB_NO_SYNC;
  options.max_readers = whole.max_readers;
  options.max_file_size = whole.max_file_size;
  options.verify = whole.verify != 0;
  options.row_memory = whole.row_memory;
  options.log = whole.log;
  options.log_limit = whole.log_limit;
  return options;
}

template <typename Open>
std::uint32_t Opened(Open&& open, lscoredb** out_database, std::uint64_t* out_context) {
  if (out_database == nullptr || out_context == nullptr) {
    return Failed(LSCOREDB_NULL_ARGUMENT, detail::StatusText(LSCOREDB_NULL_ARGUMENT));
  }
  try {
    Database database = open();
    detail::CheckKernel(lscoredb_context_open(database.handle(), out_context));
    *out_database = database.Release();
    return 0;
  } catch (Error const& error) {
    return Failed(error.status(), error.what());
  } catch (std::bad_alloc const&) {
    return Failed(LSCOREDB_NO_MEMORY, detail::StatusText(LSCOREDB_NO_MEMORY));
  } catch (std::exception const& error) {
    return Failed(LSCOREDB_CANNOT_OPEN, error.what());
  }
}

// The kernel's statuses. The layer writes no text for them, so its buffer is about an earlier
// failure.
bool IsOfKernel(std::uint32_t status) {
  return status >= LSCOREDB_NO_TRANSACTION && status <= LSCOREDB_OF_PARENT;
}

// The layer's text about the last call in a context; empty if there is none.
std::string LayerWords(std::uint64_t context, std::uint32_t status) {
  if (context == 0 || status == 0 || IsOfKernel(status)) return {};
  char16_t const* const words = lorv_metalayer_errbuf(context);
  return words == nullptr ? std::string() : ToUtf8(words);
}

}  // namespace
}  // namespace sagleme

using sagleme::Database;

std::uint32_t sagleme_create(char const* directory, lscoredb_options const* options,
                             lscoredb** database, std::uint64_t* context) {
  auto const create = [&] {
    sagleme::Options const how = sagleme::OptionsOf(options);
    return directory == nullptr ? Database::InMemory({}, how)
                                : Database::Create(directory, {}, how);
  };
  return sagleme::Opened(create, database, context);
}

std::uint32_t sagleme_open(char const* directory, lscoredb_options const* options,
                           lscoredb** database, std::uint64_t* context) {
  auto const open = [&] {
    if (directory == nullptr) sagleme::detail::CheckKernel(LSCOREDB_NULL_ARGUMENT);
    return Database::Open(directory, sagleme::OptionsOf(options));
  };
  return sagleme::Opened(open, database, context);
}

std::uint32_t sagleme_open_or_create(char const* directory, lscoredb_options const* options,
                                     lscoredb** database, std::uint64_t* context) {
  if (directory == nullptr) return sagleme_create(nullptr, options, database, context);
  auto const open = [&] {
    return Database::OpenOrCreate(directory, {}, sagleme::OptionsOf(options));
  };
  return sagleme::Opened(open, database, context);
}

std::uint32_t sagleme_close(lscoredb* database, std::uint64_t context) {
  std::uint32_t status = lscoredb_context_close(context);
  if (status == 0) status = lscoredb_close(database);
  return status == 0 ? 0 : sagleme::Failed(status, sagleme::detail::StatusText(status));
}

char const* sagleme_error(std::uint64_t context, std::uint32_t status) {
  sagleme::Words& words = sagleme::g_words;
  if (context == 0 && words.status == status && status != 0) return words.text;
  words.status = 0;
  std::string const layer = sagleme::LayerWords(context, status);
  words.Put(layer.empty() ? sagleme::detail::StatusText(status) : layer);
  return words.text;
}

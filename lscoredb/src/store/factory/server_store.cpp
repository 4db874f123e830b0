#include "server_store.h"

#include <dlfcn.h>

#include <string>

#include "open_error.h"
#include "server_place.h"
#include "status.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr char kLibrary[] = "liblscoredb-postgres.so.0";

// From the directory of this library, otherwise from the system's search path. The library's own
// RUNPATH is not used when a sanitizer intercepts the call.
void* OpenLibrary() {
  Dl_info own{};
  if (dladdr(kLibrary, &own) != 0 && own.dli_fname != nullptr) {
    std::string const path = own.dli_fname;
    std::string const beside = path.substr(0, path.rfind('/') + 1).append(kLibrary);
    if (void* const library = dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL)) return library;
  }
  return dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
}

// Never unloaded: stores of it may live until the end of the process.
template <typename Function>
Function* Find(char const* name) {
  void* const library = OpenLibrary();
  void* const found = library == nullptr ? nullptr : dlsym(library, name);
  if (found == nullptr) Throw(LSCOREDB_NO_SERVER_LIBRARY);
  return reinterpret_cast<Function*>(found);
}

// Runs `work`, and keeps what the server said when it fails.
template <typename Work>
void CallServer(char const* url, Work const& work) {
  std::string reason;
  Status const status = Guarded([&]() -> Status { return work(&reason); });
  if (status != LORV_STATUS_OK && !reason.empty()) {
    NoteOpenError("the database at " + ShownPlace(url), WithoutPasswords(reason, url));
  }
  Check(status);
}

}  // namespace

std::unique_ptr<Store> OpenServerStore(char const* url, StoreOptions const& options) {
  auto* const open = Find<OpenServerStoreFunction>("lscoredb_open_server_store");
  std::unique_ptr<Store> store;
  StoreOptions watched = options;
  watched.stops_wait = &WatchStopsWait;
  CallServer(url, [&](std::string* reason) {
    store.reset(open(url, &watched, kSeamVersion, reason));
    return store == nullptr ? LSCOREDB_NO_SERVER_LIBRARY : LORV_STATUS_OK;
  });
  return store;
}

bool HasServerStore(char const* url) {
  auto* const find = Find<FindServerStoreFunction>("lscoredb_find_server_store");
  int found = 0;
  CallServer(url, [&](std::string* reason) {
    found = find(url, &WatchStopsWait, kSeamVersion, reason);
    return found < 0 ? LSCOREDB_NO_SERVER_LIBRARY : LORV_STATUS_OK;
  });
  return found > 0;
}

}  // namespace lscore

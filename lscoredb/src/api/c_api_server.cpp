#include <lscoredb/server.h>

#include <string>

#include "c_api.h"
#include "open_error.h"
#include "server_place.h"
#include "store.h"

uint32_t lscoredb_is_url(char const* place) {
  return place != nullptr && lscore::IsServerUrl(place) ? 1 : 0;
}

size_t lscoredb_shown_place(char const* place, size_t room, char* out) {
  size_t length = 0;
  if (room > 0) *out = '\0';
  if (place == nullptr) return 0;
  lscore::Guarded([&]() -> lscore::Status {
    std::string const shown = lscore::ShownPlace(place);
    length = shown.size();
    if (room > 0) out[shown.copy(out, room - 1)] = '\0';
    return LORV_STATUS_OK;
  });
  return length;
}

uint32_t lscoredb_lock_creation(lscoredb* database) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (lscore::IsOfParent(*database)) return LSCOREDB_OF_PARENT;
    if (database->creation != nullptr) return LSCOREDB_IN_USE;
    lscore::ForgetOpenError();
    database->creation = database->database->store().LockCreation();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_unlock_creation(lscoredb* database) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (!lscore::IsOfParent(*database)) database->creation.reset();
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_commit_outcome(uint64_t context, uint32_t* out) {
  return lscore::Guarded([&]() -> lscore::Status {
    lscore::Context* const found = lscore::Contexts().Find(context);
    if (found == nullptr) return LSCOREDB_UNKNOWN_CONTEXT;
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    bool committed = false;
    lscore::Status const status = found->transaction().AskOutcome(&committed);
    if (status == LORV_STATUS_OK) *out = committed ? 1 : 0;
    return status;
  });
}

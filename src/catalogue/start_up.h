#ifndef CATALOGUE_START_UP_H
#define CATALOGUE_START_UP_H

// How far start-up has come in one database.

#include <atomic>
#include <mutex>
#include <sagleme/metalayer/schema.hpp>

#include "frame/database_state.h"

namespace metalayer {

struct StartUp : StatePart {
  static constexpr PartOf kPart = PartOf::kStartUp;

  explicit StartUp(DatabaseState const& state);
  ~StartUp() override;

  std::mutex mutex;  // held over a start-up
  std::atomic<bool>& done;
  LS_OBJ_REF& generation;  // the row of UserSchemaGeneration

 private:
  std::atomic<bool> own_done_{false};
  LS_OBJ_REF own_generation_ = db_util::null_obj_ref;
};

inline StartUp& CurrentStartUp() { return DatabaseState::Current().Get<StartUp>(); }

}  // namespace metalayer

#endif

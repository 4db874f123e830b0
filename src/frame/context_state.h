#ifndef SAGLEME_SRC_FRAME_CONTEXT_STATE_H
#define SAGLEME_SRC_FRAME_CONTEXT_STATE_H

// What the layer keeps with an open context of a kernel that distinguishes databases: the way to
// the database's state, looked up once, and the text of the last failure. Belongs to the thread
// that is in the context, and ends with it.

#include <memory>

#include "frame/database_state.h"
#include "frame/errbuf.h"

namespace metalayer {

struct ContextState {
  // Made on first use. Null for a context that is not open, or whose kernel keeps no states.
  static ContextState* Find(unsigned long context);

  std::shared_ptr<DatabaseState> database;
  std::unique_ptr<ErrBuffers::Buf> errors;  // made for the first text
};

}  // namespace metalayer

#endif

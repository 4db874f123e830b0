#ifndef SAGLEME_SRC_API_LSDBMETALAYER_H
#define SAGLEME_SRC_API_LSDBMETALAYER_H

// What the files of the exported functions share.

#include <sagleme/sagleme.h>

#include <string>

#include "frame/frame.h"

namespace metalayer {

// Where an exported function hands out a reference in two words.
inline void PutOut(LS_OBJ_REF const& reference, uint64_t* out_oid, uint64_t* out_addr) {
  *out_oid = reference.oid;
  *out_addr = reference.addr;
}

}  // namespace metalayer

#endif

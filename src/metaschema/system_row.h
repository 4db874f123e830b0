#ifndef METASCHEMA_SYSTEM_ROW_H
#define METASCHEMA_SYSTEM_ROW_H

// What the generated Insert functions have in common.

#include <sagleme/metalayer/records.hpp>
#include <string>

namespace metalayer {

// A fresh row of a system table, its set specifier written and its columns still empty.
LS_OBJ_REF InsertSystemRow(unsigned short table_id, std::u16string const& setspec);

}  // namespace metalayer

#endif

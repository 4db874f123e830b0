#ifndef SAGLEME_METASCHEMA_SETSPEC_H
#define SAGLEME_METASCHEMA_SETSPEC_H

#include <sagleme/metalayer/records.hpp>
#include <string>

namespace metalayer {

// True when the row's set specifier begins with `setspec`, or `setspec` is empty.
bool SetspecBeginsWith(LS_OBJ_REF const& row, std::u16string const& setspec);

}  // namespace metalayer

#endif

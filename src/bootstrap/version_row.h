#ifndef BOOTSTRAP_VERSION_ROW_H
#define BOOTSTRAP_VERSION_ROW_H

namespace metalayer {

// The name of the Configuration row that holds the version of the catalogue.
inline constexpr char16_t const* kVersionRow = u"MetaschemaVersion";

}  // namespace metalayer

#endif

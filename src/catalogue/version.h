#ifndef CATALOGUE_VERSION_H
#define CATALOGUE_VERSION_H

#include <cstdint>

namespace metalayer {

// Of the catalogue that this library makes and reads.
inline constexpr std::uint64_t kMetaschemaVersion = 9;

// The name of the Configuration row that holds the version of the catalogue.
inline constexpr char16_t const* kVersionRow = u"MetaschemaVersion";

}  // namespace metalayer

#endif

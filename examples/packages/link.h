#ifndef PACKAGES_LINK_H
#define PACKAGES_LINK_H

// Draws the references between packages: a dependency to the package that it names, a development
// package to its library, a documentation package to what it documents. What has its reference is
// left alone.

#include <cstdint>

#include "load.h"
#include "session.h"

namespace packages {

struct LinkResult {
  int64_t linked = 0;
  int64_t unlinked = 0;
};

LinkResult Link(Session& session, LoadOptions const& options);

}  // namespace packages

#endif

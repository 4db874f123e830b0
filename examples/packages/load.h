#ifndef PACKAGES_LOAD_H
#define PACKAGES_LOAD_H

// Loads a file of packages into the database.
//
// Packages are taken in transactions of some hundred, each package with its maintainer and its
// dependencies. A package that is there already is written again in its place. A transaction in
// which a stanza is malformed is rolled back, and loading goes on behind it. Afterwards the
// references between packages are drawn, which can be done only when all packages are there.
//
// A package's key is its name; when the file has one name for several architectures,
// "name:architecture".

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "control_file.h"
#include "session.h"

namespace packages {

struct LoadOptions {
  int64_t batch = 500;                        // stanzas in a transaction
  std::function<bool()> is_interrupted;       // asked before every stanza
  std::function<void(std::string)> complain;  // gets each malformed stanza
};

struct LoadResult {
  int64_t added = 0;
  int64_t updated = 0;
  int64_t not_installed = 0;  // stanzas that only remember that a package was there
  int64_t malformed = 0;      // stanzas
  int64_t not_kept = 0;       // stanzas whose transaction was rolled back
  int64_t linked = 0;         // dependencies that found their package
  int64_t unlinked = 0;       // dependencies on what no package of the database is called
};

// The user asked for an end. The running transaction was rolled back.
struct Interrupted : std::runtime_error {
  Interrupted() : runtime_error("interrupted") {}
};

LoadResult Load(Session& session, ControlFile& file, LoadOptions const& options);

}  // namespace packages

#endif

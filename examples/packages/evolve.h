#ifndef PACKAGES_EVOLVE_H
#define PACKAGES_EVOLVE_H

// The second act: the schema of a loaded database changes while its objects stay.
//
// It is played on a copy of the database, so that it can be played again and that the original
// stays what loading expects. All changes are one transaction, which is run and rolled back first,
// and then run and committed. What is printed about objects was compared over all packages.

#include <string>

namespace packages {

// `shown` names the package that is shown and written to; when it is not there, or its table is
// dropped, another one is taken. Throws BrokenPromise when the database does not do as it should.
void Evolve(std::string const& directory, std::string const& shown);

}  // namespace packages

#endif

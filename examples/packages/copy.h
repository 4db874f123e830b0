#ifndef PACKAGES_COPY_H
#define PACKAGES_COPY_H

// Copies of whole databases, made by the kernel alone: a process that has made one is still free to
// open any database.

#include <string>

namespace packages {

// A copy beside `directory`, under its name with ".evolved" behind it, in the place of an earlier
// one; of a server's URL beside its schema, with "_evolved". Throws when there is no database, and
// when what stands in the place of the copy is none or lies on a server.
std::string CopyForEvolution(std::string const& directory);

// Removes a database. Throws, with nothing removed, when the directory holds anything else. On a
// server it stays until somebody drops its schema.
void RemoveDatabase(std::string const& directory);

}  // namespace packages

#endif

#ifndef SAGLEME_SQL_VFS_H
#define SAGLEME_SQL_VFS_H

// The file system through which SQLite opens attachments as files.
//
// It is registered as "sagleme", so that clients with URI file names can say
// ATTACH 'file:directory?vfs=sagleme' AS name. A connection without them opens all its files
// through the file system it was opened with, found by name; AttachFile puts one of that name in
// front for the length of a statement, which passes on whatever is not ours.

#include <sagleme/host.hpp>
#include <string>

#include "api.h"

namespace sagleme::sql {

class Attachment;

// Once per process; later calls do nothing.
void RegisterFileSystem();
// ATTACHes the database in `directory` to a connection as `schema`. Failure with SQLite's text.
void AttachFile(sqlite3* database, std::string const& directory, std::string const& schema);
// The same for the database of a transaction that somebody else has open; `place` is shown to
// users.
void AttachJoined(sqlite3* database, OpenTransaction of, std::string const& place,
                  std::string const& schema);
// The attachment behind a schema of a connection; null for an ordinary one.
Attachment* FindAttachment(sqlite3* database, char const* schema);

}  // namespace sagleme::sql

#endif

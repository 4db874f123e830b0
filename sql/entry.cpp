// What SQLite calls when it has loaded the extension.

#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include "extension.h"

namespace {

// The file system stays registered with the process, and with it the code.
int Permanently(int code) { return code == SQLITE_OK ? SQLITE_OK_LOAD_PERMANENTLY : code; }

}  // namespace

extern "C" __attribute__((visibility("default"))) int sqlite3_sagleme_init(
    sqlite3* database, char** text, sqlite3_api_routines const* routines) {
  SQLITE_EXTENSION_INIT2(routines);
  return Permanently(sagleme::sql::Register(database, text));
}

// For programs that run SQL inside their transactions. SQLite derives the name from that of the
// file, saglemejoin.so, which is another name of the extension's.
extern "C" __attribute__((visibility("default"))) int sqlite3_saglemejoin_init(
    sqlite3* database, char** text, sqlite3_api_routines const* routines) {
  SQLITE_EXTENSION_INIT2(routines);
  return Permanently(sagleme::sql::RegisterToJoin(database, text));
}

// What SQLite calls when it has loaded the extension.

#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include "extension.h"

extern "C" __attribute__((visibility("default"))) int sqlite3_sagleme_init(
    sqlite3* database, char** text, sqlite3_api_routines const* routines) {
  SQLITE_EXTENSION_INIT2(routines);
  int const code = sagleme::sql::Register(database, text);
  // The file system stays registered with the process, and with it the code.
  return code == SQLITE_OK ? SQLITE_OK_LOAD_PERMANENTLY : code;
}

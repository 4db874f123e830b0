/* A library that was loaded, used and unloaded is gone from the process. `unload_test library...`,
 * each by itself. */

#include <dlfcn.h>
#include <sagleme/host.h>
#include <stdio.h>
#include <string.h>

static int IsMapped(char const* name) {
  char line[4096];
  int found = 0;
  FILE* const maps = fopen("/proc/self/maps", "r");
  if (maps == NULL) return -1;
  while (fgets(line, sizeof line, maps) != NULL) found = found || strstr(line, name) != NULL;
  fclose(maps);
  return found;
}

/* Function pointers come out of dlsym as object pointers. */
static void Find(void* library, char const* name, void* function) {
  void* const symbol = dlsym(library, name);
  memcpy(function, &symbol, sizeof symbol);
}

/* A database in memory with its catalogue, so that continuations, exceptions and the kernel's
 * threads have run. */
static int Use(void* library) {
  uint32_t (*create)(char const*, lscoredb_options const*, lscoredb**, uint64_t*);
  uint32_t (*begin)(uint64_t, uint32_t);
  uint32_t (*drop)(uint64_t, char16_t const*, bool, bool);
  uint32_t (*end)(lscoredb*, uint64_t);
  lscoredb* database = NULL;
  uint64_t context = 0;
  Find(library, "sagleme_create", &create);
  Find(library, "lscoredb_begin", &begin);
  Find(library, "lorv_drop_table_by_name", &drop);
  Find(library, "sagleme_close", &end);
  if (create == NULL) return 0;
  if (create(NULL, NULL, &database, &context) != 0 || begin(context, LSCOREDB_READ_WRITE) != 0)
    return 1;
  if (drop(context, u"App.Nothing", false, false) != SAGLEME_TABLE_NOT_FOUND) return 1;
  return end(database, context) != 0;
}

static int Try(char const* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    printf("%s\n", dlerror());
    return 1;
  }
  if (IsMapped("/libsagleme") != 1 && IsMapped("/liblscoredb") != 1) {
    printf("%s: not among the mappings\n", path);
    return 1;
  }
  if (Use(library) != 0) {
    printf("%s: does not work\n", path);
    return 1;
  }
  dlclose(library);
  if (IsMapped("/libsagleme") == 0 && IsMapped("/liblscoredb") == 0) return 0;
  printf("%s: still mapped after dlclose: %s %s\n", path,
         IsMapped("/libsagleme") ? "libsagleme" : "",
         IsMapped("/liblscoredb") ? "liblscoredb" : "");
  return 1;
}

int main(int count, char** paths) {
  int broken = count < 2;
  for (int i = 1; i < count; ++i) broken += Try(paths[i]);
  return broken != 0;
}

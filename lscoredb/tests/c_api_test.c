/* The headers and what they declare, from plain C: a small program that a C host could be. */

#include <lscoredb/backup.h>
#include <lscoredb/changes.h>
#include <lscoredb/host.h>
#include <lscoredb/index_build.h>
#include <lscoredb/lscoredb.h>
#include <lscoredb/move.h>
#include <lscoredb/require.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

static void expect(int holds, char const* what, int line) {
  if (holds) return;
  ++failures;
  fprintf(stderr, "line %d: %s\n", line, what);
}

#define EXPECT(condition) expect((condition) != 0, #condition, __LINE__)
#define EXPECT_OK(call) EXPECT((call) == LORV_STATUS_OK)

enum { NUMBER = 2, NAME = 3 };

static LORVI_COLUMN_DEFINITION const COLUMNS[] = {
    {LORV_TYPE_LONG, 1, 100}, {LORV_TYPE_STRING, 1, 101}, {0, 0, 0}};
static LORVI_COLUMN_DEFINITION const INDEXED[] = {{LORV_TYPE_LONG, 1, 100}, {0, 0, 0}};

static uint64_t insert_row(uint64_t context, uint16_t layout, int64_t number) {
  uint64_t oid = 0;
  EXPECT_OK(lorv_context_insert(context, layout, &oid));
  EXPECT_OK(lorv_context_put_setspec(context, oid, layout, u"set/"));
  EXPECT_OK(lorv_context_put_long(context, oid, layout, NUMBER, number));
  return oid;
}

static void read_back(uint64_t context, uint16_t layout, uint64_t oid) {
  int64_t number = 0;
  LORV_STRING* name = NULL;
  EXPECT_OK(lorv_context_get_long(context, oid, layout, NUMBER, &number));
  EXPECT(number == 5);
  EXPECT(lorv_context_get_string(context, oid, layout, NAME, &name) == LORV_STATUS_NULL);
  EXPECT_OK(lorv_context_put_string(context, oid, layout, NAME, u"name"));
  EXPECT_OK(lorv_context_get_string(context, oid, layout, NAME, &name));
  EXPECT(name != NULL && name->length == 4);
  name->units[name->length] = 0;
  EXPECT(memcmp(name->units, u"name", 5 * sizeof(char16_t)) == 0);
}

static void scan(uint64_t context, uint64_t index, uint64_t first, uint64_t second) {
  static uint8_t const everything[8] = {0xC0};
  uint64_t iterator = 0;
  LORV_REFERENCE row = {0, 0, 0};
  EXPECT_OK(lorv_context_create_iterator(context, index, LORV_ITERATOR_FORWARD, everything,
                                         everything, &iterator));
  EXPECT_OK(lorv_iterator_next(iterator, &row));
  EXPECT(row.oid == first);
  EXPECT_OK(lorv_iterator_next(iterator, &row));
  EXPECT(row.oid == second);
  EXPECT_OK(lorv_iterator_next(iterator, &row));
  EXPECT(row.oid == 0);
  EXPECT_OK(lorv_iterator_free(iterator));
}

static void take_back(uint64_t context, uint16_t layout, uint64_t row) {
  uint64_t savepoint = 0;
  EXPECT_OK(lscoredb_savepoint(context, &savepoint));
  EXPECT_OK(lorv_context_delete(context, row, layout));
  EXPECT_OK(lscoredb_rollback_to(context, savepoint));
  EXPECT_OK(lscoredb_require(context, row));
  EXPECT_OK(lscoredb_release(context, savepoint));
  EXPECT(lscoredb_release(context, savepoint) == LSCOREDB_UNKNOWN_SAVEPOINT);
}

static void use(uint64_t context) {
  uint16_t layout = 0;
  uint64_t index = 0;
  uint64_t identity = 0;
  EXPECT_OK(lscoredb_begin(context, LSCOREDB_READ_WRITE));
  EXPECT_OK(lorvi_context_create_layout(context, 50, 0, COLUMNS, 0, &layout));
  EXPECT_OK(lorvi_context_create_index(context, 60, u"set/", INDEXED, 0, 0, &index));
  uint64_t const five = insert_row(context, layout, 5);
  uint64_t const minus = insert_row(context, layout, -5);
  take_back(context, layout, five);
  read_back(context, layout, five);
  EXPECT_OK(lscoredb_commit(context));
  EXPECT_OK(lscoredb_begin(context, LSCOREDB_READ_ONLY_TRANSACTION));
  scan(context, index, minus, five);
  EXPECT_OK(lscoredb_rollback(context));
  EXPECT_OK(lscoredb_identity(context, &identity));
  EXPECT(identity != 0);
}

static void records_have_the_given_shape(void) {
  EXPECT(sizeof(LS_OBJ_REF) == 16);
  EXPECT(sizeof(LORV_REFERENCE) == 24);
  EXPECT(sizeof(LORVI_COLUMN_DEFINITION) == 16);
  EXPECT(offsetof(LORVI_COLUMN_DEFINITION, token) == 8);
  EXPECT(offsetof(LORVI_COLUMN_INFO, type) == 11);
  EXPECT(offsetof(LORVI_LAYOUT_INFO, column_count) == 8);
  EXPECT(offsetof(LORVI_LAYOUT_INFO, layout_handle) == 12);
  EXPECT(offsetof(LORVI_LAYOUT_INFO, base_layout_handle) == 14);
  EXPECT(offsetof(LORVI_INDEX_INFO, attribute_count) == 16);
  EXPECT(offsetof(LORVI_INDEX_INFO, flags) == 20);
  EXPECT(offsetof(LORV_STRING, units) == 4);
  EXPECT(offsetof(LORV_BINARY, bytes) == 4);
}

static void build_beside_writers(uint64_t context) {
  lscoredb_index_build build = {.size = sizeof build};
  uint64_t index = 0;
  uint64_t created = 0;
  uint32_t count = 1;
  EXPECT_OK(lscoredb_prepare_index(context, u"name", u"set/", INDEXED, 1, 0, &index));
  EXPECT_OK(lscoredb_index_builds(context, &count, &build));
  EXPECT(count == 1 && build.index == index && build.state == LSCOREDB_INDEX_BUILDING);
  while (failures == 0 && build.state != LSCOREDB_INDEX_READY) {
    EXPECT_OK(lscoredb_build_index(context, index, 1, &build));
  }
  EXPECT_OK(lscoredb_begin(context, 0));
  EXPECT_OK(lorvi_context_create_index(context, 77, u"set/", INDEXED, 1, 0, &created));
  EXPECT(created == index);
  EXPECT_OK(lscoredb_rollback(context));
  EXPECT_OK(lscoredb_begin(context, 0));
  EXPECT_OK(lscoredb_set_changed(context, u"set/", &created));
  EXPECT_OK(lscoredb_move_prepared(context, u"set/", u"elsewhere/", NULL, 0));
  EXPECT_OK(lscoredb_rollback(context));
  lscoredb_index_build left = {0};
  left.size = sizeof left;
  EXPECT_OK(lscoredb_abandon_index_step(context, index, 1, &left));
  if (left.state != LSCOREDB_INDEX_REMOVED) EXPECT_OK(lscoredb_abandon_index(context, index));
}

/* A database in memory has no log. */
static void ask_for_backups(lscoredb* database) {
  lscoredb_backup_part part = {sizeof part, 0, 0, 0, 0, 0, 0};
  lscoredb_restored restored = {sizeof restored, 0, 0};
  EXPECT(lscoredb_backup(database, "missing/backup", 0, &part) == LSCOREDB_CANNOT_OPEN);
  EXPECT(lscoredb_backup_list("missing/backup", 0, NULL, NULL) == LSCOREDB_NULL_ARGUMENT);
  EXPECT(lscoredb_restore("missing/backup", NULL, "to", &restored) == LSCOREDB_CANNOT_OPEN);
  EXPECT(strstr(lscoredb_open_error(), "missing") != NULL);
}

static void ask_for_changes(lscoredb* database) {
  lscoredb_kept_changes kept = {0};
  lscoredb_changes* reader = NULL;
  kept.size = sizeof kept;
  EXPECT(lscoredb_keep_changes(database, 1, 0) == LSCOREDB_CHANGES_UNSUPPORTED);
  EXPECT(lscoredb_kept(database, &kept) == LSCOREDB_CHANGES_UNSUPPORTED);
  EXPECT(lscoredb_changes_open(database, 0, 0, &reader) == LSCOREDB_CHANGES_UNSUPPORTED);
  EXPECT(lscoredb_changes_close(NULL) == LSCOREDB_NULL_ARGUMENT);
}

int main(void) {
  lscoredb* database = NULL;
  uint64_t context = 0;
  records_have_the_given_shape();
  EXPECT_OK(lscoredb_open(NULL, NULL, &database));
  EXPECT_OK(lscoredb_context_open(database, &context));
  use(context);
  build_beside_writers(context);
  ask_for_changes(database);
  ask_for_backups(database);
  EXPECT(strlen(lscoredb_status_text(LSCOREDB_CONFLICT)) > 0);
  EXPECT_OK(lscoredb_context_close(context));
  EXPECT_OK(lscoredb_close(database));
  if (failures == 0) puts("ok");
  return failures == 0 ? 0 : 1;
}

/* The C helpers as a program in C uses them. `c_api_test directory` */

#include <sagleme/host.h>
#include <stdio.h>
#include <string.h>

#define EXPECT(condition)                                            \
  do {                                                               \
    if (!(condition)) {                                              \
      printf("%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      ++broken;                                                      \
    }                                                                \
  } while (0)

static int broken = 0;

static LORV_COLUMN_DEFINITION_NAMES const kColumns[] = {
    {.logical_type = SAGLEME_TYPE_TEXT, .is_nullable = 1, .name = u"Title"},
    {.logical_type = SAGLEME_TYPE_SIGNED, .name = u"Price"},
    {0}};

static void FirstTable(char const* directory) {
  lscoredb* database = NULL;
  uint64_t context = 0;
  EXPECT(sagleme_open_or_create(directory, NULL, &database, &context) == 0);
  EXPECT(lscoredb_begin(context, LSCOREDB_READ_WRITE) == 0);
  EXPECT(lorv_create_table_by_names(context, u"Shop.Article", NULL, kColumns, NULL) == 0);
  EXPECT(lscoredb_commit(context) == 0);
  EXPECT(sagleme_close(database, context) == 0);
}

static void Refusals(char const* directory) {
  lscoredb* database = NULL;
  uint64_t context = 0;
  char nothing[4096];
  snprintf(nothing, sizeof nothing, "%s-nothing", directory);
  EXPECT(sagleme_open(nothing, NULL, &database, &context) == LSCOREDB_NOT_A_DATABASE);
  EXPECT(strstr(sagleme_error(0, LSCOREDB_NOT_A_DATABASE), nothing) != NULL);
  EXPECT(sagleme_create(directory, NULL, &database, &context) == LSCOREDB_CANNOT_OPEN);
  EXPECT(strstr(sagleme_error(0, LSCOREDB_CANNOT_OPEN), directory) != NULL);
  EXPECT(sagleme_open(NULL, NULL, &database, &context) == LSCOREDB_NULL_ARGUMENT);
  EXPECT(sagleme_open(directory, NULL, NULL, &context) == LSCOREDB_NULL_ARGUMENT);
  EXPECT(sagleme_open(directory, NULL, &database, NULL) == LSCOREDB_NULL_ARGUMENT);
  lscoredb_options odd = {.size = sizeof odd, .durability = 7};
  EXPECT(sagleme_open(directory, &odd, &database, &context) == LSCOREDB_INVALID_ARGUMENT);
  EXPECT(database == NULL && context == 0);
}

static void Words(void) {
  lscoredb* database = NULL;
  uint64_t context = 0;
  uint64_t second = 0;
  EXPECT(sagleme_create(NULL, NULL, &database, &context) == 0);
  EXPECT(strlen(sagleme_error(context, LSCOREDB_NO_TRANSACTION)) > 0);
  EXPECT(lscoredb_begin(context, LSCOREDB_READ_WRITE) == 0);
  uint32_t const refused = lorv_drop_table_by_name(context, u"Shop.Größe", false, false);
  EXPECT(refused == SAGLEME_TABLE_NOT_FOUND);
  EXPECT(strstr(sagleme_error(context, SAGLEME_TABLE_NOT_FOUND), u8"Shop.Größe") != NULL);
  /* The layer's words are not told about a status of the kernel that follows. */
  EXPECT(lscoredb_begin(context, LSCOREDB_READ_WRITE) == LSCOREDB_TRANSACTION_OPEN);
  EXPECT(strcmp(sagleme_error(context, LSCOREDB_TRANSACTION_OPEN),
                lscoredb_status_text(LSCOREDB_TRANSACTION_OPEN)) == 0);
  EXPECT(lscoredb_context_open(database, &second) == 0);
  EXPECT(sagleme_close(database, context) == LSCOREDB_IN_USE);
  EXPECT(sagleme_close(database, second) == 0);
}

static void LongWords(void) {
  lscoredb* database = NULL;
  uint64_t context = 0;
  char16_t name[2001];
  for (int i = 0; i < 2000; ++i) name[i] = u'ß';
  name[2000] = 0;
  EXPECT(sagleme_create(NULL, NULL, &database, &context) == 0);
  EXPECT(lscoredb_begin(context, LSCOREDB_READ_WRITE) == 0);
  uint32_t const status = lorv_drop_table_by_name(context, name, false, false);
  EXPECT(status != 0);
  char const* const words = sagleme_error(context, status);
  EXPECT(strlen(words) < 1024);
  EXPECT((words[strlen(words) - 1] & 0x80) == 0 || (words[strlen(words) - 2] & 0xC0) == 0xC0);
  EXPECT(sagleme_close(database, context) == 0);
}

int main(int count, char** arguments) {
  if (count != 2) return 2;
  FirstTable(arguments[1]); /* creates */
  FirstTable(arguments[1]); /* finds what is there */
  Refusals(arguments[1]);
  Words();
  LongWords();
  return broken != 0;
}

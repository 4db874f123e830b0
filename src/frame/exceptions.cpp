#include <sagleme/sagleme.h>

#include <algorithm>
#include <sagleme/metalayer/errors.hpp>

namespace db_util {

void db_exception::check(unsigned int code) { throw db_exception(code); }

unsigned int db_exception::rethrow_and_get_error_code() {
  try {
    throw;
  } catch (db_exception const& failure) {
    return failure.code();
  }
}

}  // namespace db_util

namespace metalayer {

void Throw(unsigned int code) { throw db_util::db_exception(code); }

namespace exceptions {
namespace {

using std::u16string;
using Stream = ucs2_stream<ErrBlt>;

constexpr unsigned int kBadArgument = SAGLEME_BAD_ARGUMENT;
constexpr unsigned int kIndexAlreadyExists = SAGLEME_INDEX_EXISTS;
constexpr unsigned int kColumnNotNullable = SAGLEME_COLUMN_NOT_NULLABLE;
constexpr unsigned int kTableAlreadyExists = SAGLEME_TABLE_EXISTS;
constexpr unsigned int kIndexNotFound = SAGLEME_INDEX_NOT_FOUND;
constexpr unsigned int kLayoutNotFound = SAGLEME_LAYOUT_NOT_FOUND;
constexpr unsigned int kColumnNameTaken = SAGLEME_COLUMN_NAME_TAKEN;
constexpr unsigned int kTokenNotFound = SAGLEME_TOKEN_NOT_FOUND;
constexpr unsigned int kColumnNotFound = SAGLEME_COLUMN_NOT_FOUND;
constexpr unsigned int kColumnNonexistent = SAGLEME_NO_SUCH_COLUMN;
constexpr unsigned int kAmbiguousName = SAGLEME_AMBIGUOUS_NAME;
constexpr unsigned int kBaseTableNotFound = SAGLEME_BASE_NOT_FOUND;
constexpr unsigned int kTableNotFound = SAGLEME_TABLE_NOT_FOUND;
constexpr unsigned int kIndexNotOfTable = SAGLEME_INDEX_OF_ANOTHER_TABLE;
constexpr unsigned int kTableNotEmpty = SAGLEME_TABLE_NOT_EMPTY;
constexpr unsigned int kSchemaMismatch = SAGLEME_SCHEMA_MISMATCH;
constexpr unsigned int kColumnIndexed = SAGLEME_COLUMN_INDEXED;
constexpr unsigned int kTableReferenced = SAGLEME_TABLE_REFERENCED;
constexpr unsigned int kTableHasChildren = SAGLEME_TABLE_HAS_DESCENDANTS;
constexpr unsigned int kColumnMapped = SAGLEME_COLUMN_MAPPED;
constexpr unsigned int kColumnInherited = SAGLEME_COLUMN_INHERITED;

constexpr int kMaxDefinitions = 112;

// Columns of the catalogue that a text is completed from.
constexpr unsigned int kTableOfRawColumn = 3;
constexpr unsigned int kFullNameOfRawView = 6;

// One whole text. It opens with a literal, so that a pending clear request takes effect before
// anything of it is written.
template <typename... Parts>
void Write(Parts const&... parts) {
  Stream text;
  (text << ... << parts);
}

char16_t const* CountedTail(int count, char16_t const* one, char16_t const* several) {
  return count == 2 ? one : count > 2 ? several : u"";
}

void PrintConflictsCount(Stream& stream, u16string const& table, int count) {
  stream << u" on table " << table << CountedTail(count, u" and one other", u" and others") << u".";
}

// ---- names out of the catalogue -----------------------------------------------------------------

unsigned long Context() { return *TlsMetalayerContext::Current(); }

// Whether a column has a value. The output of a read that found none is not to be looked at.
bool HasValue(unsigned int status) {
  if (status != 0 && status != LORV_STATUS_NULL) db_util::db_exception::check(status);
  return status == 0;
}

LS_OBJ_REF TableOfColumn(LS_OBJ_REF const& column) {
  LORV_REFERENCE table{};
  bool const has_table = HasValue(
      lorv_context_get_reference(Context(), column.oid, column.addr, kTableOfRawColumn, &table));
  return has_table ? LS_OBJ_REF{table.oid, table.position << 16 | table.layout} : LS_OBJ_REF{};
}

void PrintTableOfColumn(Stream& stream, LS_OBJ_REF const& column) {
  LS_OBJ_REF const table = TableOfColumn(column);
  LORV_STRING* name = nullptr;
  bool const has_name = HasValue(
      lorv_context_get_string(Context(), table.oid, table.addr, kFullNameOfRawView, &name));
  if (has_name) stream << u16string(name->units, name->length);
}

void PrintDescendantConflicts(Stream& stream, NewColumnNameConflictsList const& list) {
  std::size_t const count = list.columns.size();
  stream << u" in " << (list.exact ? u"exactly " : u"at least ") << count << u" descendant table"
         << (count > 1 ? u"s: " : u": ");
  char16_t const* separator = u"";
  for (LS_OBJ_REF const& column : list.columns) {
    stream << std::exchange(separator, u", ");
    PrintTableOfColumn(stream, column);
  }
}

enum ConflictKind { kInAncestor = 1, kInTable = 2, kInDescendants = 3 };

void PrintConflictLocation(Stream& stream, u16string const& table,
                           NewColumnNameConflictsList const& list) {
  switch (list.kind) {
    case kInAncestor:
      stream << u" in ancestor table ";
      PrintTableOfColumn(stream, list.columns.front());
      break;
    case kInTable:
      stream << u" in the table " << table;
      break;
    case kInDescendants:
      PrintDescendantConflicts(stream, list);
      break;
    default:
      break;
  }
}

// ---- added columns ------------------------------------------------------------------------------

using ExistingConflicts = std::vector<std::pair<u16string, bool>>;
using DescendantConflicts = std::vector<std::pair<u16string, u16string>>;

template <typename List>
void SortOut(List& list) {
  std::sort(list.begin(), list.end());
  list.erase(std::unique(list.begin(), list.end()), list.end());
}

void PrintExisting(Stream& stream, ExistingConflicts const& conflicts) {
  char16_t const* separator = u"";
  for (auto const& [column, inherited] : conflicts)
    stream << std::exchange(separator, u"; ") << u"added column " << column << u" conflicts with "
           << (inherited ? u"inherited" : u"existing") << u" column";
}

void PrintDescendants(Stream& stream, DescendantConflicts const& conflicts) {
  char16_t const* separator = u"";
  for (auto const& [column, table] : conflicts)
    stream << std::exchange(separator, u"; ") << u"added column " << column
           << u" conflicts with column from descendant table " << table;
}

// The separator stands between this list and the other two, not between its own entries, unless the
// others have any. Hosts compare the text as it is.
void PrintAdded(Stream& stream, std::vector<u16string> const& added, bool follows_others) {
  for (u16string const& column : added)
    stream << (follows_others ? u"; " : u"") << u"added column " << column
           << u" conflicts with other added column";
}

}  // namespace

// ---- failure classes ----------------------------------------------------------------------------

BadTableArg::BadTableArg(unsigned int code, u16string table_name)
    : BadArg(code), table(std::move(table_name)) {}
BadNewTableArg::BadNewTableArg(unsigned int code, u16string table_name)
    : BadArg(code), table(std::move(table_name)) {}
BadBaseTableArg::BadBaseTableArg(unsigned int code, u16string table_name)
    : BadArg(code), table(std::move(table_name)) {}
BadColumnArg::BadColumnArg(unsigned int code, u16string table_name, u16string column_name)
    : BadArg(code), table(std::move(table_name)), column(std::move(column_name)) {}
BadNewColumnArg::BadNewColumnArg(unsigned int code, u16string table_name, u16string column_name)
    : BadArg(code), table(std::move(table_name)), column(std::move(column_name)) {}
BadIndexArg::BadIndexArg(unsigned int code, u16string index_name)
    : BadArg(code), index(std::move(index_name)) {}
AmbiguousIncompleteReverseUid::AmbiguousIncompleteReverseUid(unsigned int code,
                                                             u16string incomplete_uid,
                                                             u16string first_match,
                                                             u16string second_match,
                                                             bool more_matches)
    : BadArg(code),
      uid(std::move(incomplete_uid)),
      first(std::move(first_match)),
      second(std::move(second_match)),
      more(more_matches) {}

// ---- arguments, tokens --------------------------------------------------------------------------

void CheckPtrArg(void const* value, char16_t const* argument_name) {
  if (value != nullptr) return;
  Write(u"Argument ", argument_name, u" is null.");
  throw BadArg(kBadArgument);
}

void CheckNonEmptyStringArg(char16_t const* value, char16_t const* argument_name) {
  CheckPtrArg(value, argument_name);
  if (*value != 0) return;
  Write(u"Argument ", argument_name, u" is empty.");
  throw BadArg(kBadArgument);
}

void ThrowForeignHandle() {
  Write(u"The handle belongs to another database than the context.");
  throw BadArg(LORV_STATUS_FOREIGN_DATABASE);
}

void ThrowTokenNotFound(char16_t const* name) {
  Write(u"Token for name ", name, u" not found.");
  throw BadArg(kTokenNotFound);
}

void ThrowTokenNotFound(unsigned long id) {
  Write(u"Token for id ", id, u" not found.");
  throw BadArg(kTokenNotFound);
}

void ThrowInvalidSetspec() {
  Write(u"The argument setspec_oid is zero.");
  throw BadArg(kBadArgument);
}

void ThrowNoColumnDefinitions() {
  Write(u"No column definitions provided.");
  throw BadArg(kBadArgument);
}

void ThrowTooManyColumns(u16string table) {
  Write(u"Number of columns for table ", table, u" exceeds the limit of ", kMaxDefinitions, u".");
  throw BadArg(kBadArgument);
}

// ---- tables -------------------------------------------------------------------------------------

void ThrowTableNotFound(unsigned short layout_id) {
  Write(u"No table is associated with layout id ", layout_id, u".");
  throw BadArg(kLayoutNotFound);
}

void ThrowNonexistentTable(u16string table) {
  Write(u"Table ", table, u" not found.");
  throw BadTableArg(kTableNotFound, std::move(table));
}

void ThrowTableContainsData(u16string table) {
  Write(u"Table ", table, u" still contains data.");
  throw BadTableArg(kTableNotEmpty, std::move(table));
}

void ThrowTableHasIndex(u16string table, u16string index, bool more) {
  Write(u"Table ", table, u" still has index ", index, more ? u" and more" : u"", u".");
  throw BadTableArg(kTableNotEmpty, std::move(table));
}

void ThrowTableHasChildren(u16string table, u16string child, int count) {
  Write(u"Table ", table, u" still has child ", child,
        CountedTail(count, u" and another", u" and others"), u".");
  throw BadTableArg(kTableHasChildren, std::move(table));
}

void ThrowTableIsReferenced(u16string table, u16string column, u16string referring_table) {
  Write(u"Table ", table, u" is still referenced at least by column ", column, u" from table ",
        referring_table, u".");
  throw BadTableArg(kTableReferenced, std::move(table));
}

void ThrowNamedTableAlreadyExists(u16string table) {
  Write(u"Table ", table, u" already exists.");
  throw BadNewTableArg(kTableAlreadyExists, std::move(table));
}

void ThrowNonexistentBaseTable(u16string table) {
  Write(u"Base table ", table, u" not found.");
  throw BadBaseTableArg(kBaseTableNotFound, std::move(table));
}

void ThrowBaseTypeMismatch(u16string table) {
  Write(u"The existing base type of '", table, u"' is different than the given base type.");
  throw BadTableArg(kSchemaMismatch, std::move(table));
}

void ThrowIncorrectNumberOfColumns(u16string table, bool fewer) {
  Write(u"Schema of the input type does not match schema of existing type: ", table, u" ",
        fewer ? u"fewer" : u"more", u" input columns than existing.");
  throw BadTableArg(kSchemaMismatch, std::move(table));
}

void ThrowColumnDoesNotMatch(u16string table, u16string column) {
  Write(u"Schema of the input type does not match schema of existing type: ", table,
        u" for column ", column, u".");
  throw BadTableArg(kSchemaMismatch, std::move(table));
}

void ThrowSqlAmbiguousType(u16string name, u16string first, u16string second, bool more) {
  Write(u"Incomplete table name ", name, u" matches more than one table: ", first, u", ", second,
        more ? u", and more" : u"", u".");
  throw BadTableArg(kAmbiguousName, std::move(name));
}

void ThrowAmbiguousIncompleteReverseUid(u16string uid, u16string first, u16string second,
                                        bool more) {
  Write(u"Incomplete reverse uid ", uid, u" matches more than one raw view: ", first, u", ", second,
        more ? u", and more" : u"", u".");
  throw AmbiguousIncompleteReverseUid(kAmbiguousName, std::move(uid), std::move(first),
                                      std::move(second), more);
}

// ---- columns ------------------------------------------------------------------------------------

void ThrowColumnNotFound(u16string table, u16string column) {
  Write(u"Column ", column, u" isn't found in table ", table, u" and ancestor tables.");
  throw BadColumnArg(kColumnNotFound, std::move(table), std::move(column));
}

void ThrowNonexistentColumn(u16string table, u16string column) {
  Write(u"Column ", column, u" isn't found in table ", table, u".");
  throw BadColumnArg(kColumnNonexistent, std::move(table), std::move(column));
}

void ThrowColumnIsInherited(u16string table, u16string column) {
  Write(u"Column ", column, u" is inherited by table ", table, u".");
  throw BadColumnArg(kColumnInherited, std::move(table), std::move(column));
}

void ThrowColumnTypeMustBeNullable(u16string table, u16string column) {
  Write(u"Column ", column, u" must be nullable.");
  throw BadNewColumnArg(kColumnNotNullable, std::move(table), std::move(column));
}

void ThrowIndexExistsOnColumn(u16string table, u16string column, u16string index,
                              u16string conflict_table, int count) {
  Stream text;
  text << u"Column " << column << u" is a part of index " << index;
  PrintConflictsCount(text, conflict_table, count);
  throw BadColumnArg(kColumnIndexed, std::move(table), std::move(column));
}

void ThrowColumnIsMapped(u16string table, u16string column, u16string mapper,
                         u16string conflict_table, int count) {
  Stream text;
  text << u"Column " << column << u" is mapped by " << mapper;
  PrintConflictsCount(text, conflict_table, count);
  throw BadColumnArg(kColumnMapped, std::move(table), std::move(column));
}

void ThrowNewColumnNameIsConflicting(u16string table, u16string column,
                                     NewColumnNameConflictsList&& list) {
  Stream text;
  text << u"New column name " << column << u" conflicts with existing column";
  PrintConflictLocation(text, table, list);
  text << u".";
  throw BadNewColumnArg(kColumnNameTaken, std::move(table), std::move(column));
}

void ThrowColumnNameNotUnique(u16string table, u16string column, ExistingConflicts existing,
                              DescendantConflicts descendants, std::vector<u16string> added) {
  SortOut(existing);
  SortOut(descendants);
  Stream text;
  text << u"Table " << table << u": ";
  PrintExisting(text, existing);
  if (!existing.empty() && !descendants.empty()) text << u"; ";
  PrintDescendants(text, descendants);
  PrintAdded(text, added, !existing.empty() || !descendants.empty());
  text << u".";
  throw BadNewColumnArg(kColumnNameTaken, std::move(table), std::move(column));
}

// ---- indexes ------------------------------------------------------------------------------------

void ThrowIndexNotFound(u16string index) {
  Write(u"Index ", index, u" not found.");
  throw BadIndexArg(kIndexNotFound, std::move(index));
}

void ThrowIndexAlreadyExists(u16string index) {
  Write(u"Index ", index, u" already exists.");
  throw BadIndexArg(kIndexAlreadyExists, std::move(index));
}

void ThrowIndexNotFoundInType(u16string index, u16string table) {
  Write(u"Index ", index, u" doesn't belong to the table ", table, u".");
  throw BadIndexArg(kIndexNotOfTable, std::move(index));
}

}  // namespace exceptions

// --- types ---------------------------------------------------------------------------------------

SAGLEME_API void ThrowInvalidLogicalType() { Throw(SAGLEME_INVALID_TYPE); }

}  // namespace metalayer

#ifndef SAGLEME_TESTS_SUPPORT_CATALOGUE_H
#define SAGLEME_TESTS_SUPPORT_CATALOGUE_H

// The catalogue in words: what the rows of a table, its columns, its indexes and its pending
// requests say, and what the kernel holds beside them. All of it reads through the thread's
// context.

#include <string>
#include <vector>

#include "support/database.h"

namespace sagleme_test {

inline constexpr char16_t const* kRootTable = u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts";

// The RawView row of a table by its full name; null for none.
metalayer::RawView View(char16_t const* table);
// The RawColumn row of a table by its name; null for none.
metalayer::RawColumn ColumnRow(char16_t const* table, char16_t const* column);
metalayer::RawColumn ColumnRow(LS_OBJ_REF const& view, char16_t const* column);

uint16_t LayoutOfTable(char16_t const* table);
std::string TextOf(LS_OBJ_REF const& row, unsigned int column);
std::string SetspecOfTable(LS_OBJ_REF const& view);

// One line per column, by ordinal: "3 Price long", then " null" and " inherited" where they are so.
// A reference reads "reference(Target)", deferred "reference(Target?)", and "reference(Target as
// Name)" when the stored name is not the target's.
std::vector<std::string> ColumnsOf(LS_OBJ_REF const& view);
std::vector<std::string> ColumnsOf(char16_t const* table);
// The lines of the three columns that every table inherits, and then `others`.
std::vector<std::string> WithRootColumns(std::vector<std::string> const& others);

// One line per index, by name: "ByPrice(Price-, Name+)", then " unique".
std::vector<std::string> IndexesOf(char16_t const* table);

// The pending request for a table's objects; kind 0: none.
struct Request {
  uint64_t kind;
  uint64_t layout;
  bool operator==(Request const&) const = default;
};
inline constexpr Request kNoRequest{0, 0};
std::ostream& operator<<(std::ostream& out, Request const& request);
Request RequestOfSetspec(std::string const& setspec);
Request RequestOf(char16_t const* table);
int CountRequests();

uint64_t Generation();

// The tokens of a layout's columns, in order.
std::vector<uint64_t> TokensOfLayout(uint16_t layout);
// The token of a text, 0 for none.
uint64_t TokenOf(std::u16string const& text);

// Every object of the database, system rows included, with all values: one line per object in the
// order of identities.
std::string DumpDatabase();

// Objects with the table's set specifier or one below it, in the order of identities.
std::vector<uint64_t> ObjectsBelow(char16_t const* table);

// Rows of the language-level layer.
metalayer::ClrClass InsertClass(char16_t const* class_name, LS_OBJ_REF const& mapped_table);
metalayer::MappedProperty InsertMappedProperty(LS_OBJ_REF const& owner, char16_t const* name,
                                               LS_OBJ_REF const& column);

// A database test that speaks of schema changes. Statements must succeed.
class CatalogueTest : public DatabaseTest {
 protected:
  // Returns the new table's layout.
  uint16_t Create(char16_t const* name, Columns columns = {}, char16_t const* base = nullptr);
  uint16_t AddColumns(char16_t const* table, Columns columns);
  uint16_t DropColumn(char16_t const* table, char16_t const* column);
  // "a" ascending, "-a" descending.
  void CreateIndex(char16_t const* name, char16_t const* table,
                   std::vector<char16_t const*> const& columns, bool unique = false);
  // An object of the table, created through a handle.
  uint64_t CreateObject(char16_t const* table);
  void WriteLong(char16_t const* table, char16_t const* column, uint64_t oid, int64_t value);
  // What the column reads as: a number, or "null".
  std::string ReadLong(char16_t const* table, char16_t const* column, uint64_t oid);

  // A refused call that has left every row as it was.
  template <typename Call>
  void ExpectRefusedUntouched(uint32_t status, std::u16string const& text, Call&& call) {
    std::string const before = DumpDatabase();
    ExpectRefused(status, text, call());
    EXPECT_EQ(before, DumpDatabase());
  }
  // A call that changes no row.
  template <typename Call>
  void ExpectUntouched(Call&& call) {
    std::string const before = DumpDatabase();
    call();
    EXPECT_EQ(before, DumpDatabase());
  }
  // The status and the text of a failure of the exported C++.
  template <typename Call>
  void ExpectThrown(uint32_t status, std::u16string const& text, Call&& call) {
    metalayer::clean_errbuf_by_ctx(context());
    try {
      call();
      ADD_FAILURE() << "nothing was thrown";
    } catch (db_util::db_exception const& failure) {
      EXPECT_EQ(status, failure.code());
      EXPECT_EQ(Utf8(text), Utf8(LastText(context())));
    }
  }
  // The column rows of a table and of all its descendants say what the kernel's layouts hold.
  void ExpectKernelAgrees(char16_t const* table);
};

}  // namespace sagleme_test

#endif

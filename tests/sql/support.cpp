#include "support.h"

#include <stdlib.h>

#include <array>

#include "postgres_url.h"
#include "sql/extension.h"

namespace sql_tests {
namespace {

std::string ValueOf(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_NULL:
      return "NULL";
    case SQLITE_BLOB: {
      std::string text = "x'";
      auto const* const bytes =
          static_cast<unsigned char const*>(sqlite3_column_blob(statement, column));
      for (int i = 0; i < sqlite3_column_bytes(statement, column); ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
      }
      return text + "'";
    }
    default:
      return reinterpret_cast<char const*>(sqlite3_column_text(statement, column));
  }
}

std::string RowOf(sqlite3_stmt* statement) {
  std::string row;
  for (int i = 0; i < sqlite3_column_count(statement); ++i) {
    row += (i == 0 ? "" : "|") + ValueOf(statement, i);
  }
  return row;
}

}  // namespace

Sql::Sql(std::string const& file) {
  sqlite3_open(file.c_str(), &handle_);
  sqlite3_extended_result_codes(handle_, 1);
  char* text = nullptr;
  EXPECT_EQ(sagleme::sql::Register(handle_, &text), SQLITE_OK) << (text == nullptr ? "" : text);
  sqlite3_free(text);
}

std::string Sql::operator()(std::string const& sql) {
  std::string rows;
  char const* rest = sql.c_str();
  while (*rest != '\0') {
    sqlite3_stmt* statement = nullptr;
    code_ = sqlite3_prepare_v2(handle_, rest, -1, &statement, &rest);
    if (code_ != SQLITE_OK) return std::string("error: ") + sqlite3_errmsg(handle_);
    while ((code_ = sqlite3_step(statement)) == SQLITE_ROW) {
      rows += (rows.empty() ? "" : "\n") + RowOf(statement);
    }
    code_ = sqlite3_finalize(statement);
    if (code_ != SQLITE_OK) return std::string("error: ") + sqlite3_errmsg(handle_);
  }
  return rows;
}

Statement::Statement(Sql& sql, std::string const& text) {
  EXPECT_EQ(sqlite3_prepare_v2(sql.handle(), text.c_str(), -1, &handle_, nullptr), SQLITE_OK)
      << sqlite3_errmsg(sql.handle());
}

std::string Statement::Next() {
  int const code = sqlite3_step(handle_);
  if (code == SQLITE_ROW) return RowOf(handle_);
  if (code == SQLITE_DONE) return "";
  return std::string("error: ") + sqlite3_errmsg(sqlite3_db_handle(handle_));
}

Library::Library() {
  std::string pattern = (std::filesystem::temp_directory_path() / "sagleme_sql_XXXXXX").string();
  directory_ = lscore::RunsOnServer() ? lscore::NewServerUrl() : mkdtemp(pattern.data());
  database_.emplace(sagleme::Database::Create(directory_, {}, {.no_sync = true}));
  using sagleme::ColumnSpec;
  using sagleme::IndexColumnSpec;
  using sagleme::Type;
  Change([](sagleme::Transaction& transaction) {
    sagleme::CreateTable(
        transaction, u"Library.Person", u"",
        std::array{ColumnSpec{u"Name", Type::kString},
                   ColumnSpec{u"Boss", Type::kReference, true, u"Library.Person"}});
    sagleme::CreateTable(
        transaction, u"Library.Item", u"",
        std::array{ColumnSpec{u"Title", Type::kString}, ColumnSpec{u"Year", Type::kLong, false},
                   ColumnSpec{u"Price", Type::kDecimal},
                   ColumnSpec{u"Lender", Type::kReference, true, u"Library.Person"}});
    sagleme::CreateTable(transaction, u"Library.Book", u"Library.Item",
                         std::array{ColumnSpec{u"Pages", Type::kULong}});
    sagleme::CreateIndex(transaction, u"PersonByName", u"Library.Person",
                         std::array{IndexColumnSpec{u"Name"}}, sagleme::Uniqueness::kUnique);
    sagleme::CreateIndex(transaction, u"ItemByTitle", u"Library.Item",
                         std::array{IndexColumnSpec{u"Title"}, IndexColumnSpec{u"Year", false}});
    sagleme::CreateIndex(transaction, u"ItemByYear", u"Library.Item",
                         std::array{IndexColumnSpec{u"Year"}});
    sagleme::CreateIndex(transaction, u"BookByPages", u"Library.Book",
                         std::array{IndexColumnSpec{u"Pages"}});
  });
}

Library::~Library() {
  database_.reset();
  std::filesystem::remove_all(directory_);
}

sagleme::ObjectId Library::AddItem(std::u16string const& table, std::u16string const& title,
                                   std::int64_t year) {
  sagleme::ObjectId id;
  Change([&](sagleme::Transaction& transaction) {
    auto object = sagleme::Object::Create(transaction, *transaction.table(table));
    object.Set(u"Title", title);
    object.Set(u"Year", year);
    id = object.id();
  });
  return id;
}

std::string Library::AttachTo(Sql& sql) {
  return sql("SELECT sagleme_attach('" + directory_ + "', 'lib')");
}

}  // namespace sql_tests

// Sequences of calls of the metadata layer with any names and numbers, in one database of the
// process. Each input is a transaction that is rolled back; after a change that failed half-way the
// transaction is begun anew, as the rules of the calls say.

#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#include <stdexcept>

#include "input.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;

namespace {

constexpr char16_t const* kTables[] = {u"Shop.Article", u"Shop.Book", u"Shop.Extra", u"Book",
                                       u"Other.Book",   u"",          u".",          u"Shop..Book"};
// The catalogue's own tables are only read: changing them would break the layer itself.
constexpr char16_t const* kAsked[] = {u"Shop.Book",
                                      u"Book",
                                      u"Book.Shop",
                                      u"Lorvenstack.Internal.Metadata.MotherOfAllLayouts",
                                      u"Lorvenstack.Metadata.RawView",
                                      u"RawView"};
constexpr char16_t const* kColumns[] = {u"Price", u"Title", u"Pages", u"__id", u"__type_id", u""};
constexpr char16_t const* kIndexes[] = {u"ByPrice", u"ByTitle", u"Missing", u""};

// The process's database, with two tables and an index.
class Shop {
 public:
  Shop() {
    Require(lscoredb_open(nullptr, nullptr, &database_) == 0, "a database in memory opens");
    Require(lscoredb_context_open(database_, &context_) == 0, "a context opens");
    Bootstrap();
    lscoredb_begin(context_, LSCOREDB_READ_WRITE);
    LORV_COLUMN_DEFINITION_NAMES const article[] = {{SAGLEME_TYPE_SIGNED, nullptr, 0, u"Price"},
                                                    {SAGLEME_TYPE_TEXT, nullptr, 1, u"Title"},
                                                    {0, nullptr, 0, nullptr}};
    LORV_COLUMN_DEFINITION_NAMES const book[] = {{SAGLEME_TYPE_UNSIGNED, nullptr, 1, u"Pages"},
                                                 {0, nullptr, 0, nullptr}};
    LORV_INDEXED_COLUMN const price[] = {{u"Price", 1}, {nullptr, 0}};
    std::uint16_t layout = 0;
    Require(
        lorv_create_table_by_names(context_, u"Shop.Article", nullptr, article, &layout) == 0 &&
            lorv_create_table_by_names(context_, u"Shop.Book", u"Shop.Article", book, &layout) ==
                0 &&
            lorv_create_index_by_names(context_, u"ByPrice", u"Shop.Article", price, false) == 0 &&
            lscoredb_commit(context_) == 0,
        "the shop is built");
  }

  ~Shop() {
    lscoredb_context_close(context_);
    lscoredb_close(database_);
  }
  Shop(Shop const&) = delete;
  Shop& operator=(Shop const&) = delete;

  std::uint64_t context() const { return context_; }

 private:
  void Bootstrap() {
    continuation_context* step = nullptr;
    continuation_context* next = nullptr;
    bool more = false;
    do {
      lscoredb_begin(context_, LSCOREDB_READ_WRITE);
      std::uint32_t const status = step == nullptr
                                       ? lorv_prepare_system_tables(context_, &next, &more)
                                       : run_continuation(step, &next, &more);
      Require(status == 0 && lscoredb_commit(context_) == 0, "the catalogue is made");
      free_continuation_handle(step);
      step = next;
    } while (more);
  }

  lscoredb* database_ = nullptr;
  std::uint64_t context_ = 0;
};

class Session {
 public:
  Session(Input& input, std::uint64_t context) : input_(input), context_(context) { Begin(); }
  ~Session() { lscoredb_rollback(context_); }
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  void Step() {
    constexpr void (Session::*kSteps[])() = {
        &Session::CreateTable, &Session::AddColumns, &Session::DropColumn, &Session::RenameColumn,
        &Session::RenameTable, &Session::DropTable,  &Session::MakeIndex,  &Session::DropIndex,
        &Session::Ask,         &Session::Ask,        &Session::Tokens,     &Session::MakeObject,
        &Session::MakeObject,  &Session::UseObject,  &Session::UseObject,  &Session::DeleteObject};
    try {
      (this->*kSteps[input_.Below(std::size(kSteps))])();
    } catch (std::out_of_range const&) {  // of a type that there is not: it passes through
      Changed(1);
    }
  }

 private:
  void Begin() {
    objects_.clear();
    Require(lscoredb_begin(context_, LSCOREDB_READ_WRITE) == 0, "a transaction begins");
  }
  // A change that failed may have done a part of its work.
  void Changed(std::uint32_t status) {
    if (status == 0) return;
    lorv_metalayer_errbuf(context_);
    Require(lscoredb_rollback(context_) == 0, "a transaction is rolled back");
    Begin();
  }

  template <std::size_t Count>
  std::u16string Name(char16_t const* const (&names)[Count]) {
    return input_.Below(8) == 0 ? input_.Text(100).c_str() : names[input_.Below(Count)];
  }
  std::u16string Table() { return Name(kTables); }
  std::u16string Column() { return Name(kColumns); }

  // Types that need no other table.
  std::vector<LORV_COLUMN_DEFINITION_NAMES> Columns() {
    names_.clear();
    std::vector<LORV_COLUMN_DEFINITION_NAMES> columns(input_.Below(5));
    for (std::size_t i = 0; i < columns.size(); ++i) names_.push_back(Column());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      std::uint8_t const type =
          input_.Below(8) == 0 ? input_.Byte() : static_cast<std::uint8_t>(input_.Below(11));
      columns[i] = {type == 8 ? std::uint8_t{1} : type, nullptr, input_.Byte(), names_[i].c_str()};
    }
    columns.push_back({0, nullptr, 0, nullptr});
    return columns;
  }

  void CreateTable() {
    std::u16string const name = Table();
    std::u16string const base = Table();
    auto const columns = Columns();
    std::uint16_t layout = 0;
    Changed(lorv_create_table_high_check_types(
        context_, name.c_str(), input_.Flag() ? nullptr : base.c_str(), columns.data(), &layout));
  }
  void AddColumns() {
    std::u16string const table = Table();
    auto const columns = Columns();
    Changed(lorv_alter_table_add_columns(context_, table.c_str(), columns.data(), nullptr));
  }
  void DropColumn() {
    Changed(lorv_alter_table_drop_column_by_names(context_, Table().c_str(), Column().c_str(),
                                                  nullptr));
  }
  void RenameColumn() {
    Changed(lorv_alter_table_rename_column(context_, Table().c_str(), Column().c_str(),
                                           Column().c_str()));
  }
  void RenameTable() { Changed(lorv_rename_table(context_, Table().c_str(), Table().c_str())); }
  void DropTable() {
    std::u16string const table = Table();
    Changed(input_.Flag()
                ? lorv_drop_table_cascade(context_, table.c_str())
                : lorv_drop_table_by_name(context_, table.c_str(), input_.Flag(), input_.Flag()));
  }
  void MakeIndex() {
    std::u16string const name = Name(kIndexes);
    std::u16string const table = Table();
    std::u16string const first = Column();
    std::u16string const second = Column();
    LORV_INDEXED_COLUMN const columns[] = {{first.c_str(), input_.Byte()},
                                           {input_.Flag() ? second.c_str() : nullptr, 1},
                                           {nullptr, 0}};
    Changed(
        lorv_create_index_by_names(context_, name.c_str(), table.c_str(), columns, input_.Flag()));
  }
  void DropIndex() {
    std::u16string const name = Name(kIndexes);
    Changed(input_.Flag()
                ? lorv_drop_index_by_name(context_, name.c_str())
                : lorv_drop_index_by_table_and_name(context_, Table().c_str(), name.c_str()));
  }

  void Ask() {
    std::u16string const name = Name(kAsked);
    std::uint64_t oid = 0;
    std::uint64_t addr = 0;
    char16_t const* text = nullptr;
    lorv_table_ref_by_incomplete_reverse_uid(context_, name.c_str(), &oid, &addr);
    lorv_setspec_name_by_table_incomplete_reverse_uid(context_, name.c_str(), &text);
    lorv_table_ref_by_layout_id(context_, input_.Take<std::uint16_t>(), &oid, &addr);
    lorv_crud_GetTypeId(context_, name.c_str(), &oid);
    lorv_crud_GetObjectTypeId(context_, Object(), input_.Take<std::uint64_t>(), &oid);
    lorv_crud_Lookup(context_, Object(), &addr, &oid);
  }
  void Tokens() {
    std::u16string const name = input_.Flag() ? Table() : input_.Text(600).c_str();
    std::uint64_t token = 0;
    std::uint64_t again = 0;
    char16_t const* text = nullptr;
    if (lorv_assure_token(context_, name.c_str(), &token) == 0) {
      Require(lorv_assure_token(context_, name.c_str(), &again) == 0 && token == again,
              "a text keeps its token");
      Require(lorv_get_token_name(context_, token, &text) == 0 && name == text,
              "a token has its text");
    }
    lorv_get_token(context_, name.c_str(), &token);
    token = input_.Take<std::uint64_t>();
    lorv_get_column_name_by_token(context_, token, &text);
    lorv_get_table_name_by_token(context_, token, &text);
  }

  std::uint64_t Object() {
    if (objects_.empty() || input_.Below(4) == 0) {
      return input_.Flag() ? input_.Byte() : input_.Take<std::uint64_t>();
    }
    return objects_[input_.Below(objects_.size())];
  }
  void MakeObject() {
    CreateInfo* creator = nullptr;
    std::uint64_t oid = 0;
    std::uint64_t addr = 0;
    if (lorv_crud_GetCreateHandle(context_, Table().c_str(), &creator) != 0) return;
    if (lorv_crud_CreateObject(context_, creator, &oid, &addr) == 0) objects_.push_back(oid);
  }
  void UseObject() {
    PropertyAccessInfo* property = nullptr;
    std::u16string const table = Table();
    std::u16string const column = Column();
    if (lorv_crud_GetPropertyHandle(context_, table.c_str(), column.c_str(), &property) != 0)
      return;
    if (objects_.empty()) return;
    std::uint64_t const oid = objects_[input_.Below(objects_.size())];
    std::u16string const text = input_.Text(50);
    char16_t const* read = nullptr;
    std::int64_t number = 0;
    std::uint64_t other = 0;
    lorv_crud_WriteLong(context_, property, oid, input_.Take<std::uint64_t>(), input_.Byte());
    lorv_crud_WriteString(context_, property, oid, 0, text.c_str());
    lorv_crud_WriteULong(context_, property, oid, 0, input_.Byte());
    if (input_.Flag()) lorv_crud_WriteDefault(context_, property, oid, 0);
    lorv_crud_ReadLong(context_, property, oid, 0, &number);
    lorv_crud_ReadULong(context_, property, oid, 0, &other);
    lorv_crud_ReadString(context_, property, oid, 0, &read);
  }
  // Of the objects made here: the rows of the catalogue are the layer's.
  void DeleteObject() {
    if (objects_.empty()) return;
    lorv_crud_DeleteObject_NoHandle(context_, objects_[input_.Below(objects_.size())], 0);
  }

  Input& input_;
  std::uint64_t context_;
  std::vector<std::uint64_t> objects_;
  std::vector<std::u16string> names_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Shop const shop;
  Input input(data, size);
  Session session(input, shop.context());
  while (!input.empty()) session.Step();
  return 0;
}

// The shop by tables joined on the base's number.

#include <libpq-fe.h>

#include <map>
#include <stdexcept>
#include <utility>

#include "server_shop.h"

namespace bench {
namespace {

struct Clear {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Answer = std::unique_ptr<PGresult, Clear>;

struct Finish {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};

constexpr std::pair<char const*, char const*> kStatements[] = {
    {"scan", "SELECT thing.id, kind, number, price FROM thing JOIN item ON item.id = thing.id"},
    {"read",
     "SELECT kind, number, price, next FROM thing JOIN item ON item.id = thing.id"
     " WHERE thing.id = $1::bigint"},
    {"set_price", "UPDATE item SET price = $2::bigint WHERE id = $1::bigint"},
    {"put_things",
     "INSERT INTO thing (id, kind, name, number)"
     " SELECT * FROM unnest($1::bigint[], $2::bigint[], $3::text[], $4::bigint[])"},
    {"put_items",
     "INSERT INTO item (id, price, next)"
     " SELECT * FROM unnest($1::bigint[], $2::bigint[], $3::bigint[])"},
    {"put_books", "INSERT INTO book (id, pages) SELECT * FROM unnest($1::bigint[], $2::bigint[])"},
    {"put_tools",
     "INSERT INTO tool (id, weight)"
     " SELECT * FROM unnest($1::bigint[], $2::double precision[])"}};

constexpr char kTables[] =
    "CREATE TABLE thing (id bigint PRIMARY KEY, kind bigint NOT NULL, name text, number bigint);"
    "CREATE TABLE item (id bigint PRIMARY KEY REFERENCES thing, price bigint,"
    " next bigint REFERENCES thing DEFERRABLE INITIALLY DEFERRED);"
    "CREATE INDEX item_by_next ON item (next);"
    "CREATE INDEX thing_by_number ON thing (number);"
    "CREATE TABLE book (id bigint PRIMARY KEY REFERENCES item, pages bigint);"
    "CREATE TABLE tool (id bigint PRIMARY KEY REFERENCES item, weight double precision)";

std::string ArrayOf(std::vector<std::string> const& values) {
  std::string array = "{";
  for (std::string const& value : values) {
    array.append(array.size() == 1 ? "\"" : ",\"").append(value).append("\"");
  }
  return array + "}";
}

class MappedShop final : public Shop {
 public:
  MappedShop(std::string const& url, bool create) : connection_(PQconnectdb(url.c_str())) {
    if (PQstatus(connection_.get()) != CONNECTION_OK) Fail();
    if (create) Run(kTables);
    for (auto const& [name, text] : kStatements) {
      Answer const made(PQprepare(connection_.get(), name, text, 0, nullptr));
      if (PQresultStatus(made.get()) != PGRES_COMMAND_OK) Fail();
    }
  }

  // Numbers are handed out by the program, as mappings with blocks of numbers do: no round trip.
  void Insert(ItemNumber first, ItemNumber count) override {
    std::map<std::string, std::vector<std::string>> columns;
    for (ItemNumber item = first; item < first + count; ++item) {
      std::string const id = std::to_string(item);
      columns["id"].push_back(id);
      columns["kind"].push_back(IsBook(item) ? "1" : "2");
      columns["name"].push_back("item " + id);
      columns["price"].push_back(std::to_string(item % 1000));
      columns["next"].push_back(std::to_string(NextOf(item)));
      columns[IsBook(item) ? "book" : "tool"].push_back(id);
      if (IsBook(item)) columns["pages"].push_back(std::to_string(item % 500));
      if (!IsBook(item)) columns["weight"].push_back(std::to_string(item / 2.0));
    }
    auto const array = [&](char const* name) { return ArrayOf(columns[name]); };
    Run("BEGIN");
    Execute("put_things", {array("id"), array("kind"), array("name"), array("id")});
    Execute("put_items", {array("id"), array("price"), array("next")});
    Execute("put_books", {array("book"), array("pages")});
    Execute("put_tools", {array("tool"), array("weight")});
    Run("COMMIT");
  }

  ItemSum ScanItems() override {
    ItemSum sum = 0;
    Run("BEGIN");
    Answer const rows = Execute("scan", {});
    for (int row = 0; row < PQntuples(rows.get()); ++row) {
      sum += Number(rows, row, 2) * 3 + Number(rows, row, 3);
    }
    Run("COMMIT");
    return sum;
  }

  ItemSum ReadAndFollow(std::vector<ItemNumber> const& items) override {
    ItemSum sum = 0;
    std::map<ItemSum, Answer> read;
    auto const find = [&](ItemSum id) -> Answer const& {
      Answer& known = read[id];
      if (known == nullptr) known = Execute("read", {std::to_string(id)});
      return known;
    };
    Run("BEGIN");
    for (ItemNumber const item : items) {
      Answer const& found = find(item);
      sum += Number(found, 0, 2);
      sum += Number(find(Number(found, 0, 3)), 0, 1);
    }
    Run("COMMIT");
    return sum;
  }

  void SetPrice(ItemNumber item, std::int64_t price) override {
    Run("BEGIN");
    Execute("set_price", {std::to_string(item), std::to_string(price)});
    Run("COMMIT");
  }

  std::uint64_t round_trips() const override { return round_trips_; }

 private:
  [[noreturn]] void Fail() const {
    throw std::runtime_error(std::string("libpq: ") + PQerrorMessage(connection_.get()));
  }

  static ItemSum Number(Answer const& rows, int row, int column) {
    return std::stoull(PQgetvalue(rows.get(), row, column));
  }

  void Run(char const* statement) {
    ++round_trips_;
    Answer const done(PQexec(connection_.get(), statement));
    if (PQresultStatus(done.get()) != PGRES_COMMAND_OK) Fail();
  }

  Answer Execute(char const* name, std::vector<std::string> const& values) {
    std::vector<char const*> texts;
    for (std::string const& value : values) texts.push_back(value.c_str());
    ++round_trips_;
    Answer done(PQexecPrepared(connection_.get(), name, static_cast<int>(texts.size()),
                               texts.data(), nullptr, nullptr, 0));
    ExecStatusType const status = PQresultStatus(done.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) Fail();
    return done;
  }

  std::unique_ptr<PGconn, Finish> connection_;
  std::uint64_t round_trips_ = 0;
};

}  // namespace

std::unique_ptr<Shop> MakeMappedShop(std::string const& url, bool create) {
  return std::make_unique<MappedShop>(url, create);
}

}  // namespace bench

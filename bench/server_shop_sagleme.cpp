// The shop by sagleme: handles of the layer, which a program asks for once.

#include <sagleme/host.hpp>

#include "sections.h"
#include "server_shop.h"

namespace bench {
namespace {

constexpr char16_t kThing[] = u"Shop.Thing";
constexpr char16_t kItem[] = u"Shop.Item";
constexpr char16_t kBook[] = u"Shop.Book";
constexpr char16_t kTool[] = u"Shop.Tool";

constexpr std::int64_t kNoNumber = std::numeric_limits<std::int64_t>::max();

void Check(std::uint32_t status) { sagleme::detail::CheckKernel(status); }

struct Item {
  std::uint64_t oid = 0;
  std::uint64_t addr = 0;
};

class SaglemeShop final : public Shop {
 public:
  explicit SaglemeShop(std::string const& url)
      : database_(sagleme::Database::Open(url)), context_(database_) {
    sagleme::Transaction transaction(context_, sagleme::Access::kReadOnly);
    Check(lorv_crud_GetCreateHandle(id(), kBook, &book_));
    Check(lorv_crud_GetCreateHandle(id(), kTool, &tool_));
    Check(lorv_crud_GetPropertyHandle(id(), kThing, u"Name", &name_));
    Check(lorv_crud_GetPropertyHandle(id(), kThing, u"Number", &number_));
    Check(lorv_crud_GetPropertyHandle(id(), kItem, u"Price", &price_));
    Check(lorv_crud_GetPropertyHandle(id(), kItem, u"Next", &next_));
    Check(lorv_crud_GetPropertyHandle(id(), kBook, u"Pages", &pages_));
    Check(lorv_crud_GetPropertyHandle(id(), kTool, u"Weight", &weight_));
    by_number_ = transaction.FindIndex(u"ItemByNumber")->handle;
    ForEach(kNoNumber, [](Item const&) { throw std::runtime_error("an item that nobody made"); });
  }

  // Where the items are: a program has references, so a shop learns them outside of what is timed.
  void Learn() {
    Check(lscoredb_begin(id(), LSCOREDB_READ_ONLY_TRANSACTION));
    ForEach(0, [&](Item const& item) { items_.push_back(item); });
    Check(lscoredb_rollback(id()));
  }

  void Insert(ItemNumber first, ItemNumber count) override {
    Check(lscoredb_begin(id(), LSCOREDB_READ_WRITE));
    for (ItemNumber item = first; item < first + count; ++item) InsertOne(item);
    Check(lscoredb_commit(id()));
  }

  ItemSum ScanItems() override {
    ItemSum sum = 0;
    Check(lscoredb_begin(id(), LSCOREDB_READ_ONLY_TRANSACTION));
    ForEach(0, [&](Item const& item) { sum += Long(number_, item) * 3 + Long(price_, item); });
    Check(lscoredb_rollback(id()));
    return sum;
  }

  ItemSum ReadAndFollow(std::vector<ItemNumber> const& items) override {
    ItemSum sum = 0;
    Check(lscoredb_begin(id(), LSCOREDB_READ_ONLY_TRANSACTION));
    for (ItemNumber const item : items) {
      Item next;
      sum += Long(price_, items_[item]);
      Check(lorv_crud_ReadRefId(id(), next_, items_[item].oid, items_[item].addr, &next.oid));
      Check(lorv_context_lookup(id(), next.oid, &next.addr));
      sum += Long(number_, next);
    }
    Check(lscoredb_rollback(id()));
    return sum;
  }

  void SetPrice(ItemNumber item, std::int64_t price) override {
    Item const& own = items_[item];
    Check(lscoredb_begin(id(), LSCOREDB_READ_WRITE));
    Check(lorv_crud_WriteLong(id(), price_, own.oid, own.addr, price));
    Check(lscoredb_commit(id()));
  }

  std::uint64_t round_trips() const override { return database_.Statistics().round_trips; }

  double TimeReads(ItemNumber items) {
    constexpr int kTimes = 50;
    ItemSum sum = 0;
    auto const read = [&] {
      for (ItemNumber item = 0; item < items; ++item) sum += Long(number_, items_[item]);
    };
    Check(lscoredb_begin(id(), LSCOREDB_READ_ONLY_TRANSACTION));
    read();
    double const time = Nanoseconds([&] {
      for (int i = 0; i < kTimes; ++i) read();
    });
    Check(lscoredb_rollback(id()));
    if (sum != ItemSum{items} * (items - 1) / 2 * (kTimes + 1)) {
      throw std::runtime_error("the working set has other numbers");
    }
    return time / kTimes / items;
  }

 private:
  std::uint64_t id() const { return context_.id(); }

  ItemSum Long(PropertyAccessInfo* property, Item const& item) {
    std::int64_t value = 0;
    Check(lorv_crud_ReadLong(id(), property, item.oid, item.addr, &value));
    return static_cast<ItemSum>(value);
  }

  // From a number on, in the order of their numbers.
  template <typename Visit>
  void ForEach(std::int64_t from, Visit&& visit) {
    alignas(8) unsigned char first[16];
    alignas(8) unsigned char last[16];
    metalayer::Key(first).Long(from);
    metalayer::Key(last).Long(kNoNumber);
    std::uint64_t iterator = 0;
    Check(lorv_context_create_iterator(id(), by_number_, LORV_ITERATOR_FORWARD, first, last,
                                       &iterator));
    LORV_REFERENCE found{};
    for (Check(lorv_iterator_next(iterator, &found)); found.oid != 0;
         Check(lorv_iterator_next(iterator, &found))) {
      visit(Item{found.oid, found.layout});
    }
    Check(lorv_iterator_free(iterator));
  }

  void InsertOne(ItemNumber number) {
    Item made;
    bool const book = IsBook(number);
    std::u16string const name = sagleme::ToUtf16("item " + std::to_string(number));
    Check(lorv_crud_CreateObject(id(), book ? book_ : tool_, &made.oid, &made.addr));
    Check(lorv_crud_WriteString(id(), name_, made.oid, made.addr, name.c_str()));
    Check(lorv_crud_WriteLong(id(), number_, made.oid, made.addr, number));
    Check(lorv_crud_WriteLong(id(), price_, made.oid, made.addr, number % 1000));
    if (book) {
      Check(lorv_crud_WriteLong(id(), pages_, made.oid, made.addr, number % 500));
    } else {
      Check(lorv_crud_WriteDouble(id(), weight_, made.oid, made.addr, number / 2.0));
    }
    items_.resize(std::max<std::size_t>(items_.size(), std::size_t{number} + 1));
    items_[number] = made;
    Item const& next = items_[NextOf(number)];
    Check(lorv_crud_WriteRef(id(), next_, made.oid, made.addr, next.oid, next.addr));
  }

  sagleme::Database database_;
  sagleme::Context context_;
  CreateInfo* book_ = nullptr;
  CreateInfo* tool_ = nullptr;
  PropertyAccessInfo* name_ = nullptr;
  PropertyAccessInfo* number_ = nullptr;
  PropertyAccessInfo* price_ = nullptr;
  PropertyAccessInfo* next_ = nullptr;
  PropertyAccessInfo* pages_ = nullptr;
  PropertyAccessInfo* weight_ = nullptr;
  std::uint64_t by_number_ = 0;
  std::vector<Item> items_;
};

}  // namespace

void CreateSaglemeShop(std::string const& url) {
  using sagleme::Type;
  sagleme::Database const database = sagleme::Database::Create(url);
  sagleme::Context const context(database);
  sagleme::Transaction transaction(context);
  std::vector<sagleme::ColumnSpec> const thing{{u"Name"}, {u"Number", Type::kLong}};
  std::vector<sagleme::ColumnSpec> const item{{u"Price", Type::kLong},
                                              {u"Next", Type::kReference, true, kThing}};
  std::vector<sagleme::ColumnSpec> const book{{u"Pages", Type::kLong}};
  std::vector<sagleme::ColumnSpec> const tool{{u"Weight", Type::kDouble}};
  std::vector<sagleme::IndexColumnSpec> const number{{u"Number"}};
  sagleme::CreateTable(transaction, kThing, u"", thing);
  sagleme::CreateTable(transaction, kItem, kThing, item);
  sagleme::CreateTable(transaction, kBook, kItem, book);
  sagleme::CreateTable(transaction, kTool, kItem, tool);
  sagleme::CreateIndex(transaction, u"ItemByNumber", kItem, number);
  transaction.Commit();
}

std::unique_ptr<Shop> MakeSaglemeShop(std::string const& url, Use use) {
  auto shop = std::make_unique<SaglemeShop>(url);
  if (use == Use::kAll) shop->Learn();
  return shop;
}

std::uint64_t NewestCommit(std::string const& url) {
  return sagleme::Database::Open(url).Statistics().last_commit;
}

double ReadWorkingSet(std::string const& place, ItemNumber items) {
  SaglemeShop shop(place);
  shop.Learn();
  return shop.TimeReads(items);
}

}  // namespace bench

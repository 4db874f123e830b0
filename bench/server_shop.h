#ifndef SAGLEME_BENCH_SERVER_SHOP_H
#define SAGLEME_BENCH_SERVER_SHOP_H

// The same objects in two ways on one server: by sagleme, and by tables as a mapping of classes
// makes them, used through libpq with prepared statements. Items are books and tools by turns:
//
//   thing (name, number)  <-  item (price, next: a thing)  <-  book (pages), tool (weight)
//
// The mapping has a table for each class, joined by the number of the base's row. It sends what a
// unit of work sends: inserts of many rows for each table together, a transaction around
// everything, an object that was read in a transaction is not asked for again in it.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

using ItemNumber = std::uint32_t;  // in the order in which they were made
using ItemSum = std::uint64_t;

class Shop {
 public:
  Shop() = default;
  Shop(Shop const&) = delete;
  Shop& operator=(Shop const&) = delete;
  virtual ~Shop() = default;

  // Each is a transaction. The sums are the same for both ways.
  virtual void Insert(ItemNumber first, ItemNumber count) = 0;
  virtual ItemSum ScanItems() = 0;  // number and price of each item, books and tools alike
  virtual ItemSum ReadAndFollow(std::vector<ItemNumber> const& items) = 0;
  virtual void SetPrice(ItemNumber item, std::int64_t price) = 0;
  // That this object has waited for.
  virtual std::uint64_t round_trips() const = 0;
};

// Of the item that `next` leads to.
inline ItemNumber NextOf(ItemNumber item) { return item * 7919U % (item + 1); }
inline bool IsBook(ItemNumber item) { return item % 2 == 0; }

// By sagleme at the URL. A new object knows the tables, the index and, unless it only scans, where
// the items are.
enum class Use { kAll, kScans };
std::unique_ptr<Shop> MakeSaglemeShop(std::string const& url, Use use = Use::kAll);
// Both create their tables.
void CreateSaglemeShop(std::string const& url);
std::unique_ptr<Shop> MakeMappedShop(std::string const& url, bool create);

// The number of the database's newest commit.
std::uint64_t NewestCommit(std::string const& url);

// Nanoseconds for the read of a property of one of `items` objects that the transaction has read
// before, in the database at a place.
double ReadWorkingSet(std::string const& place, ItemNumber items);

}  // namespace bench

#endif

#ifndef SAGLEME_TOOL_QUERY_SEARCH_H
#define SAGLEME_TOOL_QUERY_SEARCH_H

// The objects of a table that meet conditions, in an order.
//
// An index is scanned if conditions bind its first columns, or if it gives the wanted order; its
// objects are checked against all conditions. Without one the whole table is read. An order that no
// index gives is sorted in memory, with no more objects than the limit.

#include <cstdint>
#include <functional>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "query/condition.h"

namespace tool {

struct OrderKey {
  sagleme::Column const* column = nullptr;
  bool descending = false;
};

struct SearchRequest {
  sagleme::TablePtr table;
  bool only = false;  // without the objects of derived tables
  std::vector<Condition> where = {};
  std::vector<OrderKey> order = {};
  std::uint64_t limit = UINT64_MAX;
};

// COLUMN, or COLUMN:desc. Throws Failure with kRefused for an unknown column.
OrderKey ParseOrder(sagleme::Table const& table, std::string const& text);

class Search {
 public:
  Search(sagleme::Transaction& transaction, SearchRequest request);

  // Calls `each` with the objects, each in a read scope of its own. Throws Interrupted when the
  // user has stopped the command.
  void ForEach(std::function<void(sagleme::Object const&)> const& each) const;
  // How the objects are found, for people: "index ItemByPages", "every object of App.Item".
  std::string Path() const;

 private:
  // A part of an index that holds all objects wanted.
  struct IndexPath {
    sagleme::Index index;
    std::vector<sagleme::Value> lower = {};  // values of the first columns, in index order
    std::vector<sagleme::Value> upper = {};
    bool upper_is_prefix = false;  // of a text
    std::size_t bound = 0;         // conditions on columns that the index answers
    sagleme::Direction direction = sagleme::Direction::kForward;
    bool ordered = false;  // the scan gives the order wanted
  };

  IndexPath PathThrough(sagleme::Index const& index) const;
  void AddRange(IndexPath& path) const;
  void SetOrder(IndexPath& path, std::size_t equal) const;
  std::optional<sagleme::Value> EqualTo(std::u16string const& column) const;
  void ChoosePath();
  sagleme::Range Open() const;
  bool Wanted(sagleme::Object const& object) const;
  void Scan(std::function<bool(sagleme::Object const&)> const& each) const;
  void ScanSorted(std::function<void(sagleme::Object const&)> const& each) const;

  sagleme::Transaction& transaction_;
  SearchRequest request_;
  std::optional<IndexPath> path_;
};

}  // namespace tool

#endif

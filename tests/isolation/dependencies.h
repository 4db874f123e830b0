#ifndef SAGLEME_TESTS_ISOLATION_DEPENDENCIES_H
#define SAGLEME_TESTS_ISOLATION_DEPENDENCIES_H

// The dependencies between the transactions of a history, as a graph in which every circle is one
// that snapshot isolation rules out.
//
// A transaction has two nodes: it is entered at the second one through an anti-dependency (it wrote
// what the one before had read an older version of), at the first one through any other; an
// anti-dependency leaves from the first one only. So no scan has two of them in a row. Moments are
// nodes too, each leading to the next, so that who ended early comes before all who began late.

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace sagleme_isolation {

class Dependencies {
 public:
  explicit Dependencies(std::size_t transactions);

  // `later` saw or replaced what `earlier` wrote.
  void Add(std::size_t earlier, std::size_t later);
  // `writer` replaced what `reader` had seen.
  void AddAnti(std::size_t reader, std::size_t writer);
  // When a transaction began, and, where others can have seen it end, when that was.
  void AddLife(std::size_t transaction, std::uint64_t began, std::uint64_t ended, bool committed);

  // The transactions of one circle, empty for none.
  std::vector<std::size_t> FindCircle();

 private:
  using Node = std::size_t;

  Node NodeOf(std::size_t transaction, bool by_anti) const {
    return 2 * transaction + (by_anti ? 1 : 0);
  }
  void Connect(Node from, Node to);
  void ConnectMoments();
  std::vector<bool> NodesInOrBehindCircles() const;

  std::size_t transactions_;
  std::vector<std::vector<Node>> next_;
  std::multimap<std::uint64_t, Node> moments_;
};

}  // namespace sagleme_isolation

#endif

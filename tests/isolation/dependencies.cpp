#include "dependencies.h"

#include <algorithm>

namespace sagleme_isolation {

Dependencies::Dependencies(std::size_t transactions)
    : transactions_(transactions), next_(2 * transactions) {}

void Dependencies::Connect(Node from, Node to) { next_[from].push_back(to); }

void Dependencies::Add(std::size_t earlier, std::size_t later) {
  for (bool const by_anti : {false, true}) Connect(NodeOf(earlier, by_anti), NodeOf(later, false));
}

void Dependencies::AddAnti(std::size_t reader, std::size_t writer) {
  Connect(NodeOf(reader, false), NodeOf(writer, true));
}

void Dependencies::AddLife(std::size_t transaction, std::uint64_t began, std::uint64_t ended,
                           bool committed) {
  Node const begin = next_.size();
  next_.emplace_back();
  Connect(begin, NodeOf(transaction, false));
  moments_.emplace(began, begin);
  if (!committed) return;
  Node const end = next_.size();
  next_.emplace_back();
  for (bool const by_anti : {false, true}) Connect(NodeOf(transaction, by_anti), end);
  moments_.emplace(ended, end);
}

void Dependencies::ConnectMoments() {
  Node const* before = nullptr;
  for (auto const& [moment, node] : moments_) {
    if (before != nullptr) Connect(*before, node);
    before = &node;
  }
  moments_.clear();
}

// What is left when nodes that nothing left leads to are taken away, one after another.
std::vector<bool> Dependencies::NodesInOrBehindCircles() const {
  std::vector<std::size_t> leading_here(next_.size());
  for (auto const& targets : next_) {
    for (Node const target : targets) ++leading_here[target];
  }
  std::vector<Node> free;
  for (Node node = 0; node < next_.size(); ++node) {
    if (leading_here[node] == 0) free.push_back(node);
  }
  std::vector<bool> left(next_.size(), true);
  while (!free.empty()) {
    Node const node = free.back();
    free.pop_back();
    left[node] = false;
    for (Node const target : next_[node]) {
      if (--leading_here[target] == 0) free.push_back(target);
    }
  }
  return left;
}

std::vector<std::size_t> Dependencies::FindCircle() {
  ConnectMoments();
  std::vector<bool> const left = NodesInOrBehindCircles();
  std::map<Node, Node> before;  // one of the nodes left that lead to a node left: there always is
  for (Node node = 0; node < next_.size(); ++node) {
    if (!left[node]) continue;
    for (Node const target : next_[node]) {
      if (left[target]) before[target] = node;
    }
  }
  if (before.empty()) return {};
  Node node = before.begin()->first;
  std::vector<bool> seen(next_.size());
  for (; !seen[node]; node = before.at(node)) seen[node] = true;
  std::vector<std::size_t> circle;
  for (Node const first = node;;) {
    if (node < 2 * transactions_) circle.push_back(node / 2);
    node = before.at(node);
    if (node == first) break;
  }
  std::reverse(circle.begin(), circle.end());
  return circle;
}

}  // namespace sagleme_isolation

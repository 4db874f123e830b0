#ifndef LSCOREDB_SRC_SERVER_VIEW_H
#define LSCOREDB_SRC_SERVER_VIEW_H

// Reads one state of the trees through a connection, and caches every answer as long as it lives.
// One thread at a time.

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "server_page.h"
#include "statements.h"
#include "store.h"

namespace lscore {

class ServerView {
 public:
  // REQUIRES: the connection is inside a transaction in which the trees do not change.
  ServerView(Connection& connection, Statements const& statements)
      : connection_(connection), statements_(statements) {}

  bool Get(Tree tree, std::string_view key, std::string_view* value);
  // In one round trip.
  void GetMany(Tree tree, std::span<std::string_view const> keys,
               std::span<std::optional<std::string_view>> values);

  // Ask adds gets to the next exchange, one statement for each of their trees; Take caches their
  // results.
  std::vector<std::vector<std::string>> Ask(std::vector<TreeKey> const& gets);
  void Take(std::vector<std::vector<std::string>> const& asked, std::span<Result> results);

  // Up to `most` neighbouring entries. A page with fewer reaches the end of the tree.
  ServerPage const& From(Tree tree, std::string_view key, std::size_t most);
  ServerPage const& After(Tree tree, std::string_view key, std::size_t most);
  ServerPage const& Before(Tree tree, std::string_view key, std::size_t most);
  ServerPage const& Last(Tree tree, std::size_t most);

 private:
  using Known = std::unordered_map<std::string, std::optional<std::string_view>>;

  void Learn(Tree tree, std::vector<std::string> const& asked, Result found);
  Known& KnownOf(Tree tree) { return known_[static_cast<std::size_t>(tree)]; }
  ServerPage const& Fetch(Tree tree, Statement const& statement, Parameters const& parameters,
                          bool falling);

  Connection& connection_;
  Statements const& statements_;
  std::array<Known, kTreeCount> known_;
  std::vector<Result> results_;
  std::vector<std::unique_ptr<ServerPage>> pages_;
};

// Scans a tree in pages, which grow while the scan continues.
class ServerCursor final : public TreeCursor {
 public:
  ServerCursor(Store const& store, ServerView& view, Tree tree)
      : TreeCursor(store), view_(view), tree_(tree) {}

  bool Seek(std::string_view key, KeyValue* entry) override;
  bool First(KeyValue* entry) override;
  bool Last(KeyValue* entry) override;
  bool Next(KeyValue* entry) override;
  bool Previous(KeyValue* entry) override;
  bool EnterPage(KeyValue const& entry, EntryPage* page) override;

 private:
  bool Give(std::size_t i, KeyValue* entry) const;
  bool GiveFirst(ServerPage const& page, KeyValue* entry);
  bool GiveLast(ServerPage const& page, KeyValue* entry);
  std::size_t Grown();
  // The position of the key in the current page; no value when it is not there.
  std::optional<std::size_t> Find(std::string_view key) const;

  ServerView& view_;
  Tree const tree_;
  ServerPage const* page_ = nullptr;
  bool ends_high_ = false;  // the page holds the tree's last entry
  bool ends_low_ = false;
  std::size_t most_ = 0;  // entries asked for last
};

}  // namespace lscore

#endif

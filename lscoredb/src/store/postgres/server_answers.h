#ifndef LSCOREDB_SRC_SERVER_ANSWERS_H
#define LSCOREDB_SRC_SERVER_ANSWERS_H

// What the server has answered about one state of the trees. All bytes that it gave stay valid as
// long as it lives. One thread at a time.

#include <array>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "known_rows.h"
#include "server_page.h"
#include "store.h"

namespace lscore {

// Which neighbouring entries are asked for.
struct PagePlace {
  enum class Side : char { kFrom = 'f', kAfter = 'a', kBefore = 'b', kLast = 'l' };

  Tree tree;
  std::string key;  // in our form; empty for the last ones
  Side side;
  std::string bound = {};  // where they end; empty: with the tree
};

class ServerAnswers {
 public:
  using Value = std::optional<std::string_view>;  // no value: there is no such key

  // `numbered`: HasNumbers of the tables.
  explicit ServerAnswers(bool numbered) : numbered_(numbered), numbers_(numbered) {}
  ServerAnswers(ServerAnswers const&) = delete;
  ServerAnswers& operator=(ServerAnswers const&) = delete;

  bool numbered() const { return numbered_; }
  // About what it takes: the replies, as much again for what was made of them, and what is known
  // without a reply that has it.
  std::size_t memory() const { return 2 * reply_bytes_ + known_bytes_ + rows_.memory(); }
  // The mean size of the rows that came; 0: none did.
  std::size_t mean_row() const { return row_count_ == 0 ? 0 : row_bytes_ / row_count_; }

  // Keys in our form. Each returns whether there is an answer; `*value` is set iff there is.
  bool Find(Tree tree, std::string_view key, Value* value) const;
  bool HasRow(std::uint64_t id) const { return rows_.Contains(id); }
  bool FindRow(std::uint64_t id, Value* value) const { return rows_.Find(id, value); }
  // The two entries from a key on. Null: not known.
  ServerPage const* FindSought(Tree tree, std::string_view key) const;
  // Null: not known as far as the place's bound.
  ServerPage const* FindPage(PagePlace const& place) const;

  // The reply to a question for one value.
  Value Learn(Tree tree, std::string_view key, Result found);
  // `asked`: keys in the server's form. Those without a result do not exist.
  void Learn(Tree tree, std::set<std::string> const& asked, Result found);
  void LearnRows(Result found);
  // Those that did not come do not exist.
  void LearnRows(std::vector<std::uint64_t> const& asked, Result found);
  void LearnSought(Tree tree, std::set<std::string> const& asked, Result found);
  // `most`: so many entries were asked for.
  ServerPage const& LearnPage(PagePlace const& place, std::size_t most, Result found);

 private:
  using Known = std::unordered_map<std::string, Value>;
  using Sought = std::unordered_map<std::string, ServerPage const*>;  // by the key that was sought
  struct Page {
    ServerPage const* page;
    std::string bound;
  };

  Known const& KnownOf(Tree tree) const { return known_[static_cast<std::size_t>(tree)]; }
  Known& KnownOf(Tree tree) { return known_[static_cast<std::size_t>(tree)]; }
  void Hold(Result found);
  void Note(Tree tree, std::string key, Value const& value);

  bool const numbered_;
  NumberedValues numbers_;
  std::array<Known, kTreeCount> known_;  // but for rows
  KnownRows rows_;
  std::size_t row_bytes_ = 0;  // of the rows that came, and their number
  std::size_t row_count_ = 0;
  std::array<Sought, kTreeCount> sought_;
  std::unordered_map<std::string, Page> places_;
  std::vector<Result> results_;
  std::vector<std::unique_ptr<ServerPage>> pages_;
  std::size_t reply_bytes_ = 0;
  std::size_t known_bytes_ = 0;  // of the keys in known_, and the tables' own
};

}  // namespace lscore

#endif

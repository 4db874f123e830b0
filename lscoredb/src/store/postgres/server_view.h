#ifndef LSCOREDB_SRC_SERVER_VIEW_H
#define LSCOREDB_SRC_SERVER_VIEW_H

// Reads one state of the trees through a connection, and keeps every answer. One thread at a time.

#include <array>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "server_answers.h"
#include "statements.h"
#include "store.h"

namespace lscore {

class ServerView {
 public:
  // REQUIRES: the connection is inside a transaction in which the trees do not change.
  // `numbered`: HasNumbers of the tables.
  ServerView(Connection& connection, Statements const& statements, bool numbered)
      : connection_(connection),
        statements_(statements),
        answers_(std::make_unique<ServerAnswers>(numbered)) {}

  bool numbered() const { return answers_->numbered(); }
  // Takes what is known of the same state from an earlier view, in place of what was asked so far,
  // of which nothing is in use. REQUIRES: the same `numbered`.
  void Adopt(std::unique_ptr<ServerAnswers> answers) { answers_ = std::move(answers); }
  // For a later view; ends this one.
  std::unique_ptr<ServerAnswers> Release() { return std::move(answers_); }

  bool Get(Tree tree, std::string_view key, std::string_view* value);
  // In one round trip.
  void GetMany(Tree tree, std::span<std::string_view const> keys,
               std::span<std::optional<std::string_view>> values);

  // What From will be asked for, in one round trip.
  void PrefetchSeeks(Tree tree, std::vector<std::string> const& keys);

  // Keys in the server's form, by tree.
  using Keys = std::array<std::set<std::string>, kTreeCount>;
  struct Asked {
    Keys gets;
    Keys seeks;
  };
  // Ask adds hints to the next exchange, at most two statements for each of their trees; Take
  // caches their results.
  Asked Ask(std::vector<TreeKey> const& hints);
  void Take(Asked const& asked, std::span<Result> results);

  // Up to `most` neighbouring entries; two where From answers by what was prefetched. `run`: as
  // many rows of this run come in the same round trip, fewer where they are large.
  using Run = std::optional<RowRun>;
  struct Beyond {
    PagePlace place;  // behind a key, or before it
    std::size_t most;
    Run run;
  };
  ServerPage const& From(Tree tree, std::string_view key, std::size_t most);
  ServerPage const& Fetch(Beyond const& wanted);
  ServerPage const& Last(Tree tree, std::size_t most);
  bool HasPage(PagePlace const& place) const { return answers_->FindPage(place) != nullptr; }

  // Asks for a page that Fetch then takes from the server, which works meanwhile. Null: the server
  // is lost. Whoever does not want it any more lets it go. REQUIRES: CanAskEarly(); there is one
  // such page at a time.
  using Early = std::shared_ptr<Beyond const>;
  bool CanAskEarly();
  Early AskEarly(Beyond const& wanted);
  ServerPage const& Fetch(Early const& asked);

 private:
  TreeStatements const& Of(Tree tree) const { return statements_.Of(tree, numbered()); }
  void FetchRows(std::vector<std::uint64_t> const& ids);
  void Add(Beyond const& wanted);
  void AddRun(RowRun const& run, std::size_t most);
  ServerPage const& Fetch(PagePlace const& place, std::size_t most, Statement const& statement,
                          Parameters const& parameters);
  ServerPage const& Keep(Beyond const& wanted, std::vector<Result> results);

  Connection& connection_;
  Statements const& statements_;
  std::unique_ptr<ServerAnswers> answers_;
  Early early_;  // what the connection was asked for early
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
  void Upcoming(KeyValue const& entry, bool forward, std::size_t most,
                std::vector<KeyValue>* out) const override;
  void FetchWithNextPage(RowRun const& run) override;
  void Expect(std::string_view low, std::string_view high) override;

 private:
  bool Give(std::size_t i, KeyValue* entry) const;
  bool GiveFirst(ServerPage const& page, KeyValue* entry);
  bool GiveLast(ServerPage const& page, KeyValue* entry);
  void Restart();
  PagePlace PlaceBeyond(std::string_view key, bool forward) const;
  ServerView::Beyond NextPage(PagePlace place);
  ServerPage const& FetchBeyond(std::string_view key, bool forward);
  void AskEarly();
  // The position of the key in the current page; no value when it is not there.
  std::optional<std::size_t> Find(std::string_view key) const;

  ServerView& view_;
  Tree const tree_;
  ServerPage const* page_ = nullptr;
  bool ends_high_ = false;  // the page holds the tree's last entry
  bool ends_low_ = false;
  std::size_t most_ = 0;  // entries asked for last
  ServerView::Run run_;   // to be asked for with the next page
  std::string low_;       // of the scan that was announced; both empty: none was
  std::string high_;
  bool forward_ = true;  // where the last page was
  ServerView::Early early_;
};

}  // namespace lscore

#endif

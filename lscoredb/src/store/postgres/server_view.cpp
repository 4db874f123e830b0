#include "server_view.h"

#include <algorithm>

namespace lscore {
namespace {

constexpr std::size_t kFirstPage = 16;
constexpr std::size_t kLargestPage = 1024;

}  // namespace

// ---- single entries ----------------------------------------------------------------------------

// The cache also holds keys that do not exist. A failed question leaves no answer in it.
bool ServerView::Get(Tree tree, std::string_view key, std::string_view* value) {
  auto const [at, asked] = KnownOf(tree).try_emplace(std::string(key));
  if (asked) {
    try {
      Parameters const parameters = Parameters().Bytes(ServerKey(tree, key));
      Result found = connection_.Run(statements_.Of(tree).get, parameters);
      if (found.size() > 0) {
        at->second = found.Bytes(0, 0);
        results_.push_back(std::move(found));
      }
    } catch (...) {
      KnownOf(tree).erase(at);
      throw;
    }
  }
  if (at->second.has_value()) *value = *at->second;
  return at->second.has_value();
}

void ServerView::GetMany(Tree tree, std::span<std::string_view const> keys,
                         std::span<std::optional<std::string_view>> values) {
  Known& known = KnownOf(tree);
  std::vector<std::string> asked;
  for (std::string_view const key : keys) {
    if (!known.contains(std::string(key))) asked.push_back(ServerKey(tree, key));
  }
  if (!asked.empty()) {
    std::vector<std::string_view> const views(asked.begin(), asked.end());
    Result found = connection_.Run(statements_.Of(tree).get_many, Parameters().ManyBytes(views));
    Learn(tree, asked, std::move(found));
  }
  for (std::size_t i = 0; i < keys.size(); ++i) values[i] = known.at(std::string(keys[i]));
}

// `asked`: keys in the server's form. Those without a result do not exist.
void ServerView::Learn(Tree tree, std::vector<std::string> const& asked, Result found) {
  Known& known = KnownOf(tree);
  for (std::string const& key : asked) known.try_emplace(ServerKey(tree, key));
  for (std::size_t i = 0; i < found.size(); ++i) {
    known[ServerKey(tree, found.Bytes(i, 0))] = found.Bytes(i, 1);
  }
  results_.push_back(std::move(found));
}

std::vector<std::vector<std::string>> ServerView::Ask(std::vector<TreeKey> const& gets) {
  std::vector<std::vector<std::string>> asked(kTreeCount);
  for (TreeKey const& get : gets) {
    asked[static_cast<std::size_t>(get.tree)].push_back(ServerKey(get.tree, get.key));
  }
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    if (asked[i].empty()) continue;
    std::vector<std::string_view> const views(asked[i].begin(), asked[i].end());
    connection_.Add(statements_.trees[i].get_many, Parameters().ManyBytes(views));
  }
  return asked;
}

void ServerView::Take(std::vector<std::vector<std::string>> const& asked,
                      std::span<Result> results) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    if (!asked[i].empty()) Learn(static_cast<Tree>(i), asked[i], std::move(results[next++]));
  }
}

// ---- neighbours --------------------------------------------------------------------------------

ServerPage const& ServerView::Fetch(Tree tree, Statement const& statement,
                                    Parameters const& parameters, bool falling) {
  pages_.push_back(
      std::make_unique<ServerPage>(tree, connection_.Run(statement, parameters), falling));
  return *pages_.back();
}

ServerPage const& ServerView::From(Tree tree, std::string_view key, std::size_t most) {
  return Fetch(tree, statements_.Of(tree).from,
               Parameters().Bytes(ServerKey(tree, key)).Number(most), false);
}

ServerPage const& ServerView::After(Tree tree, std::string_view key, std::size_t most) {
  return Fetch(tree, statements_.Of(tree).after,
               Parameters().Bytes(ServerKey(tree, key)).Number(most), false);
}

ServerPage const& ServerView::Before(Tree tree, std::string_view key, std::size_t most) {
  return Fetch(tree, statements_.Of(tree).before,
               Parameters().Bytes(ServerKey(tree, key)).Number(most), true);
}

ServerPage const& ServerView::Last(Tree tree, std::size_t most) {
  return Fetch(tree, statements_.Of(tree).last, Parameters().Number(most), true);
}

// ---- cursors -----------------------------------------------------------------------------------

bool ServerCursor::Give(std::size_t i, KeyValue* entry) const {
  if (i >= page_->size()) return false;
  *entry = page_->entry(i);
  return true;
}

// An empty reply leaves the cursor on its current page.
bool ServerCursor::GiveFirst(ServerPage const& page, KeyValue* entry) {
  if (page.size() == 0) return false;
  page_ = &page;
  ends_high_ = page.size() < most_;
  ends_low_ = false;
  return Give(0, entry);
}

bool ServerCursor::GiveLast(ServerPage const& page, KeyValue* entry) {
  if (page.size() == 0) return false;
  page_ = &page;
  ends_high_ = false;
  ends_low_ = page.size() < most_;
  return Give(page.size() - 1, entry);
}

// Pages double from 16 to 1024 entries: a short scan fetches little, a long one needs few round
// trips.
std::size_t ServerCursor::Grown() {
  most_ = std::clamp(2 * most_, kFirstPage, kLargestPage);
  return most_;
}

std::optional<std::size_t> ServerCursor::Find(std::string_view key) const {
  if (page_ == nullptr) return std::nullopt;
  std::size_t const at = page_->LowerBound(key);
  if (at == page_->size() || page_->entry(at).key != key) return std::nullopt;
  return at;
}

bool ServerCursor::Seek(std::string_view key, KeyValue* entry) {
  most_ = kFirstPage;
  return GiveFirst(view_.From(tree_, key, most_), entry);
}

bool ServerCursor::First(KeyValue* entry) { return Seek({}, entry); }

bool ServerCursor::Last(KeyValue* entry) {
  most_ = kFirstPage;
  bool const any = GiveLast(view_.Last(tree_, most_), entry);
  ends_high_ = any;
  return any;
}

bool ServerCursor::Next(KeyValue* entry) {
  std::optional<std::size_t> const at = Find(entry->key);
  if (at.has_value() && *at + 1 < page_->size()) return Give(*at + 1, entry);
  if (at.has_value() && ends_high_) return false;
  return GiveFirst(view_.After(tree_, entry->key, Grown()), entry);
}

bool ServerCursor::Previous(KeyValue* entry) {
  std::optional<std::size_t> const at = Find(entry->key);
  if (at.has_value() && *at > 0) return Give(*at - 1, entry);
  if (at.has_value() && ends_low_) return false;
  return GiveLast(view_.Before(tree_, entry->key, Grown()), entry);
}

bool ServerCursor::EnterPage(KeyValue const& entry, EntryPage* page) {
  std::optional<std::size_t> const at = Find(entry.key);
  return at.has_value() && page_->Enter(*at, page);
}

}  // namespace lscore

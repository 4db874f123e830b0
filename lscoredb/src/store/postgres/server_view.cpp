#include "server_view.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "bytes.h"

namespace lscore {
namespace {

constexpr std::array<std::size_t, 4> kPages = {16, 512, 4096, 8192};
// Of the rows that are asked for with a page.
constexpr std::size_t kMostRunBytes = 4 << 20;
// Of a seek that was announced: an entry of the caller's own, and that of another.
constexpr std::size_t kSoughtPage = 2;
// Of rows: so many, at least one in so many numbers, are asked for as a range, which the server
// reads in a tenth of the time.
constexpr std::size_t kFewestInRange = 16;
constexpr std::uint64_t kSparsestRange = 2;

template <typename Range>
Parameters KeysOf(Range const& keys) {
  return Parameters().ManyBytes({keys.begin(), keys.end()});
}

std::string RowKey(std::uint64_t id) {
  std::string key;
  AppendBig(key, id);
  return key;
}

}  // namespace

// ---- single entries ----------------------------------------------------------------------------

// The cache also holds keys that do not exist. A failed question leaves no answer in it.
bool ServerView::Get(Tree tree, std::string_view key, std::string_view* value) {
  if (tree == Tree::kRows) return GetRow(Load<std::uint64_t>(key.data()), value);
  auto const [at, asked] = KnownOf(tree).try_emplace(std::string(key));
  if (asked) {
    try {
      Result found = connection_.Run(Of(tree).get, Parameters().Bytes(key));
      if (found.size() > 0) {
        at->second = numbers_.Read(tree, key, found, 0, 0);
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

bool ServerView::GetRow(std::uint64_t id, std::string_view* row) {
  KnownRows::Row known;
  if (!rows_.Find(id, &known)) {
    Result found = connection_.Run(Of(Tree::kRows).get, Parameters().Bytes(RowKey(id)));
    if (found.size() > 0) known = numbers_.Read(Tree::kRows, BytesOf(id), found, 0, 0);
    rows_.Note(id, known);
    results_.push_back(std::move(found));
  }
  if (known.has_value()) *row = *known;
  return known.has_value();
}

void ServerView::GetMany(Tree tree, std::span<std::string_view const> keys,
                         std::span<std::optional<std::string_view>> values) {
  if (tree == Tree::kRows) {
    std::vector<std::uint64_t> asked;
    for (std::string_view const key : keys) {
      auto const id = Load<std::uint64_t>(key.data());
      if (!rows_.Contains(id)) asked.push_back(id);
    }
    if (!asked.empty()) FetchRows(asked);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      rows_.Find(Load<std::uint64_t>(keys[i].data()), &values[i]);
    }
    return;
  }
  Known& known = KnownOf(tree);
  std::set<std::string> asked;
  for (std::string_view const key : keys) {
    std::string whole(key);
    if (!known.contains(whole)) asked.insert(std::move(whole));
  }
  if (!asked.empty()) Learn(tree, asked, connection_.Run(Of(tree).get_many, KeysOf(asked)));
  for (std::size_t i = 0; i < keys.size(); ++i) values[i] = known.at(std::string(keys[i]));
}

// Those that do not come do not exist.
void ServerView::FetchRows(std::vector<std::uint64_t> const& ids) {
  auto const [low, high] = std::minmax_element(ids.begin(), ids.end());
  TreeStatements const& rows = Of(Tree::kRows);
  if (ids.size() >= kFewestInRange && *high - *low < kSparsestRange * ids.size()) {
    Parameters const parameters = Parameters().Bytes(RowKey(*low)).Bytes(RowKey(*high));
    LearnRows(connection_.Run(rows.get_range, parameters));
  } else {
    std::vector<std::uint64_t> swapped;
    std::vector<std::string_view> keys;
    for (std::uint64_t const id : ids) swapped.push_back(SwapBytes(id));
    for (std::uint64_t const& key : swapped) keys.push_back(BytesOf(key));
    LearnRows(connection_.Run(rows.get_many, Parameters().ManyBytes(keys)));
  }
  rows_.Reserve(ids.size());
  for (std::uint64_t const id : ids) rows_.Note(id, {});
}

void ServerView::LearnRows(Result found) {
  rows_.Reserve(found.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    auto const id = LoadBig<std::uint64_t>(found.Bytes(i, 0).data());
    std::string_view const row = numbers_.Read(Tree::kRows, BytesOf(id), found, i, 1);
    rows_.Note(id, row);
    row_bytes_ += row.size();
  }
  row_count_ += found.size();
  results_.push_back(std::move(found));
}

// `asked`: keys in the server's form. Those without a result do not exist.
void ServerView::Learn(Tree tree, std::set<std::string> const& asked, Result found) {
  if (tree == Tree::kRows) {
    LearnRows(std::move(found));
    for (std::string const& key : asked) rows_.Note(LoadBig<std::uint64_t>(key.data()), {});
    return;
  }
  Known& known = KnownOf(tree);
  for (std::size_t i = 0; i < found.size(); ++i) {
    std::string key(found.Bytes(i, 0));
    std::string_view const value = numbers_.Read(tree, key, found, i, 1);
    known.try_emplace(std::move(key), value);
  }
  for (std::string const& key : asked) known.try_emplace(key);
  results_.push_back(std::move(found));
}

ServerView::Asked ServerView::Ask(std::vector<TreeKey> const& hints) {
  Asked asked;
  for (TreeKey const& hint : hints) {
    Keys& keys = hint.seek ? asked.seeks : asked.gets;
    keys[static_cast<std::size_t>(hint.tree)].insert(ServerKey(hint.tree, hint.key));
  }
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    TreeStatements const& tree = Of(static_cast<Tree>(i));
    if (!asked.gets[i].empty()) connection_.Add(tree.get_many, KeysOf(asked.gets[i]));
    if (!asked.seeks[i].empty()) connection_.Add(tree.seek_many, KeysOf(asked.seeks[i]));
  }
  return asked;
}

void ServerView::Take(Asked const& asked, std::span<Result> results) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    Tree const tree = static_cast<Tree>(i);
    if (!asked.gets[i].empty()) Learn(tree, asked.gets[i], std::move(results[next++]));
    if (!asked.seeks[i].empty()) LearnSought(tree, asked.seeks[i], std::move(results[next++]));
  }
}

void ServerView::PrefetchSeeks(Tree tree, std::vector<std::string> const& keys) {
  std::set<std::string> asked;
  for (std::string const& key : keys) {
    if (!SoughtIn(tree).contains(key)) asked.insert(ServerKey(tree, key));
  }
  if (asked.empty()) return;
  LearnSought(tree, asked, connection_.Run(Of(tree).seek_many, KeysOf(asked)));
}

// The rows are ordered by the key that was sought, which their third column has. A key without rows
// is above all keys of the tree.
void ServerView::LearnSought(Tree tree, std::set<std::string> const& asked, Result found) {
  std::size_t at = 0;
  for (std::string const& key : asked) {
    std::size_t const first = at;
    while (at < found.size() && found.Bytes(at, 2) == key) ++at;
    pages_.push_back(
        std::make_unique<ServerPage>(tree, found, numbers_, first, at - first, kSoughtPage));
    SoughtIn(tree)[ServerKey(tree, key)] = pages_.back().get();
  }
  results_.push_back(std::move(found));
}

// ---- neighbours --------------------------------------------------------------------------------

ServerPage const& ServerView::Fetch(Tree tree, Statement const& statement,
                                    Parameters const& parameters, std::size_t most, bool falling) {
  return Keep(tree, connection_.Run(statement, parameters), most, falling);
}

ServerPage const& ServerView::Keep(Tree tree, Result found, std::size_t most, bool falling) {
  pages_.push_back(std::make_unique<ServerPage>(tree, std::move(found), numbers_, most, falling));
  ServerPage const& page = *pages_.back();
  if (tree != Tree::kRows) return page;
  // Whoever scans rows reads them too.
  rows_.Reserve(page.size());
  for (std::size_t i = 0; i < page.size(); ++i) {
    rows_.Note(Load<std::uint64_t>(page.entry(i).key.data()), page.entry(i).value);
  }
  return page;
}

ServerPage const& ServerView::Keep(Beyond const& wanted, std::vector<Result> results) {
  if (wanted.run.has_value()) LearnRows(std::move(results[1]));
  return Keep(wanted.tree, std::move(results[0]), wanted.most, !wanted.forward);
}

void ServerView::Add(Beyond const& wanted) {
  TreeStatements const& tree = Of(wanted.tree);
  Parameters parameters;
  parameters.Bytes(ServerKey(wanted.tree, wanted.key)).Number(wanted.most);
  if (wanted.bound.empty()) {
    connection_.Add(wanted.forward ? tree.after : tree.before, parameters);
  } else {
    parameters.Bytes(ServerKey(wanted.tree, wanted.bound));
    connection_.Add(wanted.forward ? tree.after_until : tree.before_until, parameters);
  }
  if (wanted.run.has_value()) AddRun(*wanted.run, wanted.most);
}

void ServerView::AddRun(RowRun const& run, std::size_t most) {
  std::size_t const mean = row_count_ == 0 ? kMostRunBytes : 1 + row_bytes_ / row_count_;
  std::size_t const rows = std::clamp(kMostRunBytes / mean, std::size_t{1}, most);
  TreeStatements const& tree = Of(Tree::kRows);
  connection_.Add(run.rising ? tree.after : tree.before,
                  Parameters().Bytes(RowKey(Raw(run.beside))).Number(rows));
}

ServerPage const& ServerView::From(Tree tree, std::string_view key, std::size_t most) {
  Sought const& sought = SoughtIn(tree);
  if (auto const at = sought.find(std::string(key)); at != sought.end()) return *at->second;
  return Fetch(tree, Of(tree).from, Parameters().Bytes(ServerKey(tree, key)).Number(most), most,
               false);
}

ServerPage const& ServerView::Fetch(Beyond const& wanted) {
  Add(wanted);
  return Keep(wanted, connection_.Exchange());
}

// The page of somebody who has let it go makes room once its reply was read.
bool ServerView::CanAskEarly() {
  if (early_ != nullptr && early_.use_count() == 1 && connection_.DropEarly()) early_.reset();
  return connection_.can_send_early();
}

// A connection that is lost now says so when it is used next.
ServerView::Early ServerView::AskEarly(Beyond const& wanted) {
  auto asked = std::make_shared<Beyond const>(wanted);
  Status const added = Guarded([&] {
    Add(wanted);
    return Status{LORV_STATUS_OK};
  });
  if (added != LORV_STATUS_OK) return nullptr;
  connection_.SendEarly();
  early_ = asked;
  return asked;
}

ServerPage const& ServerView::Fetch(Early const& asked) {
  early_.reset();
  if (!connection_.has_early()) return Fetch(*asked);
  return Keep(*asked, connection_.TakeEarly());
}

ServerPage const& ServerView::Last(Tree tree, std::size_t most) {
  return Fetch(tree, Of(tree).last, Parameters().Number(most), most, true);
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
  ends_high_ = page.ends();
  ends_low_ = false;
  return Give(0, entry);
}

bool ServerCursor::GiveLast(ServerPage const& page, KeyValue* entry) {
  if (page.size() == 0) return false;
  page_ = &page;
  ends_high_ = false;
  ends_low_ = page.ends();
  return Give(page.size() - 1, entry);
}

void ServerCursor::Restart() {
  most_ = kPages.front();
  run_.reset();
  low_.clear();
  high_.clear();
  early_.reset();
}

// Too late for a page that was asked for early.
void ServerCursor::FetchWithNextPage(RowRun const& run) {
  if (early_ == nullptr) run_ = run;
}

void ServerCursor::Expect(std::string_view low, std::string_view high) {
  low_ = low;
  high_ = high;
}

// Pages have 16 entries, then 512, 4096 and 8192: a short scan fetches little, a long one takes few
// round trips.
ServerView::Beyond ServerCursor::NextPage(std::string_view key, bool forward) {
  most_ = *std::upper_bound(kPages.begin(), std::prev(kPages.end()), most_);
  forward_ = forward;
  return {tree_, std::string(key),       forward,
          most_, forward ? high_ : low_, std::exchange(run_, std::nullopt)};
}

ServerPage const& ServerCursor::FetchBeyond(std::string_view key, bool forward) {
  ServerView::Early const early = std::exchange(early_, nullptr);
  if (early != nullptr && early->key == key && early->forward == forward) {
    return view_.Fetch(early);
  }
  return view_.Fetch(NextPage(key, forward));
}

// Once a scan that was announced goes on in its second page or a later one, the next page is asked
// for, so that the server works on it meanwhile.
void ServerCursor::AskEarly() {
  bool const announced = !low_.empty() && !high_.empty();
  if (!announced || most_ == kPages.front() || early_ != nullptr) return;
  if (forward_ ? ends_high_ : ends_low_) return;
  KeyValue const& last = page_->entry(forward_ ? page_->size() - 1 : 0);
  if (forward_ ? last.key >= high_ : last.key < low_) return;
  if (view_.CanAskEarly()) early_ = view_.AskEarly(NextPage(last.key, forward_));
}

std::optional<std::size_t> ServerCursor::Find(std::string_view key) const {
  if (page_ == nullptr) return std::nullopt;
  std::size_t const at = page_->LowerBound(key);
  if (at == page_->size() || page_->entry(at).key != key) return std::nullopt;
  return at;
}

bool ServerCursor::Seek(std::string_view key, KeyValue* entry) {
  Restart();
  return GiveFirst(view_.From(tree_, key, most_), entry);
}

bool ServerCursor::First(KeyValue* entry) { return Seek({}, entry); }

bool ServerCursor::Last(KeyValue* entry) {
  Restart();
  bool const any = GiveLast(view_.Last(tree_, most_), entry);
  ends_high_ = any;
  return any;
}

bool ServerCursor::Next(KeyValue* entry) {
  std::optional<std::size_t> const at = Find(entry->key);
  if (at.has_value() && *at + 1 < page_->size()) return Give(*at + 1, entry);
  if (at.has_value() && ends_high_) return false;
  return GiveFirst(FetchBeyond(entry->key, true), entry);
}

bool ServerCursor::Previous(KeyValue* entry) {
  std::optional<std::size_t> const at = Find(entry->key);
  if (at.has_value() && *at > 0) return Give(*at - 1, entry);
  if (at.has_value() && ends_low_) return false;
  return GiveLast(FetchBeyond(entry->key, false), entry);
}

bool ServerCursor::EnterPage(KeyValue const& entry, EntryPage* page) {
  std::optional<std::size_t> const at = Find(entry.key);
  if (!at.has_value()) return false;
  AskEarly();
  return page_->Enter(*at, page);
}

void ServerCursor::Upcoming(KeyValue const& entry, bool forward, std::size_t most,
                            std::vector<KeyValue>* out) const {
  std::optional<std::size_t> const at = Find(entry.key);
  if (!at.has_value()) return;
  std::size_t const there = forward ? page_->size() - *at : *at + 1;
  for (std::size_t i = 0; i < std::min(most, there); ++i) {
    out->push_back(page_->entry(forward ? *at + i : *at - i));
  }
}

}  // namespace lscore

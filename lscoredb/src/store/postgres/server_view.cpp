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

// A failed question leaves no answer.
bool ServerView::Get(Tree tree, std::string_view key, std::string_view* value) {
  ServerAnswers::Value known;
  if (!answers_->Find(tree, key, &known)) {
    Parameters const parameters = Parameters().Bytes(ServerKey(tree, key));
    known = answers_->Learn(tree, key, connection_.Run(Of(tree).get, parameters));
  }
  if (known.has_value()) *value = *known;
  return known.has_value();
}

void ServerView::GetMany(Tree tree, std::span<std::string_view const> keys,
                         std::span<std::optional<std::string_view>> values) {
  if (tree == Tree::kRows) {
    std::vector<std::uint64_t> asked;
    for (std::string_view const key : keys) {
      auto const id = Load<std::uint64_t>(key.data());
      if (!answers_->HasRow(id)) asked.push_back(id);
    }
    if (!asked.empty()) FetchRows(asked);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      answers_->FindRow(Load<std::uint64_t>(keys[i].data()), &values[i]);
    }
    return;
  }
  std::set<std::string> asked;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!answers_->Find(tree, keys[i], &values[i])) asked.emplace(keys[i]);
  }
  if (asked.empty()) return;
  answers_->Learn(tree, asked, connection_.Run(Of(tree).get_many, KeysOf(asked)));
  for (std::size_t i = 0; i < keys.size(); ++i) answers_->Find(tree, keys[i], &values[i]);
}

void ServerView::FetchRows(std::vector<std::uint64_t> const& ids) {
  auto const [low, high] = std::minmax_element(ids.begin(), ids.end());
  TreeStatements const& rows = Of(Tree::kRows);
  if (ids.size() >= kFewestInRange && *high - *low < kSparsestRange * ids.size()) {
    Parameters const parameters = Parameters().Bytes(RowKey(*low)).Bytes(RowKey(*high));
    answers_->LearnRows(ids, connection_.Run(rows.get_range, parameters));
  } else {
    std::vector<std::uint64_t> swapped;
    std::vector<std::string_view> keys;
    for (std::uint64_t const id : ids) swapped.push_back(SwapBytes(id));
    for (std::uint64_t const& key : swapped) keys.push_back(BytesOf(key));
    answers_->LearnRows(ids, connection_.Run(rows.get_many, Parameters().ManyBytes(keys)));
  }
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
    if (!asked.gets[i].empty()) answers_->Learn(tree, asked.gets[i], std::move(results[next++]));
    if (!asked.seeks[i].empty()) {
      answers_->LearnSought(tree, asked.seeks[i], std::move(results[next++]));
    }
  }
}

void ServerView::PrefetchSeeks(Tree tree, std::vector<std::string> const& keys) {
  std::set<std::string> asked;
  for (std::string const& key : keys) {
    if (answers_->FindSought(tree, key) == nullptr) asked.insert(ServerKey(tree, key));
  }
  if (asked.empty()) return;
  answers_->LearnSought(tree, asked, connection_.Run(Of(tree).seek_many, KeysOf(asked)));
}

// ---- neighbours --------------------------------------------------------------------------------

ServerPage const& ServerView::Fetch(PagePlace const& place, std::size_t most,
                                    Statement const& statement, Parameters const& parameters) {
  if (ServerPage const* const known = answers_->FindPage(place)) return *known;
  return answers_->LearnPage(place, most, connection_.Run(statement, parameters));
}

ServerPage const& ServerView::Keep(Beyond const& wanted, std::vector<Result> results) {
  if (wanted.run.has_value()) answers_->LearnRows(std::move(results[1]));
  return answers_->LearnPage(wanted.place, wanted.most, std::move(results[0]));
}

void ServerView::Add(Beyond const& wanted) {
  auto const& [tree, key, side, bound] = wanted.place;
  bool const forward = side == PagePlace::Side::kAfter;
  TreeStatements const& statements = Of(tree);
  Parameters parameters;
  parameters.Bytes(ServerKey(tree, key)).Number(wanted.most);
  if (bound.empty()) {
    connection_.Add(forward ? statements.after : statements.before, parameters);
  } else {
    parameters.Bytes(ServerKey(tree, bound));
    connection_.Add(forward ? statements.after_until : statements.before_until, parameters);
  }
  if (wanted.run.has_value()) AddRun(*wanted.run, wanted.most);
}

void ServerView::AddRun(RowRun const& run, std::size_t most) {
  std::size_t const mean = answers_->mean_row();
  std::size_t const fit = mean == 0 ? 1 : kMostRunBytes / mean;
  std::size_t const rows = std::clamp(fit, std::size_t{1}, most);
  TreeStatements const& tree = Of(Tree::kRows);
  connection_.Add(run.rising ? tree.after : tree.before,
                  Parameters().Bytes(RowKey(Raw(run.beside))).Number(rows));
}

ServerPage const& ServerView::From(Tree tree, std::string_view key, std::size_t most) {
  if (ServerPage const* const sought = answers_->FindSought(tree, key)) return *sought;
  return Fetch({tree, std::string(key), PagePlace::Side::kFrom}, most, Of(tree).from,
               Parameters().Bytes(ServerKey(tree, key)).Number(most));
}

// The rows that go with a page which is there are not asked for.
ServerPage const& ServerView::Fetch(Beyond const& wanted) {
  if (ServerPage const* const known = answers_->FindPage(wanted.place)) return *known;
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
  return Fetch({tree, {}, PagePlace::Side::kLast}, most, Of(tree).last, Parameters().Number(most));
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

PagePlace ServerCursor::PlaceBeyond(std::string_view key, bool forward) const {
  return {tree_, std::string(key), forward ? PagePlace::Side::kAfter : PagePlace::Side::kBefore,
          forward ? high_ : low_};
}

// Pages have 16 entries, then 512, 4096 and 8192: a short scan fetches little, a long one takes few
// round trips.
ServerView::Beyond ServerCursor::NextPage(PagePlace place) {
  most_ = *std::upper_bound(kPages.begin(), std::prev(kPages.end()), most_);
  forward_ = place.side == PagePlace::Side::kAfter;
  return {std::move(place), most_, std::exchange(run_, std::nullopt)};
}

ServerPage const& ServerCursor::FetchBeyond(std::string_view key, bool forward) {
  ServerView::Early const early = std::exchange(early_, nullptr);
  PagePlace place = PlaceBeyond(key, forward);
  if (early != nullptr && early->place.key == key && early->place.side == place.side) {
    return view_.Fetch(early);
  }
  return view_.Fetch(NextPage(std::move(place)));
}

// Once a scan that was announced goes on in its second page or a later one, the next page is asked
// for, so that the server works on it meanwhile.
void ServerCursor::AskEarly() {
  bool const announced = !low_.empty() && !high_.empty();
  if (!announced || most_ == kPages.front() || early_ != nullptr) return;
  if (forward_ ? ends_high_ : ends_low_) return;
  KeyValue const& last = page_->entry(forward_ ? page_->size() - 1 : 0);
  if (forward_ ? last.key >= high_ : last.key < low_) return;
  PagePlace place = PlaceBeyond(last.key, forward_);
  if (view_.HasPage(place) || !view_.CanAskEarly()) return;
  early_ = view_.AskEarly(NextPage(std::move(place)));
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

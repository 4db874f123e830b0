#include "server_answers.h"

#include <utility>

#include "bytes.h"

namespace lscore {
namespace {

// Of a seek that was announced: an entry of the caller's own, and that of another.
constexpr std::size_t kSoughtPage = 2;

std::string NameOf(PagePlace const& place) {
  return std::string{static_cast<char>(place.tree), static_cast<char>(place.side)} + place.key;
}

bool Rises(PagePlace::Side side) {
  return side == PagePlace::Side::kFrom || side == PagePlace::Side::kAfter;
}

// Whether entries up to `bound` are all that the place wants.
bool Covers(std::string const& bound, PagePlace const& place) {
  if (bound.empty()) return true;
  if (place.bound.empty()) return false;
  return Rises(place.side) ? !KeyLess(place.tree, bound, place.bound)
                           : !KeyLess(place.tree, place.bound, bound);
}

}  // namespace

// ---- single entries ----------------------------------------------------------------------------

bool ServerAnswers::Find(Tree tree, std::string_view key, Value* value) const {
  if (tree == Tree::kRows) return rows_.Find(Load<std::uint64_t>(key.data()), value);
  auto const at = KnownOf(tree).find(std::string(key));
  if (at == KnownOf(tree).end()) return false;
  *value = at->second;
  return true;
}

ServerAnswers::Value ServerAnswers::Learn(Tree tree, std::string_view key, Result found) {
  Value value;
  if (found.size() > 0) value = numbers_.Read(tree, key, found, 0, 0);
  if (tree == Tree::kRows) {
    rows_.Note(Load<std::uint64_t>(key.data()), value);
  } else {
    Note(tree, std::string(key), value);
  }
  if (value.has_value()) Hold(std::move(found));
  return value;
}

void ServerAnswers::LearnRows(Result found) {
  rows_.Reserve(found.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    auto const id = LoadBig<std::uint64_t>(found.Bytes(i, 0).data());
    std::string_view const row = numbers_.Read(Tree::kRows, BytesOf(id), found, i, 1);
    rows_.Note(id, row);
    row_bytes_ += row.size();
  }
  row_count_ += found.size();
  Hold(std::move(found));
}

void ServerAnswers::LearnRows(std::vector<std::uint64_t> const& asked, Result found) {
  LearnRows(std::move(found));
  rows_.Reserve(asked.size());
  for (std::uint64_t const id : asked) rows_.Note(id, {});
}

void ServerAnswers::Learn(Tree tree, std::set<std::string> const& asked, Result found) {
  if (tree == Tree::kRows) {
    LearnRows(std::move(found));
    for (std::string const& key : asked) rows_.Note(LoadBig<std::uint64_t>(key.data()), {});
    return;
  }
  for (std::size_t i = 0; i < found.size(); ++i) {
    std::string key(found.Bytes(i, 0));
    std::string_view const value = numbers_.Read(tree, key, found, i, 1);
    Note(tree, std::move(key), value);
  }
  for (std::string const& key : asked) Note(tree, key, {});
  Hold(std::move(found));
}

// What is known stays as it is.
void ServerAnswers::Note(Tree tree, std::string key, Value const& value) {
  std::size_t const size = sizeof(Known::value_type) + 4 * sizeof(void*) + key.size();
  if (KnownOf(tree).try_emplace(std::move(key), value).second) known_bytes_ += size;
}

void ServerAnswers::Hold(Result found) {
  reply_bytes_ += found.memory();
  results_.push_back(std::move(found));
}

// ---- neighbours --------------------------------------------------------------------------------

ServerPage const* ServerAnswers::FindSought(Tree tree, std::string_view key) const {
  Sought const& sought = sought_[static_cast<std::size_t>(tree)];
  auto const at = sought.find(std::string(key));
  return at == sought.end() ? nullptr : at->second;
}

// The rows are ordered by the key that was sought, which their third column has. A key without rows
// is above all keys of the tree.
void ServerAnswers::LearnSought(Tree tree, std::set<std::string> const& asked, Result found) {
  std::size_t at = 0;
  for (std::string const& key : asked) {
    std::size_t const first = at;
    while (at < found.size() && found.Bytes(at, 2) == key) ++at;
    pages_.push_back(
        std::make_unique<ServerPage>(tree, found, numbers_, first, at - first, kSoughtPage));
    sought_[static_cast<std::size_t>(tree)][ServerKey(tree, key)] = pages_.back().get();
  }
  Hold(std::move(found));
}

// A page with fewer entries than were asked for goes up to its own bound.
ServerPage const* ServerAnswers::FindPage(PagePlace const& place) const {
  auto const at = places_.find(NameOf(place));
  if (at == places_.end()) return nullptr;
  auto const& [page, bound] = at->second;
  return !page->ends() || Covers(bound, place) ? page : nullptr;
}

ServerPage const& ServerAnswers::LearnPage(PagePlace const& place, std::size_t most, Result found) {
  reply_bytes_ += found.memory();
  pages_.push_back(std::make_unique<ServerPage>(place.tree, std::move(found), numbers_, most,
                                                !Rises(place.side)));
  ServerPage const& page = *pages_.back();
  places_.insert_or_assign(NameOf(place), Page{&page, place.bound});
  if (place.tree != Tree::kRows) return page;
  // Whoever scans rows reads them too.
  rows_.Reserve(page.size());
  for (std::size_t i = 0; i < page.size(); ++i) {
    rows_.Note(Load<std::uint64_t>(page.entry(i).key.data()), page.entry(i).value);
  }
  return page;
}

}  // namespace lscore

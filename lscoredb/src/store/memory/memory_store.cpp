#include "memory_store.h"

#include <iterator>
#include <optional>
#include <utility>

#include "bytes.h"
#include "format.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::size_t kEntriesOfPage = 32;
constexpr std::size_t kLargestPlain = 1024;  // a larger value is not put into a page
constexpr std::uint16_t kElsewhere = 1;

MemoryOrder OrderOf(Tree tree) { return {tree == Tree::kRows}; }

bool Give(MemoryEntries const& entries, MemoryEntries::const_iterator at, KeyValue* entry) {
  if (at == entries.end()) return false;
  *entry = {at->first, at->second};
  return true;
}

// Finds its way by the key of the entry alone, so that it does not matter whether a page gave it.
// `tree` is null over a batch, whose entries change and have no pages.
class MemoryCursor final : public TreeCursor {
 public:
  MemoryCursor(Store const& store, MemoryEntries const& entries, MemoryTree const* tree)
      : TreeCursor(store), entries_(entries), tree_(tree) {}

  bool Seek(std::string_view key, KeyValue* entry) override {
    return Give(entries_, entries_.lower_bound(key), entry);
  }
  bool First(KeyValue* entry) override { return Give(entries_, entries_.begin(), entry); }
  bool Last(KeyValue* entry) override { return GiveBefore(entries_.end(), entry); }
  bool Next(KeyValue* entry) override {
    return Give(entries_, entries_.upper_bound(entry->key), entry);
  }
  bool Previous(KeyValue* entry) override {
    return GiveBefore(entries_.lower_bound(entry->key), entry);
  }
  bool EnterPage(KeyValue const& entry, EntryPage* page) override {
    return tree_ != nullptr && tree_->EnterPage(entry, page);
  }

 private:
  bool GiveBefore(MemoryEntries::const_iterator at, KeyValue* entry) {
    return at != entries_.begin() && Give(entries_, std::prev(at), entry);
  }

  MemoryEntries const& entries_;
  MemoryTree const* tree_;
};

bool GetFrom(MemoryEntries const& entries, std::string_view key, std::string_view* value) {
  auto const at = entries.find(key);
  if (at == entries.end()) return false;
  *value = at->second;
  return true;
}

}  // namespace

class MemorySnapshot final : public Snapshot {
 public:
  MemorySnapshot(MemoryStore const& store, std::shared_ptr<MemoryState const> state)
      : store_(store), state_(std::move(state)) {
    set_id(state_->id);
  }

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    if (tree == Tree::kRows) ++store_.rows_given_;
    return GetFrom(TreeOf(tree).entries(), key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    cursor = std::make_unique<MemoryCursor>(store_, TreeOf(tree).entries(), &TreeOf(tree));
  }

 private:
  MemoryTree const& TreeOf(Tree tree) const {
    return *state_->trees[static_cast<std::size_t>(tree)];
  }

  MemoryStore const& store_;
  std::shared_ptr<MemoryState const> state_;
};

bool MemoryOrder::operator()(std::string_view a, std::string_view b) const {
  return numbers ? Load<std::uint64_t>(a.data()) < Load<std::uint64_t>(b.data()) : a < b;
}

// ---- trees -------------------------------------------------------------------------------------

MemoryTree::MemoryTree(MemoryEntries entries)
    : entries_(std::move(entries)), pages_(entries_.key_comp()) {
  std::size_t count = 0;
  Page* page = nullptr;
  for (auto const& [key, value] : entries_) {
    if (count++ % kEntriesOfPage == 0) page = &pages_[key];
    bool const plain = value.size() <= kLargestPlain;
    page->offsets.push_back(static_cast<std::uint16_t>(page->bytes.size()));
    Append(page->bytes, static_cast<std::uint32_t>(value.size()));
    Append(page->bytes, plain ? EntryPage::kPlain : kElsewhere);
    Append(page->bytes, static_cast<std::uint16_t>(key.size()));
    page->bytes += key;
    if (plain) page->bytes += value;
  }
  for (auto& [first, filled] : pages_) {
    for (std::uint16_t const offset : filled.offsets) Append(filled.bytes, offset);
  }
}

bool MemoryTree::EnterPage(KeyValue const& entry, EntryPage* page) const {
  auto const after = pages_.upper_bound(entry.key);
  if (after == pages_.begin()) return false;
  auto const& [first, found] = *std::prev(after);
  auto const position = std::distance(entries_.find(first), entries_.find(entry.key));
  std::size_t const slots = found.bytes.size() - 2 * found.offsets.size();
  return page->Enter(found.bytes.data(), found.bytes.size(), slots, found.offsets.size(),
                     found.offsets[static_cast<std::size_t>(position)]);
}

// ---- batches -----------------------------------------------------------------------------------

// Holds the store's lock for writing. A tree is copied when it is first changed.
class MemoryBatch final : public Batch {
 public:
  explicit MemoryBatch(MemoryStore& store)
      : store_(store), lock_(store.data_->batch_mutex), base_(store.data_->newest) {
    set_id(CommitId{Raw(base_->id) + 1});
  }

  bool Get(Tree tree, std::string_view key, std::string_view* value) const override {
    return GetFrom(EntriesOf(tree), key, value);
  }
  void OpenCursor(Tree tree, std::unique_ptr<TreeCursor>& cursor) const override {
    cursor = std::make_unique<MemoryCursor>(store_, EntriesOf(tree), nullptr);
  }
  void Put(Tree tree, std::string_view key, std::string_view value) override {
    CheckKey(key);
    Changing(tree, key).insert_or_assign(std::string(key), std::string(value));
  }
  bool PutNew(Tree tree, std::string_view key, std::string_view value) override {
    CheckKey(key);
    return Changing(tree, key).try_emplace(std::string(key), value).second;
  }
  void Append(Tree tree, std::string_view key, std::string_view value) override {
    Put(tree, key, value);
  }
  bool Delete(Tree tree, std::string_view key) override {
    if (!EntriesOf(tree).contains(key)) return false;
    MemoryEntries& entries = Changing(tree, key);
    entries.erase(entries.find(key));
    return true;
  }
  void Commit() override;

 private:
  static void CheckKey(std::string_view key) {
    if (key.empty() || key.size() > kMaxKeySize) Throw(LSCOREDB_TOO_LARGE);
  }
  MemoryEntries const& EntriesOf(Tree tree) const {
    auto const i = static_cast<std::size_t>(tree);
    return changed_[i].has_value() ? *changed_[i] : base_->trees[i]->entries();
  }
  MemoryEntries& Changing(Tree tree) {
    auto const i = static_cast<std::size_t>(tree);
    if (!changed_[i].has_value()) changed_[i] = base_->trees[i]->entries();
    return *changed_[i];
  }
  MemoryEntries& Changing(Tree tree, std::string_view key) {
    if (tree == Tree::kRows) changed_rows_.push_back(ObjectId{Load<std::uint64_t>(key.data())});
    return Changing(tree);
  }

  MemoryStore& store_;
  std::unique_lock<std::mutex> lock_;
  std::shared_ptr<MemoryState const> base_;
  std::array<std::optional<MemoryEntries>, kTreeCount> changed_;
  std::vector<ObjectId> changed_rows_;
};

void MemoryBatch::Commit() {
  auto state = std::make_shared<MemoryState>(*base_);
  bool changed = false;
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    if (!changed_[i].has_value()) continue;
    state->trees[i] = std::make_shared<MemoryTree const>(*std::move(changed_[i]));
    changed = true;
  }
  if (changed) {
    state->id = id();
    store_.BeginOwnCommit(*this);
    {
      MemoryData& data = *store_.data_;
      std::lock_guard const lock(data.mutex);
      data.changed[id()] = std::move(changed_rows_);
      data.newest = std::move(state);
    }
    store_.EndOwnCommit(*this, true);
  }
  lock_.unlock();
}

// ---- the store ---------------------------------------------------------------------------------

MemoryStore::MemoryStore(StoreOptions const& options)
    : MemoryStore(options, std::make_shared<MemoryData>()) {
  auto state = std::make_shared<MemoryState>();
  for (std::size_t i = 0; i < kTreeCount; ++i) {
    auto const tree = static_cast<Tree>(i);
    MemoryEntries entries(OrderOf(tree));
    if (tree == Tree::kMeta) {
      entries.emplace(format::kFormatKey, format::FormatRecord(format::kFirstVersion));
    }
    state->trees[i] = std::make_shared<MemoryTree const>(std::move(entries));
  }
  state->id = CommitId{1};
  data_->newest = std::move(state);
}

std::unique_ptr<MemoryStore> MemoryStore::Beside() const {
  return std::unique_ptr<MemoryStore>(new MemoryStore(options_, data_));
}

std::unique_ptr<Snapshot> MemoryStore::Begin() {
  std::lock_guard const lock(data_->mutex);
  auto snapshot = std::make_unique<MemorySnapshot>(*this, data_->newest);
  if (data_->readers.size() >= options_.max_readers) Throw(LSCOREDB_TOO_MANY_READERS);
  data_->readers.insert(snapshot->id());
  return snapshot;
}

void MemoryStore::End(std::unique_ptr<Snapshot> snapshot) noexcept {
  std::lock_guard const lock(data_->mutex);
  data_->readers.erase(data_->readers.find(snapshot->id()));
}

std::unique_ptr<Batch> MemoryStore::BeginBatch() { return std::make_unique<MemoryBatch>(*this); }

std::unique_ptr<Snapshot> MemoryStore::BeginVerified(FaultReport const&) { return Begin(); }

StoreStatistics MemoryStore::Statistics() const {
  std::lock_guard const lock(data_->mutex);
  std::multiset<CommitId> const& readers = data_->readers;
  StoreStatistics statistics;
  statistics.max_file_size = options_.max_file_size;
  statistics.last_commit = data_->newest->id;
  statistics.oldest_commit = readers.empty() ? data_->newest->id : *readers.begin();
  statistics.readers = static_cast<std::uint32_t>(readers.size());
  statistics.max_readers = options_.max_readers;
  return statistics;
}

// Commits after the view's state are listed too, if there are any by now.
bool MemoryStore::ListChanges(View const&, CommitId after, std::vector<ObjectId>* changed) const {
  std::lock_guard const lock(data_->mutex);
  for (auto at = data_->changed.upper_bound(after); at != data_->changed.end(); ++at) {
    changed->insert(changed->end(), at->second.begin(), at->second.end());
  }
  return true;
}

}  // namespace lscore

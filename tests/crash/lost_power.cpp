#include "crash/lost_power.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace crash_test {

using recorded_disk::Event;
using recorded_disk::Kind;

namespace {

constexpr std::uint64_t kSector = 512;

std::string ParentOf(std::string const& name) {
  return std::filesystem::path(name).parent_path().string();
}

void Put(std::string& content, std::uint64_t at, std::string_view data) {
  if (content.size() < at + data.size()) content.resize(at + data.size(), '\0');
  content.replace(at, data.size(), data);
}

}  // namespace

// ---- what is kept -------------------------------------------------------------------------------

// Decides what reaches the disk. How much does, and whether writes do in whole or by sectors, is
// drawn once for each loss, so that the extremes come up too.
class Disk::Chance {
 public:
  Chance() = default;
  explicit Chance(std::mt19937_64& random) : random_(&random) {
    constexpr double kShares[] = {0, 0.05, 0.5, 0.5, 0.95, 1};
    share_ = kShares[random() % std::size(kShares)];
    by_sector_ = random() % 3 != 0;
    odd_lengths_ = random() % 4 == 0;
  }

  bool Keeps() { return random_ == nullptr || Draw() < share_; }
  bool KeepsSector(bool whole) { return by_sector_ ? Keeps() : whole; }
  // A length beside that which the kept changes make.
  std::uint64_t LengthOf(std::uint64_t made, std::uint64_t synced, std::uint64_t longest) {
    if (!odd_lengths_) return made;
    return (*random_)() % 2 == 0 ? synced : std::max(made, longest);
  }

 private:
  double Draw() { return std::uniform_real_distribution<double>(0, 1)(*random_); }

  std::mt19937_64* random_ = nullptr;  // null: everything is kept
  double share_ = 1;
  bool by_sector_ = false;
  bool odd_lengths_ = false;
};

std::string Disk::ContentOf(File const& file, Chance& chance) {
  std::string content = file.kept;
  std::uint64_t synced = content.size();
  std::uint64_t longest = content.size();
  for (Change const& change : file.pending) {
    if (change.is_length) {
      if (change.synced) synced = change.at;
      longest = std::max(longest, change.at);
      if (change.synced || chance.Keeps()) content.resize(change.at, '\0');
      continue;
    }
    std::uint64_t const end = change.at + change.data.size();
    if (change.synced) synced = std::max(synced, end);
    longest = std::max(longest, end);
    bool const whole = change.synced || chance.Keeps();
    for (std::uint64_t from = change.at; from < end;) {
      std::uint64_t const to = std::min(end, (from / kSector + 1) * kSector);
      if (change.synced || chance.KeepsSector(whole)) {
        Put(content, from, std::string_view(change.data).substr(from - change.at, to - from));
      }
      from = to;
    }
  }
  content.resize(chance.LengthOf(content.size(), synced, longest), '\0');
  return content;
}

void Disk::Apply(Names& names, NameChange const& change) {
  switch (change.kind) {
    case Kind::kUnname:
    case Kind::kRemoveDirectory:
      names.erase(change.name);
      break;
    case Kind::kRename:
      names.erase(change.old_name);
      [[fallthrough]];
    default:
      names[change.name] = change.file;
  }
}

void Disk::Build(std::string const& directory, Chance& chance) const {
  Names names = kept_;
  for (NameChange const& change : pending_names_) {
    if (change.synced || chance.Keeps()) Apply(names, change);
  }
  for (auto const& [name, file] : names) {
    std::filesystem::path const path = std::filesystem::path(directory) / name;
    if (file == kDirectory) {
      std::filesystem::create_directories(path);
      continue;
    }
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << ContentOf(files_[file], chance);
  }
}

void Disk::BuildAfterLoss(std::string const& directory, std::mt19937_64& random) const {
  Chance chance(random);
  Build(directory, chance);
}

void Disk::BuildAll(std::string const& directory) const {
  Chance all;
  Build(directory, all);
}

// ---- what happens -------------------------------------------------------------------------------

void Disk::EndCallUnderWay() {
  if (under_way_ != nullptr) under_way_->synced = true;
  under_way_ = nullptr;
}

void Disk::Add(Event const& event, Change change) {
  File& file = files_.at(numbers_.at(event.file));
  file.pending.push_back(std::move(change));
  if (event.kind == Kind::kSyncedWrite) under_way_ = &file.pending.back();
}

void Disk::AddName(Event const& event, std::size_t file) {
  pending_names_.push_back({event.kind, false, event.name, event.data, file});
  Apply(now_, pending_names_.back());
}

// A number that stands at no path any more is of a new file.
std::size_t Disk::FileFor(Event const& event) {
  auto const known = numbers_.find(event.file);
  if (known != numbers_.end()) {
    auto const of_it = [&](auto const& name) { return name.second == known->second; };
    if (std::any_of(now_.begin(), now_.end(), of_it)) return known->second;
  }
  files_.emplace_back();
  return numbers_[event.file] = files_.size() - 1;
}

void Disk::SyncFile(File& file) {
  for (Change& change : file.pending) change.synced = true;
  Chance all;
  file.kept = ContentOf(file, all);
  file.pending.clear();
}

// A change waits for those before it, which another directory may have.
void Disk::SyncNames(std::string const& directory) {
  for (NameChange& change : pending_names_) {
    if (ParentOf(change.name) == directory) change.synced = true;
  }
  auto const rest = std::find_if(pending_names_.begin(), pending_names_.end(),
                                 [](NameChange const& change) { return !change.synced; });
  std::for_each(pending_names_.begin(), rest,
                [&](NameChange const& change) { Apply(kept_, change); });
  pending_names_.erase(pending_names_.begin(), rest);
}

void Disk::Take(Event const& event) {
  EndCallUnderWay();
  switch (event.kind) {
    case Kind::kName: {
      std::size_t const file = FileFor(event);
      auto const there = now_.find(event.name);
      if (there == now_.end() || there->second != file) AddName(event, file);
      break;
    }
    case Kind::kRename:
      AddName(event, now_.at(event.data));
      break;
    case Kind::kUnname:
    case Kind::kRemoveDirectory:
    case Kind::kMakeDirectory:
      AddName(event, kDirectory);
      break;
    case Kind::kSyncDirectory:
      SyncNames(event.name);
      break;
    case Kind::kWrite:
    case Kind::kSyncedWrite:
      Add(event, {false, false, event.at, event.data});
      break;
    case Kind::kLength:
      Add(event, {true, false, event.at, ""});
      break;
    case Kind::kSync:
      SyncFile(files_.at(numbers_.at(event.file)));
      break;
    case Kind::kBegun:
    case Kind::kNote:
    case Kind::kEnd:
      break;
  }
}

}  // namespace crash_test

#include "evolve.h"

#include <fmt/core.h>

#include <algorithm>
#include <optional>
#include <sagleme/host.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "catalogue.h"
#include "change.h"
#include "copy.h"
#include "objects.h"
#include "schema.h"

namespace packages {
namespace {

using sagleme::ToUtf16;
using sagleme::ToUtf8;
using Access = sagleme::Access;
using namespace change;

// Handles do not follow the schema by themselves.
void RefreshHandles(sagleme::Transaction& transaction) {
  sagleme::detail::CheckLayer(transaction.context(),
                              lorv_crud_RefreshIssuedHandles(transaction.context()));
}

std::size_t ColumnCount(View const& view) {
  std::size_t count = 0;
  for (auto const& [name, table] : view.tables) count += table.columns.size();
  return count;
}

// The act on an open copy. Views and handles are taken in the order of the act.
class Act {
 public:
  explicit Act(Session& session) : session_(session) {}

  void Begin();
  void Rehearse();
  // Finds the package to show, and takes its handles as they are before the change.
  void Choose(std::string const& shown);
  void Play();
  void Show();
  void Write();

 private:
  // Places in handles_.
  static constexpr std::size_t kKey = 0, kSize = 2;

  struct Named {
    char16_t const* before;
    char16_t const* after;
    sagleme::Type type;
    PropertyAccessInfo const* handle;
  };

  View Look();
  PropertyAccessInfo const* Handle(std::string const& table, char16_t const* column) const;
  std::string Read(PropertyAccessInfo const* handle, sagleme::Type type) const;
  std::string Read(Named const& property) const { return Read(property.handle, property.type); }
  void ShowRefused(sagleme::Transaction& transaction, std::u16string const& table,
                   char16_t const* column) const;
  bool Finds(sagleme::Transaction& transaction, char16_t const* index, sagleme::Value value) const;
  void ShowFound(sagleme::Transaction& transaction, char16_t const* index, sagleme::Value value,
                 std::string const& text, bool expected) const;

  Session& session_;
  View before_{};
  View after_{};
  uint64_t chosen_ = 0;  // object id, 0: there is no package that stays
  std::vector<Named> handles_;
};

View Act::Look() {
  sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
  return ViewOf(transaction);
}

void Act::Begin() {
  before_ = Look();
  fmt::print("\nBefore: schema generation {}, {} packages\n", before_.generation,
             before_.packages.size());
  PrintTables(before_);
  PrintChange();
}

void Act::Rehearse() {
  {
    sagleme::Transaction transaction(session_.owned_context());
    ChangeSchema(transaction);
    RefreshHandles(transaction);
    View const inside = ViewOf(transaction);
    fmt::print("\nRun and not kept: schema generation {} inside the transaction\n",
               inside.generation);
    PrintTables(inside);
    Promise(!(inside == before_), "the change shows nowhere");
    transaction.Rollback();
  }
  sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
  RefreshHandles(transaction);
  View const again = ViewOf(transaction);
  Promise(again == before_, "the rollback left something behind");
  fmt::print(
      "Rolled back: schema generation {}, {} tables with {} columns, and all values of {}\n"
      "packages are what they were before\n",
      again.generation, again.tables.size(), ColumnCount(again), again.packages.size());
}

void Act::Choose(std::string const& shown) {
  sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
  LS_OBJ_REF const named = FindPackage(Indexes(), shown, {});
  auto const stays = [](auto const& entry) { return !IsDropped(entry.second.table); };
  auto chosen = before_.packages.find(named.oid);
  if (chosen == before_.packages.end() || !stays(*chosen)) {
    chosen = std::find_if(before_.packages.begin(), before_.packages.end(), stays);
  }
  if (chosen == before_.packages.end()) return;
  chosen_ = chosen->first;
  handles_ = {{u"Key", u"Key", sagleme::Type::kString, nullptr},
              {u"Version", u"Version", sagleme::Type::kString, nullptr},
              {u"InstalledSize", u"InstalledSize", sagleme::Type::kULong, nullptr},
              {kSummary, kDescription, sagleme::Type::kString, nullptr}};
  fmt::print("\nObject {} of {} before the change\n", chosen_, chosen->second.table);
  for (Named& each : handles_) {
    each.handle = Handle(chosen->second.table, each.before);
    fmt::print("  {:<16} {}\n", ToUtf8(each.before), Read(each));
  }
  PropertyAccessInfo const* const dropped = Handle(chosen->second.table, kCompression);
  fmt::print("  {:<16} {}\n", ToUtf8(kCompression), Read(dropped, sagleme::Type::kDouble));
}

void Act::Play() {
  {
    sagleme::Transaction transaction(session_.owned_context());
    ChangeSchema(transaction);
    transaction.Commit();
  }
  {
    sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
    RefreshHandles(transaction);
  }
  after_ = Look();
  fmt::print("\nRun again and committed: schema generation {}\n", after_.generation);
  PrintTables(after_);
  Survival(before_, after_).Print();
}

PropertyAccessInfo const* Act::Handle(std::string const& table, char16_t const* column) const {
  PropertyAccessInfo* handle = nullptr;
  session_.Check(
      lorv_crud_GetPropertyHandle(session_.context(), ToUtf16(table).c_str(), column, &handle),
      "asking for a property");
  return handle;
}

std::string Act::Read(PropertyAccessInfo const* handle, sagleme::Type type) const {
  std::string const text = ReadText(session_.context(), handle, type, {chosen_, 0});
  return text.empty() ? "-" : text.substr(0, text.find('\n'));
}

void Act::ShowRefused(sagleme::Transaction& transaction, std::u16string const& table,
                      char16_t const* column) const {
  PropertyAccessInfo* handle = nullptr;
  uint32_t const status =
      lorv_crud_GetPropertyHandle(transaction.context(), table.c_str(), column, &handle);
  Promise(status != 0, "a dropped column has a handle");
  fmt::print("  {:<16} refused with status {}: {}\n", ToUtf8(column), status,
             ToUtf8(lorv_metalayer_errbuf(transaction.context())));
}

void Act::Show() {
  if (chosen_ == 0) return;
  sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
  std::string const& table = after_.packages.at(chosen_).table;
  fmt::print("\nObject {} of {} after it, through the same handles, refreshed\n", chosen_, table);
  for (Named const& each : handles_) {
    std::string const was =
        each.before == each.after ? "" : fmt::format("  (was {})", ToUtf8(each.before));
    fmt::print("  {:<16} {}{}\n", ToUtf8(each.after), Read(each), was);
  }
  fmt::print("and through new ones\n");
  fmt::print("  {:<16} {}\n", ToUtf8(kRating), Read(Handle(table, kRating), sagleme::Type::kLong));
  fmt::print("  {:<16} {}\n", ToUtf8(kNote), Read(Handle(table, kNote), sagleme::Type::kString));
  for (char16_t const* const gone : {kSummary, kCompression}) {
    ShowRefused(transaction, ToUtf16(table), gone);
  }
}

// Whether an index has the chosen package under a value.
bool Act::Finds(sagleme::Transaction& transaction, char16_t const* index,
                sagleme::Value value) const {
  std::optional<sagleme::Index> const found = transaction.FindIndex(index);
  if (!found) return false;
  for (sagleme::Object const& object :
       sagleme::Range::Matching(transaction, *found, {std::move(value)})) {
    if (object.id().value == chosen_) return true;
  }
  return false;
}

void Act::ShowFound(sagleme::Transaction& transaction, char16_t const* index, sagleme::Value value,
                    std::string const& text, bool expected) const {
  bool const found = Finds(transaction, index, std::move(value));
  Promise(found == expected, ToUtf8(index) + " by " + text);
  fmt::print("  {:<22} by {:<24} {}\n", ToUtf8(index), text, found ? "found" : "not found");
}

// Old and new values, each by the index that covers its column.
void Act::Write() {
  if (chosen_ == 0) return;
  std::string const& table = after_.packages.at(chosen_).table;
  std::u16string const words = u"looked at";
  uint64_t old_size = 0;
  {
    sagleme::Transaction transaction(session_.owned_context());
    Object package(session_, {chosen_, 0});
    old_size = package.GetULong(handles_[kSize].handle).value_or(0);
    package.SetULong(handles_[kSize].handle, old_size + 1);
    package.SetLong(Handle(table, kRating), 5);
    package.SetText(Handle(table, kNote), ToUtf8(words));
    transaction.Commit();
  }
  sagleme::Transaction transaction(session_.owned_context(), Access::kReadOnly);
  fmt::print("\nWritten to it: InstalledSize {}, Rating {}, Note \"{}\"; what the indexes say\n",
             Read(handles_[kSize]), Read(Handle(table, kRating), sagleme::Type::kLong),
             Read(Handle(table, kNote), sagleme::Type::kString));
  std::string const key = Read(handles_[kKey]);
  ShowFound(transaction, indexes::kPackageByKey, ToUtf16(key), key, true);
  ShowFound(transaction, indexes::kPackageBySize, old_size, fmt::format("{}", old_size), false);
  ShowFound(transaction, indexes::kPackageBySize, old_size + 1, fmt::format("{}", old_size + 1),
            true);
  ShowFound(transaction, kPackageByNote, sagleme::Null{}, "null", false);
  ShowFound(transaction, kPackageByNote, words, ToUtf8(words), true);
}

void CheckLoaded(Session& session, std::string const& directory) {
  sagleme::Transaction transaction(session.owned_context(), Access::kReadOnly);
  for (TableSpec const& table : AllTables()) {
    if (transaction.Find(table.name) != nullptr) continue;
    throw std::runtime_error("the database in " + directory +
                             " holds no packages, or those of an older program; load it first");
  }
}

// The copy of a database that the first act did not make is not left lying.
std::string CopyOfLoaded(std::string const& directory) {
  std::string copy = CopyForEvolution(directory);
  try {
    Session session(sagleme::Database::Open(copy));
    RefuseEvolved(session, directory);
    CheckLoaded(session, directory);
  } catch (...) {
    RemoveDatabase(copy);
    throw;
  }
  return copy;
}

}  // namespace

void Evolve(std::string const& directory, std::string const& shown) {
  std::string const copy = CopyOfLoaded(directory);
  Session session(sagleme::Database::Open(copy));
  fmt::print("{} -> {}, a copy whose schema changes\n", sagleme::ShownPlace(directory),
             sagleme::ShownPlace(copy));
  Act act(session);
  act.Begin();
  act.Rehearse();
  act.Choose(shown);
  act.Play();
  act.Show();
  act.Write();
}

}  // namespace packages

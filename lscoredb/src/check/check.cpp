#include "check.h"

#include "bytes.h"
#include "c_api.h"
#include "keys.h"

namespace lscore {
namespace {

constexpr std::uint32_t kKnownFlags = LSCOREDB_CHECK_PAGES_ONLY | LSCOREDB_CHECK_NO_ENTRIES;

// The object or index that a key of a tree belongs to; 0: it does not say.
std::uint64_t OwnerOf(std::string_view tree, std::string_view key) {
  std::uint64_t id = 0;
  if (tree == "index") return ReadOrderedId(key, &id) != 0 ? id : 0;
  if (key.size() < sizeof id) return 0;
  if (tree == "rows") return Load<std::uint64_t>(key.data());
  return tree == "parts" ? LoadBig<std::uint64_t>(key.data()) : 0;
}

std::string RangeText(std::string_view tree, PageFault const& fault) {
  bool const of_index = tree == "index";
  std::string text = of_index ? "Entries of indexes" : "Objects";
  std::uint64_t const low = OwnerOf(tree, fault.low);
  std::uint64_t const high = OwnerOf(tree, fault.high);
  if (low != 0) text += " from " + std::to_string(low) + " on";
  if (high != 0) text += (of_index || low == high ? " up to " : " below ") + std::to_string(high);
  return text + " cannot be read: ";
}

}  // namespace

void FindingSink::Tell(Finding const& finding, std::string const& text) {
  any_ = true;
  if (report_ == nullptr) throw StopCheck();
  lscoredb_finding told{};
  told.size = sizeof told;
  told.kind = finding.kind;
  told.column = finding.column;
  told.object = Raw(finding.object);
  told.index = Raw(finding.index);
  told.layout = Raw(finding.layout);
  told.text = text.c_str();
  if (report_(user_, &told) != 0) throw StopCheck();
}

void TellFault(FindingSink& sink, PageFault const& fault) {
  Finding finding;
  finding.kind = LSCOREDB_FINDING_PAGES;
  std::string text;
  std::uint64_t const first = OwnerOf(fault.tree, fault.low);
  if (fault.tree == "rows" || fault.tree == "parts") {
    finding.object = ObjectId{first};
    text = RangeText(fault.tree, fault);
  } else if (fault.tree == "index") {
    finding.index = IndexId{first};
    text = RangeText(fault.tree, fault);
  } else if (fault.tree == "free") {
    text = "What is free in the file is not known: ";
  } else {
    text = "Definitions cannot be read: ";
  }
  sink.Tell(finding, text + fault.what + '.');
}

void CheckStoreState(Store& store, std::uint32_t flags, FindingSink& sink) {
  std::unique_ptr<Snapshot> const snapshot =
      store.BeginWalked([&](PageFault const& fault) { TellFault(sink, fault); });
  if (sink.any() || (flags & LSCOREDB_CHECK_PAGES_ONLY) != 0) return;
  CheckedDefinitions definitions(*snapshot, sink);
  definitions.Load();
  definitions.CheckRecords();
  bool const entries = (flags & LSCOREDB_CHECK_NO_ENTRIES) == 0;
  ObjectCheck(*snapshot, definitions, sink, entries).Run();
  if (entries) EntryCheck(*snapshot, definitions, sink).Run();
}

}  // namespace lscore

uint32_t lscoredb_check(lscoredb* database, uint32_t flags, lscoredb_finding_callback report,
                        void* user) {
  return lscore::Guarded([&]() -> lscore::Status {
    if (database == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if ((flags & ~lscore::kKnownFlags) != 0) return LSCOREDB_INVALID_ARGUMENT;
    lscore::FindingSink sink(report, user);
    try {
      lscore::CheckStoreState(database->database->store(), flags, sink);
    } catch (lscore::StopCheck const&) {
      return LSCOREDB_DAMAGED;
    }
    return sink.any() ? LSCOREDB_DAMAGED : LORV_STATUS_OK;
  });
}

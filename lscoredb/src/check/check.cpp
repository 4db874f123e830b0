#include "check.h"

#include "bytes.h"
#include "identity.h"
#include "keys.h"

namespace lscore {
namespace {

// The object or index that a key of a tree belongs to; 0 if unknown.
std::uint64_t OwnerOf(Tree tree, std::string_view key) {
  std::uint64_t id = 0;
  if (tree == Tree::kIndex) return ReadOrderedId(key, &id) != 0 ? id : 0;
  if (key.size() < sizeof id) return 0;
  if (tree == Tree::kRows) return Load<std::uint64_t>(key.data());
  return tree == Tree::kOverflow ? LoadBig<std::uint64_t>(key.data()) : 0;
}

std::string RangeText(StoreFault const& fault) {
  bool const of_index = fault.tree == Tree::kIndex;
  std::string text = of_index ? "Entries of indexes" : "Objects";
  std::uint64_t const low = OwnerOf(fault.tree, fault.low);
  std::uint64_t const high = OwnerOf(fault.tree, fault.high);
  if (low != 0) text += " from " + std::to_string(low) + " on";
  if (high != 0) text += (of_index || low == high ? " up to " : " below ") + std::to_string(high);
  return text + " cannot be read: ";
}

void CheckIdentity(View const& view, FindingSink& sink) {
  Status const status = Guarded([&] {
    ReadIdentity(view);
    return LORV_STATUS_OK;
  });
  if (status == LORV_STATUS_OK) return;
  Finding finding;
  finding.kind = LSCOREDB_FINDING_DEFINITION;
  sink.Report(finding, "The identity of the database is damaged.");
}

// Definitions first, since objects and entries are read by them; entries last, since they are
// compared with what the scan of objects counted.
void CheckSnapshot(Store& store, Snapshot const& snapshot, std::uint32_t flags, FindingSink& sink) {
  CheckIdentity(snapshot, sink);
  CheckedDefinitions definitions(snapshot, sink);
  definitions.Load();
  definitions.CheckRecords();
  bool const entries = (flags & LSCOREDB_CHECK_NO_ENTRIES) == 0;
  ObjectCheck objects(snapshot, definitions, sink, entries);
  CheckObjectsInThreads(store, snapshot, definitions, sink, entries, objects);
  objects.Finish();
  if (entries) EntryCheck(snapshot, definitions, sink, objects.matched()).Run();
}

}  // namespace

// Returns whether to continue. An exception from the callback is passed on to the host's call
// (PassOnFailure); it is not a failure of the check.
bool FindingSink::CallHost(lscoredb_finding const& finding) noexcept {
  try {
    return report_(user_, &finding) == 0;
  } catch (...) {
    failure_ = std::current_exception();
    return false;
  }
}

void FindingSink::Report(Finding const& finding, std::string const& text) {
  any_ = true;
  if (report_ == nullptr) throw StopCheck();
  lscoredb_finding reported{};
  reported.size = sizeof reported;
  reported.kind = finding.kind;
  reported.column = finding.column;
  reported.object = Raw(finding.object);
  reported.index = Raw(finding.index);
  reported.layout = Raw(finding.layout);
  reported.text = text.c_str();
  if (!CallHost(reported)) throw StopCheck();
}

void ReportFault(FindingSink& sink, StoreFault const& fault) {
  Finding finding;
  finding.kind = LSCOREDB_FINDING_PAGES;
  std::string text = "Definitions cannot be read: ";
  bool const of_tree = fault.area == StoreFault::Area::kTree;
  std::uint64_t const first = OwnerOf(fault.tree, fault.low);
  if (of_tree && (fault.tree == Tree::kRows || fault.tree == Tree::kOverflow)) {
    finding.object = ObjectId{first};
    text = RangeText(fault);
  } else if (of_tree && fault.tree == Tree::kIndex) {
    finding.index = IndexId{first};
    text = RangeText(fault);
  } else if (fault.area == StoreFault::Area::kFreeSpace) {
    text = "What is free in the file is not known: ";
  }
  sink.Report(finding, text + fault.what + '.');
}

// When pages are damaged, nothing is read from them: what they would show is no finding of its own.
void CheckStoreState(Store& store, std::uint32_t flags, FindingSink& sink) {
  std::unique_ptr<Snapshot> snapshot =
      store.BeginVerified([&](StoreFault const& fault) { ReportFault(sink, fault); });
  bool const pages_only = sink.any() || (flags & LSCOREDB_CHECK_PAGES_ONLY) != 0;
  try {
    if (!pages_only) CheckSnapshot(store, *snapshot, flags, sink);
  } catch (...) {
    store.End(std::move(snapshot));
    throw;
  }
  store.End(std::move(snapshot));
}

}  // namespace lscore

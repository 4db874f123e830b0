#ifndef LSCOREDB_TESTS_STORE_CONFORMANCE_STORES_H
#define LSCOREDB_TESTS_STORE_CONFORMANCE_STORES_H

// The stores that are held to what store.h says. A new one is a line in stores.cpp.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "store.h"

namespace lscore {

struct TestedStore {
  char const* name;
  std::function<std::unique_ptr<Store>(StoreOptions const&)> make;
};
// All stores, each new and empty.
std::vector<TestedStore> const& NewStores();

// A store that outlives its process.
struct TestedFile {
  char const* name;
  std::function<std::unique_ptr<Store>(char const* directory, StoreOptions const&)> open;
  std::function<void(std::string const& directory)> damage;  // what was written
};
std::vector<TestedFile> const& StoresInFiles();

inline void PrintTo(TestedStore const& store, std::ostream* out) { *out << store.name; }
inline void PrintTo(TestedFile const& store, std::ostream* out) { *out << store.name; }

// A snapshot that goes back to its store.
class Reading {
 public:
  explicit Reading(Store& store) : store_(store), snapshot_(store.Begin()) {}
  ~Reading() { store_.End(std::move(snapshot_)); }
  Snapshot const& operator*() const { return *snapshot_; }
  Snapshot const* operator->() const { return snapshot_.get(); }

 private:
  Store& store_;
  std::unique_ptr<Snapshot> snapshot_;
};

using Entries = std::vector<std::pair<std::string, std::string>>;

// The entries of a tree from first to last.
Entries AllOf(View const& view, Tree tree);
// The value, or "(none)".
std::string ValueIn(View const& view, Tree tree, std::string_view key);
// Commits the entries.
void Fill(Store& store, Tree tree, std::map<std::string, std::string> const& entries);

}  // namespace lscore

#endif

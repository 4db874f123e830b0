#include "stores.h"

namespace lscore {

Entries AllOf(View const& view, Tree tree) {
  Entries all;
  Cursor cursor;
  cursor.Open(view, tree);
  for (bool on = cursor.First(); on; on = cursor.Next()) {
    all.emplace_back(cursor.key(), cursor.value());
  }
  cursor.Close();
  return all;
}

std::string ValueIn(View const& view, Tree tree, std::string_view key) {
  std::string_view value;
  return view.Get(tree, key, &value) ? std::string(value) : "(none)";
}

void Fill(Store& store, Tree tree, std::map<std::string, std::string> const& entries) {
  std::unique_ptr<Batch> const batch = store.BeginBatch();
  for (auto const& [key, value] : entries) batch->Put(tree, key, value);
  batch->Commit();
  store.Upkeep();
}

}  // namespace lscore

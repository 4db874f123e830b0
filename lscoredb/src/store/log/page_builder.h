#ifndef LSCOREDB_SRC_PAGE_BUILDER_H
#define LSCOREDB_SRC_PAGE_BUILDER_H

// Builds a page (entry_page.h) of entries from different sources. One thread.

#include <cstdint>
#include <string>
#include <vector>

#include "entry_page.h"

namespace lscore {

struct BuiltPage {
  std::string bytes;
  std::size_t slots = 0;
  std::size_t count = 0;
  std::size_t entered = 0;  // the offset of the entry that was added first

  bool Enter(EntryPage* page) const {
    return count > 1 && page->Enter(bytes.data(), bytes.size(), slots, count, entered);
  }
};

class PageBuilder {
 public:
  // `rising`: entries are added in ascending order of keys, otherwise in descending order.
  explicit PageBuilder(bool rising) : rising_(rising) {}

  // Returns false, with nothing changed, when there is no room for the entry.
  bool Add(KeyValue const& entry);
  BuiltPage Finish();

 private:
  static constexpr std::size_t kMostEntries = 64;
  static constexpr std::size_t kMostBytes = 16 * 1024;
  static constexpr std::size_t kUsualBytes = 4 * 1024;
  static constexpr std::size_t kLargestValue = 1024;

  bool rising_;
  BuiltPage page_;
  std::vector<std::uint16_t> offsets_;
};

}  // namespace lscore

#endif

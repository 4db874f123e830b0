#ifndef LSCOREDB_SRC_STORE_PAGES_H
#define LSCOREDB_SRC_STORE_PAGES_H

// Reads the pages of a data file by itself and looks whether they hold together. What reads and
// writes later looks only at what it follows (mapped_state.h, page_guard.h), and does not notice an
// entry that it was not led to; after a scan of these over a state, none is missing.
//
// Everything is read through the file's descriptor, never through the map: a file that is cut
// meanwhile reads short here, where a touch of the map would end the process. For the store's own
// source files. No state, any thread; memory is one bit for each page of the file and one page for
// each level of a tree.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "store_header.h"

namespace lscore {

// A part of a tree that cannot be read. `tree` is empty for what concerns the file as a whole. Keys
// from `low` on and below `high` are lost with it; empty: from the beginning, to the end.
struct PageFault {
  std::string_view tree;
  std::string_view low;
  std::string_view high;
  char const* what;
};

// Receives each fault. It may throw, which ends the scan.
using PageReport = std::function<void(PageFault const&)>;

// The beginning of the file, which says where its trees are: two records of the last two commits.
// An empty file has none and passes. Where others may be writing it just now, it is looked at again
// before it is called damaged. Throws LSCOREDB_NOT_A_DATABASE or LSCOREDB_DAMAGED.
void CheckFileHeader(int file, bool others_write);

enum class PageDepth {
  kRoots,      // the trees' names and first pages: a constant effort
  kFreePages,  // the list of pages that are not in use
  kAll,        // each page that is in use, and the list of those that are not
};

// Scans the state that the header describes.
// REQUIRES: a reader of that state is open, or no one writes, so that its pages stay.
void ScanPages(int file, pages::Header const& header, PageDepth depth, PageReport const& report);

}  // namespace lscore

#endif

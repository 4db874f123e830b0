#ifndef LSCOREDB_SRC_STORE_PAGES_H
#define LSCOREDB_SRC_STORE_PAGES_H

// Scans all pages of a data file and checks that they are consistent. Later reads and writes check
// only the pages that they follow (mapped_state.h, page_guard.h), and cannot notice an entry that
// no page leads to; after a scan of a state none is missing.
//
// Everything is read through the file's descriptor, never through the map: when the file is
// truncated meanwhile, reads are short here, but access to the map would end the process. For this
// folder's own sources. No state, any thread; memory is one bit for each page of the file and one
// page for each level of a tree.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "store_header.h"

namespace lscore {

// A part of a tree that cannot be read. `tree` is empty for a fault of the file as a whole. Keys
// from `low` on and below `high` are lost with it; empty: from the beginning, to the end.
struct PageFault {
  std::string_view tree;
  std::string_view low;
  std::string_view high;
  char const* what;
};

// Receives each fault. It may throw, which ends the scan.
using PageReport = std::function<void(PageFault const&)>;

// Checks the two headers at the beginning of the file, which say where its trees are. An empty file
// has none and passes. If other processes may be writing them, they are read again before they
// count as damaged. Throws LSCOREDB_NOT_A_DATABASE or LSCOREDB_DAMAGED.
void CheckFileHeader(int file, bool others_write);

enum class PageDepth {
  kRoots,      // the trees' names and root pages: constant time
  kFreePages,  // the list of pages that are not in use
  kAll,        // each page that is in use, and the list of those that are not
};

// Scans the state that the header describes.
// REQUIRES: a reader of that state is open, or nobody writes, so that its pages stay.
void ScanPages(int file, pages::Header const& header, PageDepth depth, PageReport const& report);

}  // namespace lscore

#endif

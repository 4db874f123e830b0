#include "scans.h"

namespace lscore {

// Registered before it starts: Start may fail half-way, and Close then undoes both.
Status Scans::Open(Iterator& iterator, ScanSource const& source, IndexDefinition const& index,
                   ScanRange const& range) {
  Status const status = iterator.SetRange(index, range);
  if (status != LORV_STATUS_OK) return status;
  open_.push_back({&iterator, ++opened_});
  try {
    iterator.Start(source, index);
  } catch (...) {
    Close(iterator);
    throw;
  }
  return LORV_STATUS_OK;
}

void Scans::Close(Iterator& iterator) {
  std::erase_if(open_, [&](OpenScan const& scan) { return scan.iterator == &iterator; });
  iterator.Finish(LSCOREDB_NO_TRANSACTION);
}

void Scans::EndAll() noexcept {
  for (OpenScan const& scan : open_) scan.iterator->Finish(LSCOREDB_NO_TRANSACTION);
  open_.clear();
}

void Scans::EndSince(std::uint64_t opened) {
  std::erase_if(open_, [&](OpenScan const& scan) {
    bool const later = scan.opening > opened;
    later ? scan.iterator->Finish(LSCOREDB_ROLLED_BACK) : scan.iterator->SkipUntouched();
    return later;
  });
}

}  // namespace lscore

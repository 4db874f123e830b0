#ifndef LSCOREDB_SRC_CHECKSUMMED_RECORD_H
#define LSCOREDB_SRC_CHECKSUMMED_RECORD_H

// Records of the trees "index", "definitions" and "meta" end with a checksum of their key and their
// bytes, so that a record that was changed, or stored under another key, is detected.
// Rows have their own, see row.h.

#include <string>
#include <string_view>

#include "store.h"

namespace lscore {

inline constexpr std::size_t kChecksumSize = 4;

void AppendChecksum(std::string_view key, std::string& record);
bool HasValidChecksum(std::string_view key, std::string_view stored_record);
// The record without its checksum. Throws LSCOREDB_DAMAGED when that does not fit.
std::string_view StripChecksum(std::string_view key, std::string_view stored_record);

// View::Get and Batch::Put for such records.
bool GetChecked(View const& view, Tree tree, std::string_view key, std::string_view* record);
void PutChecked(Batch& batch, Tree tree, std::string_view key, std::string record);

}  // namespace lscore

#endif

#include "output/listing.h"

#include "output/list_writer.h"
#include "output/text.h"

namespace tool {

void Listing::Print(Output const& output) const {
  ListWriter writer(output, heading_);
  for (auto const& row : rows_) writer.Add(row);
  writer.Finish();
}

std::string Listing::Json(std::string const& indent) const {
  std::string text = "[";
  for (std::size_t r = 0; r < rows_.size(); ++r) {
    text += (r == 0 ? "\n  " : ",\n  ") + indent + "{";
    for (std::size_t i = 0; i < heading_.size(); ++i) {
      text += (i == 0 ? "" : ", ") + JsonString(heading_[i]) + ": " + rows_[r][i].Json();
    }
    text += "}";
  }
  return text + (rows_.empty() ? "]" : "\n" + indent + "]");
}

std::string Properties::Json() const {
  std::string text = "{";
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    text += (i == 0 ? "\n  " : ",\n  ") + JsonString(entries_[i].first) + ": " +
            entries_[i].second.Json();
  }
  return text + (entries_.empty() ? "}" : "\n}");
}

void Properties::Print(Output const& output) const {
  if (output.format() == Format::kJson) return output.Print(Json() + "\n");
  Output flat = output;  // two columns are records already
  flat.fold = false;
  if (output.format() == Format::kRecords) flat.chosen = Format::kTable;
  Listing listing({"property", "value"});
  for (auto const& [name, value] : entries_) listing.Add({Cell::Text(name), value});
  listing.Print(flat);
}

}  // namespace tool

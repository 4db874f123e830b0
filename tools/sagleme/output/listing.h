#ifndef SAGLEME_TOOL_OUTPUT_LISTING_H
#define SAGLEME_TOOL_OUTPUT_LISTING_H

// A list with a heading that is held until it is printed.

#include <string>
#include <utility>
#include <vector>

#include "output/cell.h"
#include "output/format.h"

namespace tool {

class Listing {
 public:
  explicit Listing(std::vector<std::string> heading) : heading_(std::move(heading)) {}

  // REQUIRES: as many cells as the heading has.
  void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  std::size_t size() const { return rows_.size(); }

  void Print(Output const& output) const;
  // An array of objects, its lines indented by `indent`.
  std::string Json(std::string const& indent = "") const;

 private:
  std::vector<std::string> heading_;
  std::vector<std::vector<Cell>> rows_;
};

// One thing with named properties: two columns, or one JSON object.
class Properties {
 public:
  void Add(std::string name, Cell value) {
    entries_.emplace_back(std::move(name), std::move(value));
  }
  void Print(Output const& output) const;
  std::string Json() const;

 private:
  std::vector<std::pair<std::string, Cell>> entries_;
};

}  // namespace tool

#endif

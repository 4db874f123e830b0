#ifndef SAGLEME_TOOL_OUTPUT_LISTING_H
#define SAGLEME_TOOL_OUTPUT_LISTING_H

// A list with a heading, in the form that the user wants.

#include <cstdint>
#include <string>
#include <vector>

#include "output/format.h"

namespace tool {

struct Cell {
  enum class Kind { kNull, kText, kNumber, kBool, kJson };

  Kind kind = Kind::kNull;
  std::string text;  // UTF-8; of a number or truth value its JSON form, of kJson any JSON
  bool lone_surrogates = false;  // in a text: it goes into JSON as its units

  static Cell Text(std::string text) { return {Kind::kText, std::move(text), false}; }
  static Cell Number(std::uint64_t value) { return {Kind::kNumber, std::to_string(value), false}; }
  static Cell Bool(bool value) { return {Kind::kBool, value ? "true" : "false", false}; }

  std::string Json() const;
  // Nothing for null.
  std::string Plain() const { return text; }
};

class Listing {
 public:
  explicit Listing(std::vector<std::string> heading) : heading_(std::move(heading)) {}

  // REQUIRES: as many cells as the heading has.
  void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  std::size_t size() const { return rows_.size(); }

  void Print(Output const& output) const;
  // An array of objects, in lines of `indent` blanks.
  std::string Json(std::string const& indent = "") const;

 private:
  std::string Table(bool color) const;
  std::string Csv() const;
  std::string Markdown() const;
  std::vector<std::size_t> Widths() const;

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

#ifndef SAGLEME_TOOL_OUTPUT_CELL_H
#define SAGLEME_TOOL_OUTPUT_CELL_H

// One value of a list.

#include <cstdint>
#include <string>

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

}  // namespace tool

#endif

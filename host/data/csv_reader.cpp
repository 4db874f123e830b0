#include "data/csv_reader.h"

#include <algorithm>

namespace sagleme {
namespace {

constexpr std::string_view kSeparators = ",;\t|";

}  // namespace

CsvReader::CsvReader(TextInput& input, char separator) : input_(input) {
  PassOver();
  separator_ = separator != 0 ? separator : FindSeparator();
}

// Quoted parts do not count.
char CsvReader::FindSeparator() {
  std::size_t counts[kSeparators.size()] = {};
  bool quoted = false;
  for (std::size_t at = 0; Has(at) && (quoted || !AtLineEnd(at)); ++at) {
    if (text_[at] == '"') quoted = !quoted;
    auto const which = kSeparators.find(text_[at]);
    if (!quoted && which != std::string_view::npos) ++counts[which];
  }
  return kSeparators[static_cast<std::size_t>(std::max_element(counts, std::end(counts)) - counts)];
}

bool CsvReader::Has(std::size_t at) {
  if (at < text_.size()) [[likely]]
    return true;
  while (input_.More()) {
    text_ = input_.rest();
    if (at < text_.size()) return true;
  }
  text_ = input_.rest();
  return false;
}

FileLocation CsvReader::LocationOf(std::size_t offset) const {
  std::string_view const before = text_.substr(0, offset);
  FileLocation location{location_.line, location_.column + before.size()};
  for (auto at = before.find('\n'); at != before.npos; at = before.find('\n', at + 1)) {
    location = {location.line + 1, before.size() - at};
  }
  return location;
}

std::size_t CsvReader::EndOfLine(std::size_t at) {
  if (Is(at, '\r')) ++at;
  if (Is(at, '\n')) ++at;
  return at;
}

// Moves to the next row, past the last one and empty lines.
void CsvReader::PassOver() {
  auto const consume = [this](std::size_t size) {
    location_ = LocationOf(size);
    input_.Consume(size);
    text_ = input_.rest();
  };
  consume(size_);
  size_ = 0;
  std::size_t empty = 0;
  while (Is(empty, '\n') || Is(empty, '\r')) ++empty;
  consume(empty);
  location_.column = 1;
}

void CsvReader::SkipLine(std::size_t at) {
  while (Has(at) && text_[at] != '\n') ++at;
  size_ = EndOfLine(at);
}

std::size_t CsvReader::ReadQuoted(std::size_t at) {
  std::size_t const begin = at++;
  bool escaped = false;
  for (;; ++at) {
    if (!Has(at)) {
      size_ = at;
      throw BadRow(LocationOf(begin), "a quotation mark is never closed");
    }
    if (text_[at] != '"') continue;
    if (!Is(at + 1, '"')) break;
    escaped = true;
    ++at;
  }
  pieces_.push_back({begin, at, true, escaped});
  ++at;
  if (!Is(at, separator_) && !AtLineEnd(at)) {
    size_ = at;
    throw BadRow(LocationOf(at),
                 "a separator or the end of the line must follow a closing quotation mark");
  }
  return at;
}

std::size_t CsvReader::ReadBare(std::size_t at) {
  std::size_t const begin = at;
  auto const ends = [this](char byte) {
    return byte == separator_ || byte == '\n' || byte == '\r' || byte == '"';
  };
  do {
    while (at < text_.size() && !ends(text_[at])) ++at;
  } while (at == text_.size() && Has(at));
  if (Is(at, '"')) {
    size_ = at;
    throw BadRow(LocationOf(at), "a value with a quotation mark in it must be quoted");
  }
  pieces_.push_back({begin, at, false, false});
  return at;
}

std::size_t CsvReader::ReadField(std::size_t at) {
  return Is(at, '"') ? ReadQuoted(at) : ReadBare(at);
}

// Only offsets are kept until the row is complete: reading on moves the text.
void CsvReader::ReadRow() {
  pieces_.clear();
  std::size_t at = ReadField(0);
  while (Is(at, separator_)) at = ReadField(at + 1);
  size_ = EndOfLine(at);
  fields_.clear();
  std::size_t unescaped = 0;
  for (Piece const& piece : pieces_) {
    std::size_t const begin = piece.begin + (piece.quoted ? 1 : 0);
    std::string_view text = text_.substr(begin, piece.end - begin);
    if (piece.escaped) {
      if (unescaped == unescaped_.size()) unescaped_.emplace_back();
      std::string& plain = unescaped_[unescaped++];
      plain.clear();
      for (std::size_t i = 0; i < text.size(); ++i) {
        plain.push_back(text[i]);
        if (text[i] == '"') ++i;
      }
      text = plain;
    }
    fields_.push_back({text, piece.quoted, piece.begin});
  }
}

bool CsvReader::Next() {
  PassOver();
  if (!Has(0)) return false;
  try {
    ReadRow();
  } catch (BadRow const&) {
    SkipLine(size_);
    throw;
  }
  return true;
}

}  // namespace sagleme

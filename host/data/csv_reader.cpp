#include "data/csv_reader.h"

namespace sagleme {
namespace {

constexpr int kEnd = std::char_traits<char>::eof();

}  // namespace

// A byte order mark in front is passed over.
CsvReader::CsvReader(std::istream& input) : input_(input) {
  if (Peek() != 0xEF) return;
  for (int i = 0; i < 3; ++i) Take();
  place_.column = 1;
}

int CsvReader::Take() {
  int const byte = input_.get();
  if (byte == kEnd) return byte;
  ++bytes_;
  raw_ += static_cast<char>(byte);
  if (byte == '\n') {
    ++place_.line;
    place_.column = 1;
  } else {
    ++place_.column;
  }
  return byte;
}

bool CsvReader::AtLineEnd() { return Peek() == '\n' || Peek() == '\r' || Peek() == kEnd; }

void CsvReader::EndLine() {
  if (Peek() == '\r') Take();
  if (Peek() == '\n') Take();
}

void CsvReader::SkipLine() {
  while (Peek() != '\n' && Peek() != kEnd) Take();
  EndLine();
}

void CsvReader::ReadQuoted(CsvField& field) {
  field.quoted = true;
  Take();
  while (true) {
    int const byte = Take();
    if (byte == kEnd) throw BadRow(field.place, "a quotation mark is never closed");
    if (byte == '"') {
      if (Peek() != '"') break;
      Take();
    }
    field.text += static_cast<char>(byte);
  }
  if (Peek() != ',' && !AtLineEnd()) {
    throw BadRow(place_, "a comma or the end of the line must follow a closing quotation mark");
  }
}

CsvField CsvReader::ReadField() {
  CsvField field;
  field.place = place_;
  if (Peek() == '"') {
    ReadQuoted(field);
    return field;
  }
  while (Peek() != ',' && !AtLineEnd()) {
    if (Peek() == '"') throw BadRow(place_, "a value with a quotation mark in it must be quoted");
    field.text += static_cast<char>(Take());
  }
  return field;
}

bool CsvReader::ReadRow(std::vector<CsvField>& fields) {
  while (Peek() == '\n' || Peek() == '\r') Take();
  raw_.clear();
  if (Peek() == kEnd) return false;
  fields.push_back(ReadField());
  while (Peek() == ',') {
    Take();
    fields.push_back(ReadField());
  }
  EndLine();
  return true;
}

bool CsvReader::Next(std::vector<CsvField>& fields) {
  fields.clear();
  try {
    return ReadRow(fields);
  } catch (BadRow const&) {
    SkipLine();
    throw;
  }
}

}  // namespace sagleme

#include "control_file.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "text.h"

namespace packages {
namespace {

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool IsFieldName(std::string_view name) {
  return !name.empty() && name.front() != '-' && name.front() != '#' &&
         std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 127; });
}

}  // namespace

Stanza::Field const* Stanza::Find(std::string_view name) const {
  auto const found = std::find_if(fields.begin(), fields.end(),
                                  [&](Field const& field) { return SameName(field.name, name); });
  return found == fields.end() ? nullptr : &*found;
}

std::string_view Stanza::Value(std::string_view name) const {
  Field const* const field = Find(name);
  return field == nullptr ? std::string_view() : std::string_view(field->value);
}

ControlFile::ControlFile(std::string path) : path_(std::move(path)), file_(path_) {
  if (!file_) throw UnreadableFile("cannot open " + path_ + ": " + std::strerror(errno));
  if (file_.peek() == std::ifstream::traits_type::eof() && file_.bad()) {
    throw UnreadableFile("cannot read " + path_);
  }
}

void ControlFile::Rewind() {
  file_.clear();
  file_.seekg(0);
  if (!file_) throw UnreadableFile("cannot read " + path_ + " a second time");
  line_number_ = 0;
}

bool ControlFile::NextLine(std::string& line) {
  if (std::getline(file_, line)) {
    ++line_number_;
    return true;
  }
  if (file_.bad()) throw UnreadableFile("cannot read " + path_);
  return false;
}

void ControlFile::AddLine(Stanza& stanza, std::string_view line) const {
  auto const complain = [&](std::string text) {
    if (!stanza.problem) stanza.problem = Problem{line_number_, std::move(text)};
  };
  if (line.front() == ' ' || line.front() == '\t') {
    if (stanza.fields.empty()) return complain("a continued line without a field before it");
    stanza.fields.back().value.append("\n").append(line.substr(1));
    return;
  }
  std::size_t const colon = line.find(':');
  std::string_view const name = line.substr(0, std::min(colon, line.size()));
  if (colon == std::string_view::npos || !IsFieldName(name)) {
    return complain("neither a field nor the continuation of one");
  }
  if (stanza.Find(name) != nullptr) {
    return complain("the field " + std::string(name) + " stands twice");
  }
  stanza.fields.push_back(
      {std::string(name), std::string(Trim(line.substr(colon + 1))), line_number_});
}

bool ControlFile::Next(Stanza& stanza) {
  stanza = Stanza();
  std::string line;
  while (NextLine(line)) {
    if (Trim(line).empty()) {
      if (stanza.line != 0) return true;
      continue;
    }
    if (stanza.line == 0) stanza.line = line_number_;
    AddLine(stanza, line);
  }
  return stanza.line != 0;
}

}  // namespace packages

#include "output/listing.h"

#include <algorithm>
#include <sagleme/host/text.hpp>

#include "output/text.h"

namespace tool {
namespace {

constexpr char const* kBold = "\x1b[1m";
constexpr char const* kFaint = "\x1b[2m";
constexpr char const* kPlain = "\x1b[0m";
constexpr std::size_t kGap = 2;

std::string TerminalText(Cell const& cell) {
  return cell.kind == Cell::Kind::kNull ? "-" : Visible(cell.text);
}

std::string Padded(std::string const& text, std::size_t width, bool right) {
  std::string const blanks(width - std::min(width, DisplayWidth(text)), ' ');
  return right ? blanks + text : text + blanks;
}

std::string Trimmed(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

std::string UnitsJson(std::string const& text) {
  std::string units;
  for (char16_t const unit : sagleme::ToUtf16(text)) {
    units += (units.empty() ? "" : ", ") + std::to_string(static_cast<unsigned>(unit));
  }
  return "{\"utf16\": [" + units + "]}";
}

std::string MarkdownText(std::string const& text) {
  std::string escaped;
  for (char const each : Visible(text)) {
    if (each == '|' || each == '\\' || each == '`' || each == '*' || each == '_' || each == '<') {
      escaped += '\\';
    }
    escaped += each;
  }
  return escaped;
}

}  // namespace

std::string Cell::Json() const {
  switch (kind) {
    case Kind::kNull:
      return "null";
    case Kind::kText:
      return lone_surrogates ? UnitsJson(text) : JsonString(text);
    case Kind::kNumber:
    case Kind::kBool:
    case Kind::kJson:
      break;
  }
  return text;
}

void Listing::Print(Output const& output) const {
  switch (output.format()) {
    case Format::kTable:
      return output.Print(Table(output.color));
    case Format::kJson:
      return output.Print(Json() + "\n");
    case Format::kCsv:
      return output.Print(Csv());
    case Format::kMarkdown:
      return output.Print(Markdown());
  }
}

std::vector<std::size_t> Listing::Widths() const {
  std::vector<std::size_t> widths;
  for (std::string const& name : heading_) widths.push_back(DisplayWidth(name));
  for (auto const& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], DisplayWidth(TerminalText(row[i])));
    }
  }
  return widths;
}

std::string Listing::Table(bool color) const {
  std::vector<std::size_t> const widths = Widths();
  std::string const gap(kGap, ' ');
  std::string text;
  std::string line;
  for (std::size_t i = 0; i < heading_.size(); ++i)
    line += Padded(heading_[i], widths[i], false) + gap;
  text += (color ? kBold : "") + Trimmed(line);
  if (color) text.insert(text.size() - 1, kPlain);
  for (auto const& row : rows_) {
    line.clear();
    for (std::size_t i = 0; i < row.size(); ++i) {
      bool const faint = color && row[i].kind == Cell::Kind::kNull;
      std::string const cell =
          Padded(TerminalText(row[i]), widths[i], row[i].kind == Cell::Kind::kNumber);
      line += (faint ? kFaint + cell + kPlain : cell) + gap;
    }
    text += Trimmed(line);
  }
  return text;
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

std::string Listing::Csv() const {
  std::string text;
  for (std::size_t i = 0; i < heading_.size(); ++i)
    text += (i == 0 ? "" : ",") + CsvText(heading_[i]);
  text += "\n";
  for (auto const& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i != 0) text += ',';
      text += CsvText(row[i].Plain());
    }
    text += "\n";
  }
  return text;
}

std::string Listing::Markdown() const {
  std::string text = "|";
  for (std::string const& name : heading_) text += " " + MarkdownText(name) + " |";
  text += "\n|";
  for (std::size_t i = 0; i < heading_.size(); ++i) {
    bool const number =
        !rows_.empty() && std::all_of(rows_.begin(), rows_.end(), [i](auto const& row) {
          return row[i].kind == Cell::Kind::kNumber;
        });
    text += number ? " ---: |" : " --- |";
  }
  text += "\n";
  for (auto const& row : rows_) {
    text += "|";
    for (Cell const& cell : row) text.append(" ").append(MarkdownText(cell.Plain())).append(" |");
    text += "\n";
  }
  return text;
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
  Listing listing({"property", "value"});
  for (auto const& [name, value] : entries_) listing.Add({Cell::Text(name), value});
  listing.Print(output);
}

}  // namespace tool

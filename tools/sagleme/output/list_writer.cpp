#include "output/list_writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <sagleme/host/text.hpp>

#include "output/text.h"

namespace tool {
namespace {

constexpr char const* kBold = "\x1b[1m";
constexpr char const* kFaint = "\x1b[2m";
constexpr char const* kPlain = "\x1b[0m";
constexpr std::size_t kGap = 2;
constexpr std::size_t kHeldRows = 1000;  // they set the widths of a table

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

class CsvForm : public ListForm {
 public:
  CsvForm(Output const& output, std::vector<std::string> const& heading) : output_(output) {
    std::string line;
    for (std::string const& name : heading) line += (line.empty() ? "" : ",") + CsvText(name);
    output_.Print(line + "\n");
  }
  void Add(Row row) override {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i != 0) line += ',';
      line += CsvText(row[i].Plain());
    }
    output_.Print(line + "\n");
  }
  void Finish() override {}

 private:
  Output const& output_;
};

class JsonForm : public ListForm {
 public:
  JsonForm(Output const& output, std::vector<std::string> const& heading) : output_(output) {
    for (std::string const& name : heading) names_.push_back(JsonString(name) + ": ");
  }
  void Add(Row row) override {
    std::string line = any_ ? ",\n  {" : "[\n  {";
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += (i == 0 ? "" : ", ") + names_[i] + row[i].Json();
    }
    any_ = true;
    output_.Print(line + "}");
  }
  void Finish() override { output_.Print(any_ ? "\n]\n" : "[]\n"); }

 private:
  Output const& output_;
  std::vector<std::string> names_;
  bool any_ = false;
};

class RecordForm : public ListForm {
 public:
  RecordForm(Output const& output, std::vector<std::string> const& heading) : output_(output) {
    std::size_t width = 0;
    for (std::string const& name : heading) width = std::max(width, DisplayWidth(Visible(name)));
    for (std::string const& name : heading) {
      names_.push_back(Padded(Visible(name), width, false) + std::string(kGap, ' '));
    }
  }
  void Add(Row row) override {
    std::string const title = fmt::format("[{}]", ++count_);
    std::string text = output_.color ? kBold + title + kPlain : title;
    text += "\n";
    for (std::size_t i = 0; i < row.size(); ++i) text += Trimmed(names_[i] + TerminalText(row[i]));
    output_.Print(text);
  }
  void Finish() override {}

 private:
  Output const& output_;
  std::vector<std::string> names_;
  std::size_t count_ = 0;
};

// Holds the first rows and decides by them.
class HoldingForm : public ListForm {
 public:
  void Add(Row row) override {
    if (started_) return Continue(row);
    held_.push_back(std::move(row));
    if (held_.size() == kHeldRows) Release();
  }
  void Finish() override {
    if (!started_) Release();
  }

 protected:
  virtual void Start(std::vector<Row> const& held) = 0;
  virtual void Continue(Row const& row) = 0;

 private:
  void Release() {
    started_ = true;
    Start(held_);
    for (Row const& row : held_) Continue(row);
    held_.clear();
  }

  std::vector<Row> held_;
  bool started_ = false;
};

class TableForm : public HoldingForm {
 public:
  TableForm(Output const& output, std::vector<std::string> heading)
      : output_(output), heading_(std::move(heading)), table_(heading_) {}

 private:
  void Start(std::vector<Row> const& held) override {
    for (Row const& row : held) table_.Widen(row);
    bool const too_wide = output_.width != 0 && table_.width() > output_.width;
    bool const fold = too_wide && output_.fold && !output_.chosen && !held.empty();
    if (fold) {
      records_ = std::make_unique<RecordForm>(output_, heading_);
    } else {
      output_.Print(table_.Heading(output_.color));
    }
  }
  void Continue(Row const& row) override {
    if (records_ != nullptr) return records_->Add(row);
    table_.Widen(row);
    output_.Print(table_.Line(row, output_.color));
  }

  Output const& output_;
  std::vector<std::string> heading_;
  TableLayout table_;
  std::unique_ptr<RecordForm> records_;
};

class MarkdownForm : public HoldingForm {
 public:
  MarkdownForm(Output const& output, std::vector<std::string> heading)
      : output_(output), heading_(std::move(heading)) {}

 private:
  void Start(std::vector<Row> const& held) override {
    std::string text = "|";
    for (std::string const& name : heading_) text += " " + MarkdownText(name) + " |";
    text += "\n|";
    for (std::size_t i = 0; i < heading_.size(); ++i) {
      bool const number = !held.empty() && std::all_of(held.begin(), held.end(), [i](auto& row) {
        return row[i].kind == Cell::Kind::kNumber;
      });
      text += number ? " ---: |" : " --- |";
    }
    output_.Print(text + "\n");
  }
  void Continue(Row const& row) override {
    std::string line = "|";
    for (Cell const& cell : row) line.append(" ").append(MarkdownText(cell.Plain())).append(" |");
    output_.Print(line + "\n");
  }

  Output const& output_;
  std::vector<std::string> heading_;
};

std::unique_ptr<ListForm> MakeForm(Output const& output, std::vector<std::string> heading) {
  switch (output.format()) {
    case Format::kJson:
      return std::make_unique<JsonForm>(output, heading);
    case Format::kCsv:
      return std::make_unique<CsvForm>(output, heading);
    case Format::kMarkdown:
      return std::make_unique<MarkdownForm>(output, std::move(heading));
    case Format::kRecords:
      return std::make_unique<RecordForm>(output, heading);
    case Format::kTable:
      break;
  }
  return std::make_unique<TableForm>(output, std::move(heading));
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

TableLayout::TableLayout(std::vector<std::string> const& heading) : heading_(heading) {
  for (std::string const& name : heading) widths_.push_back(DisplayWidth(Visible(name)));
}

void TableLayout::Widen(Row const& row) {
  for (std::size_t i = 0; i < row.size(); ++i) {
    widths_[i] = std::max(widths_[i], DisplayWidth(TerminalText(row[i])));
  }
}

std::size_t TableLayout::width() const {
  std::size_t sum = 0;
  for (std::size_t const width : widths_) sum += width + kGap;
  return sum - std::min(sum, kGap);
}

std::string TableLayout::Heading(bool color) const {
  std::string line;
  for (std::size_t i = 0; i < heading_.size(); ++i) {
    line += Padded(Visible(heading_[i]), widths_[i], false) + std::string(kGap, ' ');
  }
  line = Trimmed(line);
  if (!color) return line;
  line.insert(line.size() - 1, kPlain);
  return kBold + line;
}

std::string TableLayout::Line(Row const& row, bool color) const {
  std::string line;
  for (std::size_t i = 0; i < row.size(); ++i) {
    bool const faint = color && row[i].kind == Cell::Kind::kNull;
    std::string const cell =
        Padded(TerminalText(row[i]), widths_[i], row[i].kind == Cell::Kind::kNumber);
    line += (faint ? kFaint + cell + kPlain : cell) + std::string(kGap, ' ');
  }
  return Trimmed(line);
}

ListWriter::ListWriter(Output const& output, std::vector<std::string> heading)
    : form_(MakeForm(output, std::move(heading))) {}

}  // namespace tool

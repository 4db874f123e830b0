#ifndef SAGLEME_TOOL_OUTPUT_LIST_WRITER_H
#define SAGLEME_TOOL_OUTPUT_LIST_WRITER_H

// A list that is written while it is made, in the form that the user wants.
//
// CSV and JSON hold nothing back. Tables and Markdown hold the first rows, which set the widths and
// the alignment; later rows that are wider widen their column from there on. A table that is wider
// than the terminal becomes records, one line a value, unless the output says not to fold.

#include <memory>
#include <string>
#include <vector>

#include "output/cell.h"
#include "output/format.h"

namespace tool {

using Row = std::vector<Cell>;

// One form of a list. Rows have as many cells as the heading.
class ListForm {
 public:
  virtual ~ListForm() = default;
  virtual void Add(Row row) = 0;
  virtual void Finish() = 0;
};

class ListWriter {
 public:
  ListWriter(Output const& output, std::vector<std::string> heading);

  // REQUIRES: as many cells as the heading has.
  void Add(Row row) { form_->Add(std::move(row)); }
  // Writes the rows still held. The list is incomplete before.
  void Finish() { form_->Finish(); }

 private:
  std::unique_ptr<ListForm> form_;
};

// A table of rows that are all there: its widths, and its lines.
class TableLayout {
 public:
  explicit TableLayout(std::vector<std::string> const& heading);

  void Widen(Row const& row);
  std::size_t width() const;
  std::string Heading(bool color) const;
  std::string Line(Row const& row, bool color) const;

 private:
  std::vector<std::string> const& heading_;
  std::vector<std::size_t> widths_;
};

}  // namespace tool

#endif

#ifndef SAGLEME_TOOL_OUTPUT_FORMAT_H
#define SAGLEME_TOOL_OUTPUT_FORMAT_H

// Where commands write, and how: the form of lists, colours, terminals.

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include "output/writer.h"

namespace tool {

enum class Format { kTable, kRecords, kJson, kCsv, kMarkdown };

struct Output {
  std::shared_ptr<Writer> out;
  std::optional<Format> chosen;  // by --format
  bool out_is_terminal = false;
  bool err_is_terminal = false;
  bool color = false;     // a terminal, and NO_COLOR is not set
  bool fold = true;       // tables wider than the terminal become records
  std::size_t width = 0;  // of the terminal; 0: not known, so nothing is too wide

  // A table on a terminal, comma-separated values elsewhere, unless chosen.
  Format format() const { return chosen.value_or(out_is_terminal ? Format::kTable : Format::kCsv); }

  // Throw as a Writer does; the first also when the user has interrupted the command.
  void Print(std::string_view text) const;
  void Flush() const { out->Flush(); }
  // A message on standard error.
  void Note(std::string_view text) const;
};

// For the standard streams as they are.
Output StandardOutput();

struct TerminalSize {
  std::size_t rows = 0;
  std::size_t columns = 0;
};
// Of the standard output; zeros when that is no terminal or does not know.
TerminalSize SizeOfTerminal();

}  // namespace tool

#endif

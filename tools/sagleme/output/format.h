#ifndef SAGLEME_TOOL_OUTPUT_FORMAT_H
#define SAGLEME_TOOL_OUTPUT_FORMAT_H

// Where commands write, and how: the form of lists, colours, terminals.

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

enum class Format { kTable, kJson, kCsv, kMarkdown };

struct Output {
  std::FILE* out = stdout;
  std::FILE* err = stderr;
  std::optional<Format> chosen;  // by --format
  bool out_is_terminal = false;
  bool err_is_terminal = false;
  bool color = false;  // a terminal, and NO_COLOR is not set

  // A table on a terminal, values separated by commas elsewhere, unless chosen.
  Format format() const { return chosen.value_or(out_is_terminal ? Format::kTable : Format::kCsv); }

  void Print(std::string_view text) const { std::fwrite(text.data(), 1, text.size(), out); }
  void Note(std::string_view text) const { std::fwrite(text.data(), 1, text.size(), err); }
};

// For the standard streams as they are.
Output StandardOutput();

}  // namespace tool

#endif

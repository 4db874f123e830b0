#ifndef SAGLEME_TOOL_COMMANDS_SELECTION_H
#define SAGLEME_TOOL_COMMANDS_SELECTION_H

// The options by which commands choose objects of a table.

#include <CLI/CLI.hpp>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "query/search.h"

namespace tool {

class Selection {
 public:
  // TABLE, --only and --where.
  void Declare(CLI::App& app);
  // The same, read. Failure for names and values that do not fit.
  SearchRequest Request(sagleme::Transaction& transaction) const;
  bool whole_table() const { return where_.empty(); }

 private:
  std::string table_;
  bool only_ = false;
  std::vector<std::string> where_;
};

// What --where can say, for the help of commands.
extern char const* const kConditionHelp;

}  // namespace tool

#endif

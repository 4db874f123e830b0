#ifndef SAGLEME_TOOL_CLI_COMMAND_H
#define SAGLEME_TOOL_CLI_COMMAND_H

// One command: its words for help, manual and completion, its options, and what it does.
//
// The same object serves the command line and the prompt; at the prompt the database is the
// session's and is not named.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/failure.h"
#include "cli/session.h"
#include "output/format.h"

namespace tool {

struct Example {
  std::string line;  // behind "sagleme "
  std::string meaning;

  // At the prompt, where `program` is empty, without the database, which is the second word.
  std::string For(std::string const& program) const;
};

class Command {
 public:
  virtual ~Command() = default;

  virtual std::string name() const = 0;
  // One imperative sentence without its full stop.
  virtual std::string summary() const = 0;
  // More text for help and manual, one line per paragraph.
  virtual std::string details() const { return ""; }
  virtual std::vector<Example> examples() const = 0;
  // The first argument, which is the session's directory, and what it is.
  virtual std::pair<std::string, std::string> place() const {
    return {"DB", "The database's directory, or its URL on a server"};
  }
  // Declares options and arguments, that one left out.
  virtual void Declare(CLI::App& app) = 0;
  // Whether it can be used at the prompt.
  virtual bool at_prompt() const { return true; }
  // Whether its list obeys --format.
  virtual bool lists() const { return false; }
  // Whether it serves programs rather than people.
  virtual bool hidden() const { return false; }
  virtual Exit Run(Session& session, Output& output) = 0;
};

// All commands in the order of the help. Each call creates new ones.
std::vector<std::unique_ptr<Command>> MakeCommands();

// Adds one to a parser: its options, and --format where it lists. The database comes first and goes
// to `directory`; at the prompt, where it is not named, that is null.
CLI::App* Attach(CLI::App& parser, Command& command, Output& output, std::string* directory);

// The form of lists that --format names. Throws Failure with kUsage for an unknown one.
Format FormatNamed(std::string const& wanted);

// Options whose values this program checks and reports: a whole number, and one of several words.
void AddCount(CLI::App& app, std::string const& name, std::uint64_t& count,
              std::string const& about, std::string const& unit = "COUNT");
void AddChoice(CLI::App& app, std::string const& name, std::string& choice,
               std::vector<std::string> const& choices, std::string const& about);

}  // namespace tool

#endif

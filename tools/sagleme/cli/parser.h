#ifndef SAGLEME_TOOL_CLI_PARSER_H
#define SAGLEME_TOOL_CLI_PARSER_H

// Parses a line of words into a command with its options. Errors are in the words of this program,
// never in those of the library that reads options.

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/command.h"

namespace tool {

class Parser {
 public:
  // `directory` receives the database's name; it is null at the prompt, which has one. Both must
  // outlive the parser.
  Parser(Output& output, std::string* directory);

  // An option of the program itself that prints a text instead of running a command.
  void AddPrinter(std::string const& flag, std::string const& about,
                  std::function<std::string()> text);
  // The command that the words name; null if they asked for help or another text, which was
  // printed. Throws Failure with kUsage. A parser serves one line.
  Command* Parse(std::vector<std::string> words);

  CLI::App const& app() const { return app_; }
  std::vector<std::unique_ptr<Command>> const& commands() const { return commands_; }

 private:
  struct Attached {
    Command* command;
    CLI::App* app;
  };

  Attached const* Named(std::string const& name) const;
  Attached const* Parsed() const;
  std::string Help() const;
  std::vector<std::string> Names() const;
  void RefuseFirst(std::string const& word) const;
  Failure Refusal(CLI::ParseError const& error) const;
  std::string WhatIsWrong(CLI::ParseError const& error, CLI::App const& app,
                          std::string& near) const;

  Output& output_;
  bool at_prompt_;
  std::string program_;  // in front of a command: "sagleme ", or nothing
  CLI::App app_;
  std::vector<std::unique_ptr<Command>> commands_;
  std::vector<Attached> attached_;
};

}  // namespace tool

#endif

#ifndef SAGLEME_TESTS_TOOL_RUN_TOOL_H
#define SAGLEME_TESTS_TOOL_RUN_TOOL_H

// The tool as a user runs it: its own process, its own streams, or a terminal.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace tool_test {

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

using Arguments = std::vector<std::string>;

Result RunTool(Arguments const& arguments, std::string const& input = "");
// On a pseudo-terminal of 80 columns: `out` has what a user sees, `err` nothing.
Result RunOnTerminal(Arguments const& arguments, std::string const& input = "",
                     std::vector<std::string> const& environment = {});
// Starts it and returns at once; its output goes nowhere.
pid_t StartTool(Arguments const& arguments);
int WaitFor(pid_t process);

// What a line for the system's shell prints.
std::string OutputOf(std::string const& command);
std::string ReadText(std::string const& path);

// A directory of its own for each test, and a database in it.
class ToolTest : public ::testing::Test {
 protected:
  ToolTest();
  ~ToolTest() override;

  std::string Path(std::string const& name) const { return directory_ + "/" + name; }
  std::string Write(std::string const& name, std::string const& text) const;
  // Runs `command` on the database and expects `status`.
  Result On(std::string const& command, Arguments const& rest = {}, int status = 0,
            std::string const& input = "") const;
  void Create() const { On("create"); }
  void Apply(std::string const& schema, Arguments const& rest = {}, int status = 0) const;

  std::string database() const { return Path("db"); }

 private:
  std::string directory_;
};

// A schema that many tests work on: Item and its descendants Book and Film, and Person.
extern char const* const kLibrary;

}  // namespace tool_test

#endif

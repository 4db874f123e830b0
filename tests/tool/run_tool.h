#ifndef SAGLEME_TESTS_TOOL_RUN_TOOL_H
#define SAGLEME_TESTS_TOOL_RUN_TOOL_H

// The tool as a user runs it: its own process, its own streams, or a terminal.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
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
// On a pseudo-terminal of 24 rows and 80 columns: `out` has what a user sees, `err` nothing.
Result RunOnTerminal(Arguments const& arguments, std::string const& input = "",
                     std::vector<std::string> const& environment = {});
// A pseudo-terminal with the tool on it, for a dialogue.
class Terminal {
 public:
  explicit Terminal(Arguments const& arguments, std::vector<std::string> const& environment = {});
  ~Terminal();
  Terminal(Terminal const&) = delete;
  Terminal& operator=(Terminal const&) = delete;

  void Type(std::string const& keys) const;
  // Reads until a text has come since the last call; a test failure when the tool ends first.
  std::string Until(std::string const& text);
  // Reads until the tool ends, and tells its status.
  Result Finish();

 private:
  int master_ = -1;
  pid_t child_ = -1;
  std::string seen_;
};

// Ends the test's process as skipped, for CTest to show, on a machine that has no terminals to
// give. Where CI is set it fails: there everything has to run.
[[noreturn]] void SkipWithoutTerminal(std::string const& why);
inline constexpr int kSkipped = 77;

// With its output in a file such as /dev/full; `out` stays empty.
Result RunToolInto(std::string const& file, Arguments const& arguments);
// Starts it and returns at once; its output goes nowhere.
pid_t StartTool(Arguments const& arguments);
int WaitFor(pid_t process);
// The tool beside the test, with its output kept. It is killed with the object.
class Background {
 public:
  explicit Background(Arguments const& arguments);
  ~Background();
  Background(Background const&) = delete;
  Background& operator=(Background const&) = delete;

  pid_t process() const { return process_; }
  // Waits until `there` returns true. False, and a failure of the test with what the tool wrote, if
  // the tool ends before.
  bool Until(std::function<bool()> const& there);
  void Kill() const;
  // Waits for the end, and tells the status.
  int Finish();

 private:
  bool HasEnded();
  std::string Output() const;

  int output_ = -1;
  pid_t process_ = -1;
  bool ended_ = false;
  int status_ = -1;
};

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

  // Its directory, or its URL where suites run on a server.
  std::string const& database() const { return database_; }

 private:
  std::string directory_;
  std::string database_;
};

// A schema that many tests work on: Item and its descendants Book and Film, and Person.
extern char const* const kLibrary;

}  // namespace tool_test

#endif

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "commands/commands.h"

extern char** environ;

namespace tool {
namespace {

// The package writes the classes, so that they follow its rules of names. Only a package that is
// not there is told from its other failures, which it reports itself. -P: a folder that happens to
// be named as the package, such as a database's, is not taken for it.
constexpr char kProgram[] =
    "import sys\n"
    "try:\n"
    "    from sagleme.__main__ import main\n"
    "except ModuleNotFoundError as error:\n"
    "    if error.name is None or error.name.partition('.')[0] != 'sagleme':\n"
    "        raise\n"
    "    sys.exit(77)\n"
    "try:\n"
    "    sys.exit(main(['stubs', sys.argv[1]]))\n"
    "except KeyboardInterrupt:\n"
    "    sys.exit(1)\n";
constexpr int kNoPackage = 77;
constexpr int kSignal = 128;  // and its number, of a program that one ended

class Stubs : public Command {
 public:
  std::string name() const override { return "stubs"; }
  std::string summary() const override { return "Write Python classes for the tables"; }
  std::string details() const override {
    return "The classes are models for the Python package sagleme. The package writes them, so it "
           "is needed, and python3.";
  }
  std::vector<Example> examples() const override {
    return {{"stubs shop > shop_models.py", "a class for each table"}};
  }
  void Declare(CLI::App&) override {}
  Exit Run(Session& session, Output& output) override;
};

// A program whose standard output is read here.
class Program {
 public:
  explicit Program(std::vector<std::string> words) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) Fail(errno);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int const code =
        posix_spawnp(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    out_ = ends[0];
    if (code == 0) return;
    close(out_);
    Fail(code);
  }
  ~Program() {
    if (out_ >= 0) Finish();
  }
  Program(Program const&) = delete;
  Program& operator=(Program const&) = delete;

  std::string Read() {
    std::string text;
    std::array<char, 4096> some{};
    for (;;) {
      ssize_t const got = read(out_, some.data(), some.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return text;
      text.append(some.data(), static_cast<std::size_t>(got));
    }
  }
  // Its exit status, or kSignal and the signal that ended it.
  int Finish() {
    close(out_);
    out_ = -1;
    int state = 0;
    while (waitpid(process_, &state, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : kSignal + WTERMSIG(state);
  }

 private:
  [[noreturn]] static void Fail(int error) {
    if (error == ENOENT) {
      throw Failure(Exit::kRefused, "there is no python3",
                    "Install Python 3.11 or later and its package sagleme.");
    }
    throw Failure(Exit::kRefused,
                  "python3 cannot be started: " + std::generic_category().message(error));
  }

  pid_t process_ = -1;
  int out_ = -1;
};

Exit Stubs::Run(Session& session, Output& output) {
  session.RequireNoTransaction(name());
  session.database_to_read();  // so that one that cannot be opened is reported as by every command
  Program python({"python3", "-P", "-c", kProgram, session.directory()});
  std::string const text = python.Read();
  int const status = python.Finish();
  if (status == kNoPackage) {
    throw Failure(Exit::kRefused, "python3 has no package sagleme",
                  "Install it; docs/python.md says how.");
  }
  if (status > kSignal) {
    throw Failure(Exit::kRefused,
                  "python3 was ended by signal " + std::to_string(status - kSignal));
  }
  if (status != 0) return Exit::kProblem;  // it has said why
  output.Print(text);
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeStubs() { return std::make_unique<Stubs>(); }

}  // namespace tool

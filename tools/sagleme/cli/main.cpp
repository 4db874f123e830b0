// The command line: `sagleme COMMAND DB ...`.

#include <clocale>

#include "cli/manual.h"
#include "cli/run.h"

namespace tool {
namespace {

constexpr char const* kAbout =
    "Looks into databases, defines and changes their schema, loads and dumps data, checks and "
    "tidies.\n"
    "\n"
    "Exit status: 0 done, 1 a problem was found, 2 usage, 3 cannot open, 4 refused.";

class Program {
 public:
  Program() : app_(kAbout, "sagleme"), output_(StandardOutput()), commands_(MakeCommands()) {
    app_.require_subcommand(1);
    app_.failure_message(CLI::FailureMessage::simple);
    for (auto const& command : commands_) {
      parsers_.push_back(Attach(app_, *command, output_, &directory_));
    }
    AddPrinter("--man-page", "Prints the manual page", [this] { return ManPage(app_, commands_); });
    AddPrinter("--bash-completion", "Prints the completion for bash",
               [this] { return BashCompletion(app_); });
  }

  int Run(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
      return Usage(error);
    }
    for (std::size_t i = 0; i < commands_.size(); ++i) {
      if (!parsers_[i]->parsed()) continue;
      Session session(directory_);
      return static_cast<int>(RunCommand(*commands_[i], session, output_));
    }
    return static_cast<int>(Exit::kUsage);
  }

 private:
  void AddPrinter(char const* flag, char const* about, std::function<std::string()> text) {
    app_.add_flag_callback(
        flag,
        [this, text] {
          output_.Print(text());
          throw CLI::Success();
        },
        about);
  }

  int Usage(CLI::ParseError const& error) {
    if (error.get_exit_code() == 0) return app_.exit(error);  // help
    TellFailure(output_, error.what(), "See: sagleme --help, or --help behind a command.");
    return static_cast<int>(Exit::kUsage);
  }

  CLI::App app_;
  Output output_;
  std::string directory_;
  std::vector<std::unique_ptr<Command>> commands_;
  std::vector<CLI::App*> parsers_;
};

}  // namespace
}  // namespace tool

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  return tool::Program().Run(argc, argv);
}

#include "cli/parser.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "base/near.h"
#include "cli/help.h"

namespace tool {
namespace {

constexpr char const* kAbout =
    "Inspects databases, changes their schemas, loads, dumps, checks and cleans them.\n"
    "\n"
    "Exit status: 0 done, 1 a problem was found, 2 wrong usage, 3 the database cannot\n"
    "be opened, 4 the work was refused or failed, 5 there is something to do\n"
    "(apply --plan), 6 the data file was truncated while it was open.";

std::vector<std::string> OptionNames(CLI::App const& app) {
  std::vector<std::string> names;
  for (CLI::Option const* const option : app.get_options()) {
    for (std::string const& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

// The first required argument that is missing; null if there is none.
CLI::Option const* Missing(CLI::App const& app) {
  for (CLI::Option const* const option : app.get_options()) {
    if (option->get_required() && option->count() == 0) return option;
  }
  return nullptr;
}

// The option of an error, by the name in its text.
CLI::Option const* Concerned(CLI::App const& app, std::string const& text) {
  for (CLI::Option const* const option : app.get_options()) {
    for (std::string const& name : option->get_lnames()) {
      auto const at = text.find("--" + name);
      if (at == std::string::npos) continue;
      char const next = (text + " ")[at + 2 + name.size()];
      if (next == ' ' || next == ':' || next == ',') return option;
    }
  }
  return nullptr;
}

}  // namespace

Parser::Parser(Output& output, std::string* directory)
    : output_(output),
      at_prompt_(directory == nullptr),
      program_(at_prompt_ ? "" : "sagleme "),
      app_(kAbout, "sagleme"),
      commands_(MakeCommands()) {
  app_.require_subcommand(1);
  app_.set_help_flag("-h,--help", "Show this help");
  for (auto const& command : commands_) {
    if (at_prompt_ && !command->at_prompt()) continue;
    attached_.push_back({command.get(), Attach(app_, *command, output, directory)});
  }
}

void Parser::AddPrinter(std::string const& flag, std::string const& about,
                        std::function<std::string()> text) {
  app_.add_flag_callback(
      flag,
      [this, text] {
        output_.Print(text());
        throw CLI::Success();
      },
      about);
}

Parser::Attached const* Parser::Named(std::string const& name) const {
  auto const found = std::find_if(attached_.begin(), attached_.end(), [&](Attached const& each) {
    return each.command->name() == name;
  });
  return found == attached_.end() ? nullptr : &*found;
}

Parser::Attached const* Parser::Parsed() const {
  auto const found = std::find_if(attached_.begin(), attached_.end(),
                                  [](Attached const& each) { return each.app->parsed(); });
  return found == attached_.end() ? nullptr : &*found;
}

std::vector<std::string> Parser::Names() const {
  std::vector<std::string> names{"help"};
  for (Attached const& each : attached_) {
    if (!each.command->hidden()) names.push_back(each.command->name());
  }
  return names;
}

void Parser::RefuseFirst(std::string const& word) const {
  bool const option = word.starts_with('-');
  auto const names = option ? OptionNames(app_) : Names();
  bool const known =
      option ? word == "-h" || std::find(names.begin(), names.end(), word) != names.end()
             : Named(word) != nullptr;
  if (known) return;
  std::string const near = DidYouMean(word, names);
  throw Failure(
      Exit::kUsage,
      option ? fmt::format("unknown option {}", word) : fmt::format("unknown command \"{}\"", word),
      near.empty() ? program_ + "help lists the commands." : near);
}

std::string Parser::Help() const {
  Attached const* const parsed = Parsed();
  if (parsed == nullptr) return ProgramHelp(app_, commands_);
  return CommandHelp(*parsed->app, *parsed->command, program_);
}

Command* Parser::Parse(std::vector<std::string> words) {
  if (!words.empty() && words.front() == "help") {
    words.erase(words.begin());
    words.resize(std::min<std::size_t>(words.size(), 1));
    words.push_back("--help");
  }
  if (words.empty()) {
    throw Failure(Exit::kUsage, "no command was given", program_ + "help lists the commands.");
  }
  RefuseFirst(words.front());
  std::reverse(words.begin(), words.end());  // the library takes them from the end
  try {
    app_.parse(words);
  } catch (CLI::CallForHelp const&) {
    output_.Print(Help());
    return nullptr;
  } catch (CLI::Success const&) {
    return nullptr;
  } catch (CLI::ParseError const& error) {
    throw Refusal(error);
  }
  return Parsed()->command;
}

std::string Parser::WhatIsWrong(CLI::ParseError const& error, CLI::App const& app,
                                std::string& near) const {
  auto const extras = app_.remaining(true);
  if (!extras.empty() && dynamic_cast<CLI::ExtrasError const*>(&error) != nullptr) {
    std::string const word = extras.front();
    if (!word.starts_with('-')) return fmt::format("unexpected argument \"{}\"", word);
    std::string const option = word.substr(0, word.find('='));
    near = DidYouMean(option, OptionNames(app));
    return fmt::format("unknown option {}", option);
  }
  if (dynamic_cast<CLI::RequiredError const*>(&error) != nullptr) {
    CLI::Option const* const missing = Missing(app);
    return missing == nullptr ? "no command was given"
                              : fmt::format("the argument {} is missing", missing->get_name(true));
  }
  CLI::Option const* const option = Concerned(app, error.what());
  if (option == nullptr) return "the arguments are not understood";
  std::string const name = "--" + option->get_lnames().front();
  if (option->get_expected_max() == 0) return fmt::format("the option {} takes no value", name);
  return option->count() > 1
             ? fmt::format("the option {} is given more than once", name)
             : fmt::format("the option {} needs a value, {}", name, option->get_type_name());
}

Failure Parser::Refusal(CLI::ParseError const& error) const {
  Attached const* const parsed = Parsed();
  CLI::App const& app = parsed == nullptr ? app_ : *parsed->app;
  std::string near;
  std::string const what = WhatIsWrong(error, app, near);
  if (!near.empty()) return {Exit::kUsage, what, near};
  if (parsed == nullptr) return {Exit::kUsage, what, program_ + "help lists the commands."};
  return {Exit::kUsage, what,
          fmt::format("Usage: {}\n  {}help {} shows the options.", UsageLine(app, program_),
                      program_, app.get_name())};
}

void AddCount(CLI::App& app, std::string const& name, std::uint64_t& count,
              std::string const& about, std::string const& unit) {
  app.add_option_function<std::string>(
         name,
         [name, &count](std::string const& text) {
           auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
           if (error == std::errc() && end == text.data() + text.size()) return;
           throw Failure(Exit::kUsage,
                         fmt::format("the option {} needs a whole number, not \"{}\"", name, text));
         },
         about)
      ->type_name(unit);
}

void AddChoice(CLI::App& app, std::string const& name, std::string& choice,
               std::vector<std::string> const& choices, std::string const& about) {
  app.add_option_function<std::string>(
         name,
         [name, &choice, choices](std::string const& text) {
           choice = text;
           if (std::find(choices.begin(), choices.end(), text) != choices.end()) return;
           throw Failure(Exit::kUsage,
                         fmt::format("the option {} does not take \"{}\"", name, text),
                         fmt::format("It takes one of: {}.", fmt::join(choices, ", ")));
         },
         about)
      ->type_name("FORM");
}

}  // namespace tool

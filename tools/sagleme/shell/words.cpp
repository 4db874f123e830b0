#include "shell/words.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

#include "cli/command.h"
#include "shell/settings.h"

namespace tool {
namespace {

class Splitter {
 public:
  explicit Splitter(std::string const& line) : line_(line) {}

  std::vector<std::string> Run() {
    for (; at_ < line_.size(); ++at_) Take(line_[at_]);
    if (quote_ != '\0') throw Failure(Exit::kUsage, "a quotation mark is never closed");
    EndWord();
    return std::move(words_);
  }

 private:
  void Take(char each) {
    if (each == '\\' && quote_ != '\'' && at_ + 1 < line_.size()) {
      Add(line_[++at_]);
    } else if (quote_ != '\0') {
      if (each == quote_) {
        quote_ = '\0';
      } else {
        Add(each);
      }
    } else if (each == '"' || each == '\'') {
      quote_ = each;
      in_word_ = true;
    } else if (each == ' ' || each == '\t') {
      EndWord();
    } else if (each == '#' && !in_word_) {
      at_ = line_.size() - 1;  // a comment
    } else {
      Add(each);
    }
  }
  void Add(char each) {
    word_ += each;
    in_word_ = true;
  }
  void EndWord() {
    if (in_word_) words_.push_back(std::move(word_));
    word_.clear();
    in_word_ = false;
  }

  std::string const& line_;
  std::size_t at_ = 0;
  char quote_ = '\0';
  bool in_word_ = false;
  std::string word_;
  std::vector<std::string> words_;
};

using Names = std::set<std::string>;

Names CommandNames() {
  Names names{"begin", "commit", "rollback", "help", "quit"};
  for (auto const& [word, meaning] : Settings::Words()) names.insert(word);
  for (auto const& command : MakeCommands()) {
    if (command->at_prompt()) names.insert(command->name());
  }
  return names;
}

Names OptionNames(CLI::App const& app) {
  Names names;
  for (CLI::Option const* const option : app.get_options()) {
    for (std::string const& each : option->get_lnames()) names.insert("--" + each);
  }
  return names;
}

Names TableNames(Session& session) {
  Names names;
  session.Read([&](sagleme::Transaction& transaction) {
    for (sagleme::TablePtr const& table : transaction.Tables()) {
      names.insert(sagleme::ToUtf8(table->name));
      names.insert(sagleme::ToUtf8(table->short_name()));
    }
  });
  return names;
}

Names IndexNames(Session& session) {
  Names names;
  session.Read([&](sagleme::Transaction& transaction) {
    for (sagleme::TablePtr const& table : transaction.Tables()) {
      for (sagleme::Index const& index : table->indexes) names.insert(sagleme::ToUtf8(index.name));
    }
  });
  return names;
}

// Names of the tables that end with what was typed; of all tables if none does. `behind` follows
// each name.
Names ColumnNames(Session& session, std::u16string const& typed, std::string const& behind) {
  Names names;
  session.Read([&](sagleme::Transaction& transaction) {
    for (sagleme::TablePtr const& table : transaction.Tables()) {
      if (!typed.empty() && table->name != typed && table->short_name() != typed) continue;
      for (sagleme::Column const& column : table->columns) {
        if (!column.system()) names.insert(sagleme::ToUtf8(column.name) + behind);
      }
    }
  });
  return names;
}

// The entries of a folder that a path leads to as far as it is typed; folders end with a slash.
Names FileNames(std::string const& begun) {
  Names names;
  std::string const folder = begun.substr(0, begun.rfind('/') + 1);
  std::error_code error;
  std::filesystem::directory_iterator entries(folder.empty() ? "." : folder, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    std::error_code unknown;
    bool const is_folder = entries->is_directory(unknown);
    names.insert(folder + entries->path().filename().string() + (is_folder ? "/" : ""));
  }
  return names;
}

// What comes before the word to complete.
struct WordContext {
  std::vector<std::string> arguments;  // behind the command, without options and their values
  std::string option;                  // whose value the word is; empty when it is none's
};

WordContext ContextOf(CLI::App const& app, std::vector<std::string> const& words) {
  WordContext context;
  for (std::size_t i = 1; i < words.size(); ++i) {
    std::string const option = std::exchange(context.option, "");
    if (!words[i].starts_with("--")) {
      if (option.empty()) context.arguments.push_back(words[i]);
      continue;
    }
    CLI::Option const* const declared = app.get_option_no_throw(words[i]);
    if (declared != nullptr && declared->get_expected_max() != 0) context.option = words[i];
  }
  return context;
}

// The name of the argument that comes next; the last one where it takes several.
std::string ArgumentAt(CLI::App const& app, std::size_t position) {
  std::string name;
  for (CLI::Option const* const option : app.get_options()) {
    if (!option->get_positional()) continue;
    name = option->get_name(true);
    if (position-- == 0) return name;
    if (option->get_expected_max() <= 1) name.clear();
  }
  return name;
}

Names ValuesOf(std::string const& option, std::string const& begun, Session& session,
               std::u16string const& table) {
  if (option == "--format") return {"table", "records", "json", "csv", "markdown"};
  if (option == "--as") return {"dot", "mermaid", "svg", "html"};
  if (option == "--output" || option == "--reject") return FileNames(begun);
  bool const column =
      option == "--where" || option == "--order" || option == "--null" || option == "--follow";
  return column ? ColumnNames(session, table, "") : Names{};
}

Names Arguments(std::string const& argument, std::string const& begun, Session& session,
                std::u16string const& table) {
  if (argument == "TABLE") return TableNames(session);
  if (argument == "INDEX") return IndexNames(session);
  if (argument == "COLUMN=VALUE") return ColumnNames(session, table, "=");
  return argument == "FILE" || argument == "TARGET" ? FileNames(begun) : Names{};
}

Names WordsBehind(Session& session, std::vector<std::string> const& words,
                  std::string const& begun) {
  std::string const& name = words.front();
  if (name == "help") return CommandNames();
  if (name == "paging" || name == "timing") return {"on", "off"};
  if (name == "expanded") return {"on", "off", "auto"};
  CLI::App parser;
  Output output;
  for (auto const& command : MakeCommands()) {
    if (command->name() != name) continue;
    CLI::App const& app = *Attach(parser, *command, output, nullptr);
    if (begun.starts_with('-')) return OptionNames(app);
    WordContext const context = ContextOf(app, words);
    bool const has_table = ArgumentAt(app, 0) == "TABLE" && !context.arguments.empty();
    std::u16string const table = has_table ? sagleme::ToUtf16(context.arguments[0]) : u"";
    if (!context.option.empty()) return ValuesOf(context.option, begun, session, table);
    return Arguments(ArgumentAt(app, context.arguments.size()), begun, session, table);
  }
  return {};
}

}  // namespace

std::vector<std::string> SplitLine(std::string const& line) { return Splitter(line).Run(); }

std::size_t LastWord(std::string const& line) {
  auto const blank = line.find_last_of(" \t");
  return blank == std::string::npos ? 0 : blank + 1;
}

std::vector<std::string> Completions(Session& session, std::string const& line) {
  std::size_t const start = LastWord(line);
  std::string const begun = line.substr(start);
  auto const words = SplitLine(line.substr(0, start));
  Names const names = words.empty() ? CommandNames() : WordsBehind(session, words, begun);
  std::vector<std::string> fitting;
  for (std::string const& name : names) {
    if (name.starts_with(begun)) fitting.push_back(name);
  }
  return fitting;
}

std::string CommonBeginning(std::vector<std::string> const& words) {
  if (words.empty()) return "";
  std::string common = words.front();
  for (std::string const& word : words) {
    auto const differ = std::mismatch(common.begin(), common.end(), word.begin(), word.end());
    common.erase(differ.first, common.end());
  }
  return common;
}

}  // namespace tool

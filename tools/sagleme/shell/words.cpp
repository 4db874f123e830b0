#include "shell/words.h"

#include <algorithm>
#include <set>

#include "cli/command.h"

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

std::set<std::string> CommandNames() {
  std::set<std::string> names{"begin", "commit", "rollback", "help", "quit"};
  for (auto const& command : MakeCommands()) {
    if (command->at_prompt()) names.insert(command->name());
  }
  return names;
}

std::set<std::string> OptionNames(std::string const& name) {
  std::set<std::string> names{"--help"};
  CLI::App parser;
  Output output;
  for (auto const& command : MakeCommands()) {
    if (command->name() != name) continue;
    for (CLI::Option const* const option :
         Attach(parser, *command, output, nullptr)->get_options()) {
      for (std::string const& each : option->get_lnames()) names.insert("--" + each);
    }
  }
  return names;
}

std::set<std::string> SchemaNames(Session& session) {
  std::set<std::string> names;
  session.Read([&](sagleme::Transaction& transaction) {
    for (sagleme::TablePtr const& table : transaction.Tables()) {
      names.insert(sagleme::ToUtf8(table->name));
      names.insert(sagleme::ToUtf8(table->short_name()));
      for (sagleme::Column const& column : table->columns) {
        if (!column.system()) names.insert(sagleme::ToUtf8(column.name));
      }
      for (sagleme::Index const& index : table->indexes) names.insert(sagleme::ToUtf8(index.name));
    }
  });
  return names;
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
  std::set<std::string> names;
  if (line.find_first_not_of(" \t") >= start) {
    names = CommandNames();
  } else if (begun.starts_with('-')) {
    auto const first = line.find_first_not_of(" \t");
    names = OptionNames(line.substr(first, line.find_first_of(" \t", first) - first));
  } else {
    names = SchemaNames(session);
  }
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

#include "shell/line_reader.h"

#include <histedit.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <string>

#include "base/failure.h"
#include "base/interrupt.h"
#include "shell/words.h"

namespace tool {
namespace {

constexpr int kHistorySize = 1000;
constexpr std::size_t kMostShown = 40;

class TerminalReader : public LineReader {
 public:
  explicit TerminalReader(Completer completer)
      : completer_(std::move(completer)),
        edit_(el_init("sagleme", stdin, stdout, stderr), el_end),
        history_(history_init(), history_end) {
    HistEvent event;
    history(history_.get(), &event, H_SETSIZE, kHistorySize);
    history(history_.get(), &event, H_SETUNIQUE, 1);
    if (!HistoryFile().empty()) history(history_.get(), &event, H_LOAD, HistoryFile().c_str());
    el_set(edit_.get(), EL_CLIENTDATA, this);
    el_set(edit_.get(), EL_PROMPT, &TerminalReader::Prompt);
    el_set(edit_.get(), EL_EDITOR, "emacs");
    el_set(edit_.get(), EL_HIST, history, history_.get());
    el_set(edit_.get(), EL_ADDFN, "complete", "completes a word", &TerminalReader::Complete);
    el_set(edit_.get(), EL_BIND, "^I", "complete", nullptr);
    el_set(edit_.get(), EL_GETCFN, &TerminalReader::ReadCharacter);
    el_source(edit_.get(), nullptr);
  }
  ~TerminalReader() override {
    HistEvent event;
    if (!HistoryFile().empty()) history(history_.get(), &event, H_SAVE, HistoryFile().c_str());
  }

  std::optional<std::string> Next(std::string const& prompt) override {
    prompt_ = prompt;
    el_resize(edit_.get());
    int length = 0;
    char const* const line = el_gets(edit_.get(), &length);
    if (TakeInterrupt()) return AfterInterrupt();
    interrupted_before_ = false;
    if (line == nullptr || length <= 0) return std::nullopt;
    std::string text(line, static_cast<std::size_t>(length));
    if (text.ends_with('\n')) text.pop_back();
    HistEvent event;
    if (!text.empty()) history(history_.get(), &event, H_ENTER, text.c_str());
    return text;
  }
  void NoteInterrupt() override { interrupted_before_ = true; }

 private:
  static TerminalReader& Self(EditLine* edit) {
    void* self = nullptr;
    el_get(edit, EL_CLIENTDATA, &self);
    return *static_cast<TerminalReader*>(self);
  }
  // An empty line, so that the prompt is shown again, or nothing to leave.
  std::optional<std::string> AfterInterrupt() {
    el_reset(edit_.get());
    bool const leave = line_was_empty_ && interrupted_before_;
    bool const hint = line_was_empty_ && !leave;
    std::fputs(hint ? "^C (again to leave)\n" : "^C\n", stdout);
    std::fflush(stdout);
    interrupted_before_ = line_was_empty_;
    if (leave) return std::nullopt;
    return "";
  }

  // One character, as libedit asks for it: 1, 0 at the end of the input, -1 when interrupted.
  static int ReadCharacter(EditLine* edit, wchar_t* character) {
    std::mbstate_t state{};
    while (true) {
      if (!WaitForInput(STDIN_FILENO)) {
        LineInfo const* const info = el_line(edit);
        Self(edit).line_was_empty_ = info->lastchar == info->buffer;
        return -1;
      }
      char byte = 0;
      if (read(STDIN_FILENO, &byte, 1) <= 0) return 0;
      std::size_t const length = std::mbrtowc(character, &byte, 1, &state);
      if (length == static_cast<std::size_t>(-2)) continue;  // more bytes belong to it
      if (length == static_cast<std::size_t>(-1)) *character = 0xFFFD;
      return 1;
    }
  }

  static char* Prompt(EditLine* edit) { return Self(edit).prompt_.data(); }

  // None where a line cannot be read so far, or the database not at all.
  std::vector<std::string> Candidates(std::string const& line) const {
    try {
      return completer_(line);
    } catch (std::exception const&) {
      return {};
    }
  }
  static unsigned char Complete(EditLine* edit, int) {
    LineInfo const* const info = el_line(edit);
    std::string const line(info->buffer, info->cursor);
    auto const words = Self(edit).Candidates(line);
    if (words.empty()) return CC_ERROR;
    std::size_t const begun = line.size() - LastWord(line);
    std::string rest = CommonBeginning(words).substr(begun);
    bool const whole = words.size() == 1 && !rest.ends_with('=') && !rest.ends_with('/');
    if (whole) rest += ' ';
    if (rest.empty()) return Show(words);
    return el_insertstr(edit, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
  }
  static unsigned char Show(std::vector<std::string> const& words) {
    std::string text = "\n";
    for (std::size_t i = 0; i < words.size() && i < kMostShown; ++i) text += words[i] + "  ";
    if (words.size() > kMostShown) text += "...";
    std::fputs((text + "\n").c_str(), stdout);
    return CC_REDISPLAY;
  }
  static std::string HistoryFile() {
    char const* const home = std::getenv("HOME");
    return home == nullptr ? "" : std::string(home) + "/.sagleme_history";
  }

  Completer completer_;
  std::string prompt_;
  bool line_was_empty_ = false;
  bool interrupted_before_ = false;
  std::unique_ptr<EditLine, void (*)(EditLine*)> edit_;
  std::unique_ptr<History, void (*)(History*)> history_;
};

class PlainReader : public LineReader {
 public:
  std::optional<std::string> Next(std::string const&) override {
    std::string line;
    if (std::getline(std::cin, line)) return line;
    // What cannot be read is not at its end: the rest would be left out unnoticed.
    if (std::ferror(stdin) == 0) return std::nullopt;
    throw Failure(Exit::kRefused,
                  std::string("cannot read standard input: ") + std::strerror(errno));
  }
};

}  // namespace

std::unique_ptr<LineReader> MakeTerminalReader(Completer completer) {
  return std::make_unique<TerminalReader>(std::move(completer));
}

std::unique_ptr<LineReader> MakePlainReader() { return std::make_unique<PlainReader>(); }

}  // namespace tool

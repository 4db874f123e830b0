#ifndef SAGLEME_TOOL_SHELL_PAGER_H
#define SAGLEME_TOOL_SHELL_PAGER_H

// Output that may be longer than the screen.
//
// Text is held until it would fill the screen; only then the user's pager is started, and gets all
// of it. A pager that is left early ends the output with OutputClosed.

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "output/format.h"
#include "output/writer.h"

namespace tool {

// $PAGER, or less or more where they are installed; nothing when $PAGER is empty.
std::string PagerCommand();

class PagerWriter : public Writer {
 public:
  // Output that fits on the screen goes to `screen`.
  PagerWriter(std::shared_ptr<Writer> screen, TerminalSize size, std::string command)
      : screen_(std::move(screen)), size_(size), command_(std::move(command)) {}
  // Waits until the user has left the pager.
  ~PagerWriter() override;

  void Write(std::string_view text) override;
  void Flush() override;
  void Discard() override;
  bool started() const { return pipe_ != nullptr; }

 private:
  void CountLines(std::string_view text);
  void Start();

  std::shared_ptr<Writer> screen_;
  TerminalSize size_;
  std::string command_;
  std::string held_;
  std::string line_;
  std::size_t lines_ = 0;
  std::FILE* pipe_ = nullptr;
  std::unique_ptr<FileWriter> to_pager_;
};

}  // namespace tool

#endif

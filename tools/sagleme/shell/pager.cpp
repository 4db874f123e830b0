#include "shell/pager.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "output/text.h"

namespace tool {
namespace {

bool Installed(std::string const& program) {
  for (char const* const folder : {"/usr/bin/", "/bin/", "/usr/local/bin/"}) {
    if (access((folder + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

}  // namespace

std::string PagerCommand() {
  if (char const* const chosen = std::getenv("PAGER")) return chosen;
  // Colours as they are, and the text stays on the screen.
  if (Installed("less")) return std::getenv("LESS") == nullptr ? "less -RX" : "less";
  return Installed("more") ? "more" : "";
}

PagerWriter::~PagerWriter() {
  if (pipe_ != nullptr) pclose(pipe_);
}

// A line that is wider than the screen takes several of its lines.
void PagerWriter::CountLines(std::string_view text) {
  for (char const each : text) {
    if (each != '\n') {
      line_ += each;
      continue;
    }
    std::size_t const width = std::max<std::size_t>(size_.columns, 1);
    lines_ += std::max<std::size_t>((DisplayWidth(line_) + width - 1) / width, 1);
    line_.clear();
  }
}

void PagerWriter::Write(std::string_view text) {
  if (to_pager_ != nullptr) return to_pager_->Write(text);
  held_ += text;
  CountLines(text);
  bool const pages = !command_.empty() && size_.rows != 0;
  if (pages && lines_ + 1 >= size_.rows) Start();
  if (!pages) Flush();
}

void PagerWriter::Start() {
  screen_->Flush();
  pipe_ = popen(command_.c_str(), "w");
  if (pipe_ == nullptr) {
    command_.clear();
    return Flush();
  }
  to_pager_ = std::make_unique<FileWriter>(fileno(pipe_), "the pager");
  to_pager_->Write(held_);
  held_.clear();
}

void PagerWriter::Flush() {
  if (to_pager_ != nullptr) return to_pager_->Flush();
  screen_->Write(held_);
  held_.clear();
  screen_->Flush();
}

void PagerWriter::Discard() {
  held_.clear();
  screen_->Discard();
  if (to_pager_ != nullptr) to_pager_->Discard();
}

}  // namespace tool

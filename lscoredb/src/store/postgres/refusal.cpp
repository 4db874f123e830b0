#include "refusal.h"

namespace lscore {
namespace {

thread_local std::string refusal;

}  // namespace

std::string const& LastRefusal() noexcept { return refusal; }

void ForgetRefusal() noexcept { refusal.clear(); }

void NoteRefusal(std::string_view text) {
  refusal.clear();
  while (text.ends_with('\n')) text.remove_suffix(1);
  for (char const c : text) {
    if (c == '\n') {
      refusal += ';';
    } else {
      if (refusal.ends_with(';')) refusal += ' ';
      if (c != '\t') refusal += c;
    }
  }
}

}  // namespace lscore

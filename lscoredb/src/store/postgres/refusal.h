#ifndef LSCOREDB_SRC_REFUSAL_H
#define LSCOREDB_SRC_REFUSAL_H

// What the server, or whoever was to reach it, said to this thread when it last refused something.

#include <string>
#include <string_view>

namespace lscore {

std::string const& LastRefusal() noexcept;
void ForgetRefusal() noexcept;
// Keeps the text as one line.
void NoteRefusal(std::string_view text);

}  // namespace lscore

#endif

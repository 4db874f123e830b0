#ifndef LSCOREDB_SRC_REFUSAL_H
#define LSCOREDB_SRC_REFUSAL_H

// The last message with which the server, or libpq on the way to it, refused this thread something.

#include <string>
#include <string_view>

namespace lscore {

std::string const& LastRefusal() noexcept;
void ForgetRefusal() noexcept;
// Stores the text as one line.
void NoteRefusal(std::string_view text);

}  // namespace lscore

#endif

#ifndef SAGLEME_TOOL_BASE_FAILURE_H
#define SAGLEME_TOOL_BASE_FAILURE_H

// How a command fails: an exit status, what is wrong and where, and what to do.

#include <stdexcept>
#include <string>

namespace tool {

enum class Exit : int {
  kDone = 0,
  kProblem = 1,
  kUsage = 2,
  kCannotOpen = 3,
  kRefused = 4,
  kSomethingToDo = 5,
  kFileLost = 6,
};

class Failure : public std::runtime_error {
 public:
  // `advice` may be empty.
  Failure(Exit exit, std::string const& what, std::string advice = {})
      : std::runtime_error(what), exit_(exit), advice_(std::move(advice)) {}

  Exit exit() const { return exit_; }
  std::string const& advice() const { return advice_; }

 private:
  Exit exit_;
  std::string advice_;
};

}  // namespace tool

#endif

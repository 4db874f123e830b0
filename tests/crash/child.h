#ifndef SAGLEME_TESTS_CRASH_CHILD_H
#define SAGLEME_TESTS_CRASH_CHILD_H

// Other processes of a test: forked from it before it has threads or an open database, so that what
// a library knows of a database begins anew in each.
//
// A child and its parent talk in lines. What a child said is read also after its death.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace crash_test {

// The child's end. Say may be called from any thread: a line goes out in one piece.
class Channel {
 public:
  Channel(int input, int output) : input_(input), output_(output) {}
  void Say(std::string const& line) const;
  // The next line from the parent; empty when it is gone.
  std::string Hear() const;

 private:
  int input_;
  int output_;
};

class Child {
 public:
  // Exit statuses beside those of `body`.
  static constexpr int kFailedExpectation = 101;
  static constexpr int kException = 102;
  static constexpr int kKilled = 128 + 9;

  explicit Child(std::function<int(Channel&)> const& body);
  // Kills a child that still runs.
  ~Child();
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  // Nothing when the child has ended.
  std::optional<std::string> Next();
  void Send(std::string const& line) const;
  void Kill();
  // Waits for the end: the exit status, or 128 and the number of the signal.
  int Wait();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  std::FILE* said_ = nullptr;
};

// Runs `body` in a child and waits for it: what it expects is expected of it, and it ends well.
void InChild(std::function<void()> const& body);

}  // namespace crash_test

#endif

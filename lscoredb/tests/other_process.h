#ifndef LSCOREDB_TESTS_OTHER_PROCESS_H
#define LSCOREDB_TESTS_OTHER_PROCESS_H

// A part of a test that runs in a process of its own, forked off one that has opened no database
// and started no thread. A failed expectation in it fails the test.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>

namespace lscoredb_test {

class OtherProcess {
 public:
  // Runs `body`, which may talk to the test through the process that it is given.
  explicit OtherProcess(std::function<void(OtherProcess&)> const& body) {
    int down[2];
    int up[2];
    if (pipe(down) != 0 || pipe(up) != 0) throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process");
    bool const other = pid_ == 0;
    in_ = other ? down[0] : up[0];
    out_ = other ? up[1] : down[1];
    close(other ? down[1] : up[1]);
    close(other ? up[0] : down[0]);
    if (other) RunAndExit(body);
  }
  ~OtherProcess() {
    if (pid_ > 0) Kill();
    close(in_);
    close(out_);
  }
  OtherProcess(OtherProcess const&) = delete;
  OtherProcess& operator=(OtherProcess const&) = delete;

  // Both sides: says a number to the other one, and waits for one that the other says.
  void Say(std::uint64_t number = 0) {
    if (write(out_, &number, sizeof number) != sizeof number) throw std::runtime_error("not heard");
  }
  std::uint64_t Hear() {
    std::uint64_t number = 0;
    if (read(in_, &number, sizeof number) != sizeof number)
      throw std::runtime_error("nothing said");
    return number;
  }

  // The test's side.
  void Kill() {
    kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, -1), nullptr, 0);
  }
  void ExpectGoodEnd() {
    int const status = End();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "in another process";
  }
  // Whether it was killed; otherwise it has to have come to a good end.
  bool EndsKilled() {
    int const status = End();
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "in another process";
    return false;
  }

 private:
  [[noreturn]] void RunAndExit(std::function<void(OtherProcess&)> const& body) {
    bool failed = false;
    try {
      body(*this);
    } catch (std::exception const& failure) {
      std::printf("%s\n", failure.what());
      failed = true;
    }
    std::fflush(nullptr);
    _exit(failed || testing::Test::HasFailure() ? 1 : 0);
  }

  int End() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
};

// Runs `body` in a process that ends with it.
inline void InAnotherProcess(std::function<void()> const& body) {
  OtherProcess process([&](OtherProcess&) { body(); });
  process.ExpectGoodEnd();
}

}  // namespace lscoredb_test

#endif
